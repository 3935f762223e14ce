// The in-memory bus: every record lives under one mutex; the device's host is called only
// from the receive thread (in injection order) or an opener thread, never with the mutex held.
#include "scripted_peer.h"

#include <algorithm>
#include <iterator>

#include "host_types.h"

namespace QUEX {
namespace Tandra {

namespace Testing {

namespace {
// Which of the device's messages a query or a wait is about.
std::function<bool(const SentMessage&)> ControlMessageOn(int32_t sessionId)
{
    return [sessionId](const SentMessage& m) { return !m.onDataChannel && m.sessionId == sessionId; };
}
std::function<bool(const SentMessage&)> DataMessageOnChannel(int32_t channelId)
{
    return [channelId](const SentMessage& m) { return m.onDataChannel && m.channelId == channelId; };
}
std::function<bool(const SentMessage&)> DataMessageFor(int32_t ctrlSessionId)
{
    return [ctrlSessionId](const SentMessage& m) { return m.onDataChannel && m.sessionId == ctrlSessionId; };
}
using Clock = std::chrono::steady_clock;

void JoinUnlessSelf(std::thread& thread)
{
    if (!thread.joinable()) {
        return;
    }
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
        return;
    }
    thread.join();
}
}  // namespace

ScriptedPeer::ScriptedPeer() : receiver_(&ScriptedPeer::ReceiveLoop, this) {}

ScriptedPeer::~ScriptedPeer()
{
    Shutdown();
}

void ScriptedPeer::Shutdown()
{
    std::vector<std::thread> openers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        Changed();
    }
    JoinUnlessSelf(receiver_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        openers.swap(openers_);
    }
    for (std::thread& opener : openers) {
        JoinUnlessSelf(opener);
    }
}

void ScriptedPeer::Changed()
{
    ++version_;
    changed_.notify_all();
}

bool ScriptedPeer::AwaitLocked(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds timeout,
                               const std::function<bool()>& condition)
{
    return changed_.wait_until(lock, Clock::now() + timeout, condition);
}

CtrlSessionInfo ScriptedPeer::InfoOf(const Session& session) const
{
    CtrlSessionInfo info;
    info.sessionId = session.record.sessionId;
    info.sessionName = session.record.sessionName;
    info.peerNetworkId = session.record.peerNetworkId;
    info.openedByPeer = session.record.openedByPeer;
    return info;
}

// ---- SoftBus ----

void ScriptedPeer::SetListener(SoftBusListener* listener)
{
    std::lock_guard<std::mutex> lock(mutex_);
    listener_ = listener;
}

std::pair<int32_t, int32_t> ScriptedPeer::OpenCtrlSession(const std::string& peerNetworkId,
                                                          const std::string& sessionName,
                                                          const std::string& commandText)
{
    std::unique_lock<std::mutex> lock(mutex_);
    int32_t id = nextSessionId_++;
    Session& session = sessions_[id];
    session.record.sessionId = id;
    session.record.peerNetworkId = peerNetworkId;
    session.record.sessionName = sessionName;
    session.record.commandText = commandText;
    sessionOrder_.push_back(id);
    Changed();
    changed_.wait(lock, [this] { return !holdSessionOpens_ || stopping_; });
    int32_t failure = stopping_ ? HOST_ERR_NO_SESSION : failSessionOpens_;
    session.record.openDone = true;
    session.record.openResult = failure;
    if (failure != HOST_OK) {
        session.record.sessionId = -1;
        Changed();
        return {failure, -1};
    }
    session.open = true;
    Changed();
    return {HOST_OK, id};
}

int32_t ScriptedPeer::CloseCtrlSession(int32_t sessionId, bool notifyPeer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sessions_.find(sessionId);
    if (it == sessions_.end() || !it->second.open) {
        return HOST_ERR_NO_SESSION;
    }
    it->second.open = false;
    closedSessions_.push_back({sessionId, notifyPeer});
    Changed();
    return HOST_OK;
}

bool ScriptedPeer::HasCtrlSession(int32_t sessionId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sessions_.find(sessionId);
    return it != sessions_.end() && it->second.open;
}

int32_t ScriptedPeer::SendCtrlMessage(int32_t sessionId, const char* data, uint32_t len, uint32_t type)
{
    // The one copy of this hop, made before taking the lock: messages may be tens of MiB.
    SentMessage message;
    message.sessionId = sessionId;
    message.type = type;
    message.bytes.assign(data, len);
    std::lock_guard<std::mutex> lock(mutex_);
    if (failTransmits_ != HOST_OK) {
        return failTransmits_;
    }
    auto it = sessions_.find(sessionId);
    if (it == sessions_.end() || !it->second.open) {
        return HOST_ERR_NO_SESSION;
    }
    sent_.push_back(std::move(message));
    Changed();
    return HOST_OK;
}

std::pair<int32_t, int32_t> ScriptedPeer::OpenDataChannel(const std::string& peerDeviceId, const SessionAttribute& attr)
{
    std::lock_guard<std::mutex> lock(mutex_);
    int32_t id = nextChannelId_++;
    Channel& channel = channels_[id];
    channel.record.channelId = id;
    channel.record.peerDeviceId = peerDeviceId;
    channel.record.attr = attr;
    channel.record.openResult = failChannelOpens_;
    channelOrder_.push_back(id);
    if (failChannelOpens_ != HOST_OK) {
        channel.record.channelId = -1;
        Changed();
        return {failChannelOpens_, -1};
    }
    channel.open = true;
    lastChannel_ = id;
    Changed();
    return {HOST_OK, id};
}

int32_t ScriptedPeer::CloseDataChannel(int32_t channelId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = channels_.find(channelId);
    if (it == channels_.end() || !it->second.open) {
        return HOST_ERR_NO_SESSION;
    }
    it->second.open = false;
    closedChannels_.push_back(channelId);
    Changed();
    return HOST_OK;
}

int32_t ScriptedPeer::SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len,
                                      uint32_t type, bool isFirst)
{
    SentMessage message;
    message.onDataChannel = true;
    message.channelId = channelId;
    message.sessionId = ctrlSessionId;
    message.type = type;
    message.isFirst = isFirst;
    message.bytes.assign(data, len);
    std::lock_guard<std::mutex> lock(mutex_);
    if (failTransmits_ != HOST_OK) {
        return failTransmits_;
    }
    auto it = channels_.find(channelId);
    if (it == channels_.end() || !it->second.open) {
        return HOST_ERR_NO_SESSION;
    }
    sent_.push_back(std::move(message));
    Changed();
    return HOST_OK;
}

