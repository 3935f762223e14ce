// ScriptedPeer: an in-memory soft bus whose far end is the test. It records everything the
// device does on the bus (sessions and channels opened, messages sent, closes) and injects
// what a peer device would do (messages, sessions opened towards the device, closes, a link
// drop), so a component test drives one device against a scripted peer.
//
// Injections are asynchronous: each is queued and delivered to the device's host in order on
// the peer's receive thread (a session opened towards the device runs on an opener thread of
// its own, since the device's commands may block), and returns a ticket; AwaitDelivered /
// AwaitIdle block until the device's host has handled it. Every Await* takes a real-time
// deadline and returns false when it passes; tests never sleep.
// Copies: a message the device sends is copied once, into its SentMessage record; an injected
// message is moved in (or copied once from a pointer) and handed to the device without copy.
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "session_attribute.h"
#include "soft_bus.h"

namespace QUEX {
namespace Tandra {
namespace Testing {

constexpr std::chrono::milliseconds DEFAULT_AWAIT = std::chrono::milliseconds(5000);

// A control session, opened by the device (OpenCtrlSession) or by the peer (OpenSessionToDevice).
struct SessionRecord {
    int32_t sessionId = -1;  // -1 when the open failed
    std::string peerNetworkId;
    std::string sessionName;
    std::string commandText;
    bool openedByPeer = false;
    int32_t openResult = 0;  // the open's result, once known
    bool openDone = false;   // the open has completed
};

struct ChannelRecord {
    int32_t channelId = -1;  // -1 when the open failed
    std::string peerDeviceId;
    SessionAttribute attr{};
    int32_t openResult = 0;
};

// One message the device sent.
struct SentMessage {
    bool onDataChannel = false;
    int32_t channelId = -1;  // data channel, or -1 for a control-session message
    int32_t sessionId = -1;  // the control session (for data messages: the one named)
    uint32_t type = 0;
    bool isFirst = false;
    std::string bytes;
};

struct CloseRecord {
    int32_t id = -1;
    bool notifyPeer = false;  // control sessions only
};

class ScriptedPeer : public SoftBus {
public:
    ScriptedPeer();
    ~ScriptedPeer() override;

    // Stops the peer's threads (waiting for deliveries in progress); later injections are
    // dropped and held opens fail. Call it from a test thread, not from a listener.
    void Shutdown();

    // ---- SoftBus: what the device calls (recorded) ----
    void SetListener(SoftBusListener* listener) override;
    std::pair<int32_t, int32_t> OpenCtrlSession(const std::string& peerNetworkId, const std::string& sessionName,
                                                const std::string& commandText) override;
    int32_t CloseCtrlSession(int32_t sessionId, bool notifyPeer) override;
    bool HasCtrlSession(int32_t sessionId) override;
    int32_t SendCtrlMessage(int32_t sessionId, const char* data, uint32_t len, uint32_t type) override;
    std::pair<int32_t, int32_t> OpenDataChannel(const std::string& peerDeviceId, const SessionAttribute& attr) override;
    int32_t CloseDataChannel(int32_t channelId) override;
    int32_t SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len, uint32_t type,
                            bool isFirst) override;

    // ---- Failures on demand (sticky until set back to 0) ----
    // The device's next control-session opens fail with code (the peer never sees them).
    void FailSessionOpens(int32_t code);
    void FailChannelOpens(int32_t code);
    // The device's sends (control and data) fail with code; nothing is recorded.
    void FailTransmits(int32_t code);
    // While held, the device's OpenCtrlSession calls block (as if the peer were still running
    // the command) until ReleaseSessionOpens; they are recorded (openDone false) meanwhile.
    void HoldSessionOpens();
    void ReleaseSessionOpens();

    // ---- What the device did ----
    std::vector<SessionRecord> Sessions() const;  // every open attempt, in order
    std::vector<SessionRecord> SessionsOpenedByDevice() const;
    std::vector<ChannelRecord> Channels() const;                      // every open attempt, in order
    std::vector<SentMessage> Sent() const;                            // every message, in send order
    std::vector<SentMessage> SentOnSession(int32_t sessionId) const;  // control messages only
    std::vector<SentMessage> SentOnChannel(int32_t channelId) const;
    // Data messages that name the control session, on any channel.
    std::vector<SentMessage> SentOnDataChannelsFor(int32_t ctrlSessionId) const;
    std::vector<CloseRecord> SessionsClosedByDevice() const;
    std::vector<int32_t> ChannelsClosedByDevice() const;
    bool IsSessionOpen(int32_t sessionId) const;
    // The id of the open session of that name, or -1.
    int32_t SessionIdByName(const std::string& sessionName) const;