// ---- Failures on demand ----

void ScriptedPeer::FailSessionOpens(int32_t code)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failSessionOpens_ = code;
}

void ScriptedPeer::FailChannelOpens(int32_t code)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failChannelOpens_ = code;
}

void ScriptedPeer::FailTransmits(int32_t code)
{
    std::lock_guard<std::mutex> lock(mutex_);
    failTransmits_ = code;
}

void ScriptedPeer::HoldSessionOpens()
{
    std::lock_guard<std::mutex> lock(mutex_);
    holdSessionOpens_ = true;
}

void ScriptedPeer::ReleaseSessionOpens()
{
    std::lock_guard<std::mutex> lock(mutex_);
    holdSessionOpens_ = false;
    Changed();
}

// ---- Records ----

std::vector<SessionRecord> ScriptedPeer::Sessions() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<SessionRecord> result;
    for (int32_t id : sessionOrder_) {
        result.push_back(sessions_.at(id).record);
    }
    return result;
}

std::vector<SessionRecord> ScriptedPeer::SessionsOpenedByDevice() const
{
    std::vector<SessionRecord> result;
    for (SessionRecord& record : Sessions()) {
        if (!record.openedByPeer) {
            result.push_back(std::move(record));
        }
    }
    return result;
}

std::vector<ChannelRecord> ScriptedPeer::Channels() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<ChannelRecord> result;
    for (int32_t id : channelOrder_) {
        result.push_back(channels_.at(id).record);
    }
    return result;
}

std::vector<SentMessage> ScriptedPeer::Sent() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
}

std::vector<SentMessage> ScriptedPeer::SentMatching(const SentFilter& match) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<SentMessage> result;
    std::copy_if(sent_.begin(), sent_.end(), std::back_inserter(result), match);
    return result;
}

std::vector<SentMessage> ScriptedPeer::SentOnSession(int32_t sessionId) const
{
    return SentMatching(ControlMessageOn(sessionId));
}

std::vector<SentMessage> ScriptedPeer::SentOnChannel(int32_t channelId) const
{
    return SentMatching(DataMessageOnChannel(channelId));
}

std::vector<SentMessage> ScriptedPeer::SentOnDataChannelsFor(int32_t ctrlSessionId) const
{
    return SentMatching(DataMessageFor(ctrlSessionId));
}

std::vector<CloseRecord> ScriptedPeer::SessionsClosedByDevice() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return closedSessions_;
}

std::vector<int32_t> ScriptedPeer::ChannelsClosedByDevice() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return closedChannels_;
}

bool ScriptedPeer::IsSessionOpen(int32_t sessionId) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sessions_.find(sessionId);
    return it != sessions_.end() && it->second.open;
}