    // ---- Waiting for the device (real-time deadlines) ----
    // At least count open attempts by the device (held ones included).
    bool AwaitSessionOpenAttempts(size_t count, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    // At least count successful control-session opens by the device.
    bool AwaitSessionsOpened(size_t count, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    bool AwaitChannelsOpened(size_t count, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    bool AwaitSentOnSession(int32_t sessionId, size_t count, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    bool AwaitSentOnChannel(int32_t channelId, size_t count, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    bool AwaitSentOnDataChannelsFor(int32_t ctrlSessionId, size_t count,
                                    std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    bool AwaitSessionClosedByDevice(int32_t sessionId, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    bool AwaitChannelClosedByDevice(int32_t channelId, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    // Any condition over the records, re-checked after every change.
    bool AwaitCondition(const std::function<bool()>& condition, std::chrono::milliseconds timeout = DEFAULT_AWAIT);

    // ---- What the peer does (injected; each returns a ticket) ----
    // A message on a control session (by id or by name; an unknown one is dropped).
    uint64_t SendOnSession(int32_t sessionId, std::string bytes, uint32_t type = 2);
    uint64_t SendOnSession(const std::string& sessionName, std::string bytes, uint32_t type = 2);
    // A message on a data channel belonging to the control session ctrlSessionId (the device's
    // id). channelId -1 uses the channel the device opened last (or 0 when none).
    uint64_t SendOnDataChannel(int32_t ctrlSessionId, std::string bytes, int32_t channelId = -1, uint32_t type = 2);
    // Opens a control session towards the device with a command text: the device's host runs
    // CreateCommand and Execute. Returns the new session id at once; AwaitOpenResult gives the
    // device's answer (0: open; else the open failed and the session is gone).
    int32_t OpenSessionToDevice(const std::string& peerNetworkId, const std::string& sessionName,
                                const std::string& commandText);
    bool AwaitOpenResult(int32_t sessionId, int32_t& result, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    // Closes a control session as the peer would (the device's host releases its commands and
    // tells its listeners OnCtrlChannelShutDown).
    uint64_t CloseSession(int32_t sessionId);
    // The link to a peer drops (empty: every peer): all its sessions end (the device's host is
    // told of each) and the data channels the device opened to that id close.
    uint64_t DropLink(const std::string& peerNetworkId = "");

    bool AwaitDelivered(uint64_t ticket, std::chrono::milliseconds timeout = DEFAULT_AWAIT);
    // Everything injected so far is handled, including opens towards the device.
    bool AwaitIdle(std::chrono::milliseconds timeout = DEFAULT_AWAIT);

private:
    struct Session {
        SessionRecord record;
        bool open = false;
    };
    struct Channel {
        ChannelRecord record;
        bool open = false;
    };
    using Job = std::function<void()>;

    uint64_t Enqueue(Job job);
    void ReceiveLoop();
    void Changed();  // caller holds mutex_
    using SentFilter = std::function<bool(const SentMessage&)>;
    std::vector<SentMessage> SentMatching(const SentFilter& match) const;
    bool AwaitSentMatching(const SentFilter& match, size_t count, std::chrono::milliseconds timeout);
    bool AwaitLocked(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds timeout,
                     const std::function<bool()>& condition);
    CtrlSessionInfo InfoOf(const Session& session) const;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    SoftBusListener* listener_ = nullptr;
    int32_t nextSessionId_ = 1;
    int32_t nextChannelId_ = 1001;
    int32_t failSessionOpens_ = 0;
    int32_t failChannelOpens_ = 0;
    int32_t failTransmits_ = 0;
    bool holdSessionOpens_ = false;
    std::map<int32_t, Session> sessions_;
    std::vector<int32_t> sessionOrder_;
    std::map<int32_t, Channel> channels_;
    std::vector<int32_t> channelOrder_;
    int32_t lastChannel_ = 0;
    std::vector<SentMessage> sent_;
    std::vector<CloseRecord> closedSessions_;
    std::vector<int32_t> closedChannels_;

    std::deque<std::pair<uint64_t, Job>> jobs_;
    uint64_t nextTicket_ = 1;
    uint64_t delivered_ = 0;  // every ticket up to this one is handled
    uint64_t version_ = 0;    // bumped on every change, for AwaitCondition
    size_t openersRunning_ = 0;
    bool stopping_ = false;
    std::thread receiver_;
    std::vector<std::thread> openers_;
};

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