int32_t ScriptedPeer::SessionIdByName(const std::string& sessionName) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = sessionOrder_.rbegin(); it != sessionOrder_.rend(); ++it) {
        const Session& session = sessions_.at(*it);
        if (session.open && session.record.sessionName == sessionName) {
            return *it;
        }
    }
    return -1;
}

// ---- Waiting ----

bool ScriptedPeer::AwaitSessionOpenAttempts(size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout, [this, count] {
        size_t attempts = 0;
        for (int32_t id : sessionOrder_) {
            attempts += sessions_.at(id).record.openedByPeer ? 0 : 1;
        }
        return attempts >= count;
    });
}

bool ScriptedPeer::AwaitSessionsOpened(size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout, [this, count] {
        size_t opened = 0;
        for (int32_t id : sessionOrder_) {
            const SessionRecord& record = sessions_.at(id).record;
            opened += (!record.openedByPeer && record.openDone && record.openResult == HOST_OK) ? 1 : 0;
        }
        return opened >= count;
    });
}

bool ScriptedPeer::AwaitChannelsOpened(size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout, [this, count] {
        return static_cast<size_t>(std::count_if(channels_.begin(), channels_.end(), [](const auto& entry) {
                   return entry.second.record.openResult == HOST_OK;
               })) >= count;
    });
}

bool ScriptedPeer::AwaitSentMatching(const SentFilter& match, size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout, [this, &match, count] {
        return static_cast<size_t>(std::count_if(sent_.begin(), sent_.end(), match)) >= count;
    });
}

bool ScriptedPeer::AwaitSentOnSession(int32_t sessionId, size_t count, std::chrono::milliseconds timeout)
{
    return AwaitSentMatching(ControlMessageOn(sessionId), count, timeout);
}

bool ScriptedPeer::AwaitSentOnChannel(int32_t channelId, size_t count, std::chrono::milliseconds timeout)
{
    return AwaitSentMatching(DataMessageOnChannel(channelId), count, timeout);
}

bool ScriptedPeer::AwaitSentOnDataChannelsFor(int32_t ctrlSessionId, size_t count, std::chrono::milliseconds timeout)
{
    return AwaitSentMatching(DataMessageFor(ctrlSessionId), count, timeout);
}

bool ScriptedPeer::AwaitSessionClosedByDevice(int32_t sessionId, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout, [this, sessionId] {
        return std::any_of(closedSessions_.begin(), closedSessions_.end(),
                           [sessionId](const CloseRecord& close) { return close.id == sessionId; });
    });
}

bool ScriptedPeer::AwaitChannelClosedByDevice(int32_t channelId, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout, [this, channelId] {
        return std::find(closedChannels_.begin(), closedChannels_.end(), channelId) != closedChannels_.end();
    });
}

bool ScriptedPeer::AwaitCondition(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    // The condition may call this object's getters, so it is evaluated without the lock.
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        uint64_t seen = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            seen = version_;
        }
        if (condition()) {
            return true;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_until(lock, deadline, [this, seen] { return version_ != seen; })) {
            lock.unlock();
            return condition();
        }
    }
}

// ---- Injection ----

uint64_t ScriptedPeer::Enqueue(Job job)
{
    std::lock_guard<std::mutex> lock(mutex_);
    uint64_t ticket = nextTicket_++;
    jobs_.emplace_back(ticket, std::move(job));
    Changed();
    return ticket;
}

void ScriptedPeer::ReceiveLoop()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) {
            // Dropped injections count as handled, so nobody waits for them.
            jobs_.clear();
            delivered_ = nextTicket_ - 1;
            Changed();
            return;
        }
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job.second();
        job.second = nullptr;
        lock.lock();
        delivered_ = job.first;
        Changed();
    }
}

uint64_t ScriptedPeer::SendOnSession(int32_t sessionId, std::string bytes, uint32_t type)
{
    auto message = std::make_shared<std::string>(std::move(bytes));
    return Enqueue([this, sessionId, message, type] {
        SoftBusListener* listener = nullptr;
        CtrlSessionInfo info;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = sessions_.find(sessionId);
            if (it == sessions_.end() || !it->second.open || listener_ == nullptr) {
                return;
            }
            listener = listener_;
            info = InfoOf(it->second);
        }
        listener->OnCtrlMessage(info, message->data(), static_cast<uint32_t>(message->size()), type);
    });
}

uint64_t ScriptedPeer::SendOnSession(const std::string& sessionName, std::string bytes, uint32_t type)
{
    auto message = std::make_shared<std::string>(std::move(bytes));
    return Enqueue([this, sessionName, message, type] {
        int32_t sessionId = SessionIdByName(sessionName);
        SoftBusListener* listener = nullptr;
        CtrlSessionInfo info;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = sessions_.find(sessionId);
            if (it == sessions_.end() || !it->second.open || listener_ == nullptr) {
                return;
            }
            listener = listener_;
            info = InfoOf(it->second);
        }
        listener->OnCtrlMessage(info, message->data(), static_cast<uint32_t>(message->size()), type);
    });
}

uint64_t ScriptedPeer::SendOnDataChannel(int32_t ctrlSessionId, std::string bytes, int32_t channelId, uint32_t type)
{
    auto message = std::make_shared<std::string>(std::move(bytes));
    if (channelId == -1) {
        std::lock_guard<std::mutex> lock(mutex_);
        channelId = lastChannel_;
    }
    return Enqueue([this, ctrlSessionId, message, channelId, type] {
        SoftBusListener* listener = nullptr;
        CtrlSessionInfo info;
        bool known = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (listener_ == nullptr) {
                return;
            }
            listener = listener_;
            auto it = sessions_.find(ctrlSessionId);
            if (it != sessions_.end() && it->second.open) {
                info = InfoOf(it->second);
                known = true;
            }
        }
        listener->OnDataMessage(channelId, known ? &info : nullptr, message->data(),
                                static_cast<uint32_t>(message->size()), type);
    });
}

int32_t ScriptedPeer::OpenSessionToDevice(const std::string& peerNetworkId, const std::string& sessionName,
                                          const std::string& commandText)
{
    std::lock_guard<std::mutex> lock(mutex_);
    int32_t id = nextSessionId_++;
    Session& session = sessions_[id];
    session.record.sessionId = id;
    session.record.peerNetworkId = peerNetworkId;
    session.record.sessionName = sessionName;
    session.record.commandText = commandText;
    session.record.openedByPeer = true;
    // Open from the start: the device's host knows the session while its commands execute.
    session.open = true;
    sessionOrder_.push_back(id);
    ++openersRunning_;
    CtrlSessionInfo info = InfoOf(session);
    SoftBusListener* listener = stopping_ ? nullptr : listener_;
    openers_.emplace_back([this, info, commandText, listener] {
        int32_t result = listener != nullptr ? listener->OnCtrlSessionOpened(info, commandText) : HOST_ERR_NO_SESSION;
        std::lock_guard<std::mutex> lock(mutex_);
        Session& opened = sessions_.at(info.sessionId);
        opened.record.openResult = result;
        opened.record.openDone = true;
        if (result != HOST_OK) {
            opened.open = false;
        }
        --openersRunning_;
        Changed();
    });
    Changed();
    return id;
}

bool ScriptedPeer::AwaitOpenResult(int32_t sessionId, int32_t& result, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    auto it = sessions_.find(sessionId);
    if (it == sessions_.end()) {
        return false;
    }
    const SessionRecord& record = it->second.record;
    if (!AwaitLocked(lock, timeout, [&record] { return record.openDone; })) {
        return false;
    }
    result = record.openResult;
    return true;
}

uint64_t ScriptedPeer::CloseSession(int32_t sessionId)
{
    return Enqueue([this, sessionId] {
        SoftBusListener* listener = nullptr;
        CtrlSessionInfo info;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = sessions_.find(sessionId);
            if (it == sessions_.end() || !it->second.open) {
                return;
            }
            it->second.open = false;
            Changed();
            listener = listener_;
            info = InfoOf(it->second);
        }
        if (listener != nullptr) {
            listener->OnCtrlSessionClosed(info);
        }
    });
}

uint64_t ScriptedPeer::DropLink(const std::string& peerNetworkId)
{
    return Enqueue([this, peerNetworkId] {
        SoftBusListener* listener = nullptr;
        std::vector<CtrlSessionInfo> ended;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto& entry : sessions_) {
                Session& session = entry.second;
                if (session.open && (peerNetworkId.empty() || session.record.peerNetworkId == peerNetworkId)) {
                    session.open = false;
                    ended.push_back(InfoOf(session));
                }
            }
            for (auto& entry : channels_) {
                if (entry.second.open && (peerNetworkId.empty() || entry.second.record.peerDeviceId == peerNetworkId)) {
                    entry.second.open = false;
                }
            }
            Changed();
            listener = listener_;
        }
        if (listener == nullptr) {
            return;
        }
        for (const CtrlSessionInfo& info : ended) {
            listener->OnCtrlSessionClosed(info);
        }
    });
}

bool ScriptedPeer::AwaitDelivered(uint64_t ticket, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout, [this, ticket] { return delivered_ >= ticket; });
}

bool ScriptedPeer::AwaitIdle(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return AwaitLocked(lock, timeout,
                       [this] { return jobs_.empty() && delivered_ + 1 == nextTicket_ && openersRunning_ == 0; });
}

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
