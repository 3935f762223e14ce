// IpcConnection: frames in on the loop thread, requests out to worker threads, writes on the
// sender's thread. Lock order: a pending reply's lock, then the tables' lock; no object
// reference is dropped under either (a last reference runs a destructor that may come back
// here to release its handle).
#include "ipc_connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ipc_io_service.h"
#include "ipc_log.h"
#include "ipc_skeleton.h"
#include "ipc_stats_counter.h"
#include "ipc_system_abilities.h"
#include "ipc_work_queue.h"
#include "iremote_stub.h"
#include "process_registry.h"

namespace Vex {

namespace {

constexpr size_t READ_CHUNK = 64 * 1024;
constexpr int READS_PER_WAKEUP = 16;  // then yield the loop to other connections

void CloseAll(std::vector<int>& fds)
{
    for (int& fd : fds) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
}

}  // namespace

struct IpcConnection::PendingReply {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    bool abandoned = false;
    int32_t status = ERR_DEAD_OBJECT;
    MessageParcel* reply = nullptr;
};

IpcConnection::IpcConnection(Socket socket, const IpcPeer& peer, ClosedHandler onClosed)
    : socket_(std::move(socket)), fd_(socket_.native_handle()), peer_(peer), onClosed_(std::move(onClosed))
{
}

IpcConnection::~IpcConnection()
{
    for (int fd : pendingFds_) {
        close(fd);
    }
}

std::shared_ptr<IpcConnection> IpcConnection::Start(Socket socket, const IpcPeer& peer,
                                                    const sptr<IRemoteObject>& root, ClosedHandler onClosed)
{
    std::shared_ptr<IpcConnection> connection(new IpcConnection(std::move(socket), peer, std::move(onClosed)));
    AddIpcStat(IpcCounter::CONNECTIONS, 1);
    {
        std::lock_guard<std::mutex> lock(connection->mutex_);
        if (root != nullptr) {
            connection->exports_[0] = Export{root, 0, true};
            connection->exportIds_[root.GetRefPtr()] = 0;
        } else {
            connection->rootProxy_ =
                new IPCObjectProxy(SYSTEM_ABILITY_MANAGER_DESCRIPTOR, 0, connection, peer, true);
        }
    }
    asio::post(IpcIoService::Get().Context(), [connection] { connection->ArmRead(); });
    return connection;
}

sptr<IRemoteObject> IpcConnection::RootProxy()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return rootProxy_;
}

void IpcConnection::Close()
{
    PostClose(std::string());
}

void IpcConnection::PostClose(const std::string& badInput)
{
    auto self = shared_from_this();
    asio::post(IpcIoService::Get().Context(), [self, badInput] { self->DoClose(badInput); });
}

bool IpcConnection::WaitClosed(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(closedMutex_);
    return closedCv_.wait_for(lock, timeout, [this] { return closeDone_; });
}

// ---- reading (loop thread) ----

void IpcConnection::ArmRead()
{
    if (closed_) {
        return;
    }
    auto self = shared_from_this();
    socket_.async_wait(Socket::wait_read, [self](const asio::error_code& error) { self->OnReadable(error); });
}

void IpcConnection::OnReadable(const asio::error_code& error)
{
    if (closed_) {
        return;
    }
    if (error) {
        DoClose(std::string());
        return;
    }
    for (int round = 0; round < READS_PER_WAKEUP; ++round) {
        ReadResult result = ReadSome();
        if (result == ReadResult::CLOSED) {
            return;
        }
        if (!DecodeFrames()) {
            return;
        }
        if (result == ReadResult::AGAIN) {
            break;
        }
    }
    ArmRead();
}

IpcConnection::ReadResult IpcConnection::ReadSome()
{
    if (readBuffer_.size() < readLength_ + READ_CHUNK) {
        readBuffer_.resize(readLength_ + READ_CHUNK);
    }
    // Room for one frame's worth of descriptors more than allowed, so that an oversized batch
    // shows as truncated control data rather than silently split.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * IPC_MAX_FDS)];
    iovec iov{readBuffer_.data() + readLength_, readBuffer_.size() - readLength_};
    msghdr message{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t received = recvmsg(fd_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            return ReadResult::AGAIN;
        }
        DoClose(std::string());
        return ReadResult::CLOSED;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            const unsigned char* data = CMSG_DATA(header);
            for (size_t i = 0; i < count; ++i) {
                int fd = -1;
                std::memcpy(&fd, data + i * sizeof(int), sizeof(int));
                pendingFds_.push_back(fd);
            }
        }
    }
    if ((message.msg_flags & MSG_CTRUNC) != 0) {
        DoClose("more than " + std::to_string(IPC_MAX_FDS) + " descriptors in one message");
        return ReadResult::CLOSED;
    }
    if (pendingFds_.size() > IPC_MAX_PENDING_FDS) {
        DoClose("descriptor flood: " + std::to_string(pendingFds_.size()) + " descriptors without frames");
        return ReadResult::CLOSED;
    }
    if (received == 0) {
        DoClose(readLength_ == 0 ? std::string() : "connection ended inside a frame");
        return ReadResult::CLOSED;
    }
    readLength_ += static_cast<size_t>(received);
    return ReadResult::DATA;
}

bool IpcConnection::DecodeFrames()
{
    size_t offset = 0;
    bool ok = true;
    while (ok) {
        Frame frame;
        DecodeResult result = DecodeFrame(readBuffer_.data() + offset, readLength_ - offset, &frame);
        if (result.status == DecodeStatus::BAD) {
            DoClose(result.error);
            return false;
        }
        if (result.status == DecodeStatus::NEED_MORE) {
            // Grow to the announced frame (bounded by the decoder's limits) so it reads in full.
            if (offset + result.consumed > readBuffer_.size()) {
                readBuffer_.resize(offset + result.consumed);
            }
            break;
        }
        if (frame.fdCount > pendingFds_.size()) {
            DoClose("frame announces " + std::to_string(frame.fdCount) + " descriptors, " +
                    std::to_string(pendingFds_.size()) + " arrived");
            return false;
        }
        std::vector<int> fds(pendingFds_.begin(), pendingFds_.begin() + frame.fdCount);
        pendingFds_.erase(pendingFds_.begin(), pendingFds_.begin() + frame.fdCount);
        std::string error;
        ok = HandleFrame(frame, readBuffer_.data() + offset, fds, &error);
        CloseAll(fds);  // whatever the frame did not hand on
        if (!ok) {
            DoClose(error);
            return false;
        }
        offset += result.consumed;
    }
    if (offset > 0) {
        std::memmove(readBuffer_.data(), readBuffer_.data() + offset, readLength_ - offset);
        readLength_ -= offset;
    }
    return true;
}

bool IpcConnection::HandleFrame(const Frame& frame, const uint8_t* bytes, std::vector<int>& fds, std::string* error)
{
    switch (frame.type) {
        case FrameType::RELEASE:
            return HandleRelease(frame, error);
        case FrameType::REQUEST: {
            sptr<IRemoteObject> target;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                auto it = exports_.find(frame.handle);
                if (it != exports_.end()) {
                    target = it->second.object;
                }
            }
            if (target == nullptr) {
                *error = "request to unknown or released handle " + std::to_string(frame.handle);
                return false;
            }
            auto data = std::make_shared<MessageParcel>();
            if (!FillParcel(frame, bytes, fds, *data, error)) {
                return false;
            }
            auto self = shared_from_this();
            Frame header = frame;
            IpcWorkQueue::Get().Post([self, target, data, header]() mutable {
                self->RunRequest(target, std::move(data), header);
            });
            return true;
        }
        case FrameType::REPLY: {
            std::shared_ptr<PendingReply> pending;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                auto it = pending_.find(frame.transaction);
                if (it != pending_.end()) {
                    pending = std::move(it->second);
                    pending_.erase(it);
                }
            }
            if (pending == nullptr) {
                return true;  // its caller gave up waiting; the descriptors are closed
            }
            bool filled = true;
            {
                std::lock_guard<std::mutex> lock(pending->mutex);
                if (!pending->abandoned) {
                    filled = FillParcel(frame, bytes, fds, *pending->reply, error);
                    pending->status = filled ? static_cast<int32_t>(frame.code) : ERR_DEAD_OBJECT;
                }
                pending->done = true;
            }
            pending->cv.notify_all();
            return filled;
        }
    }
    return true;
}

bool IpcConnection::HandleRelease(const Frame& frame, std::string* error)
{
    sptr<IRemoteObject> dropped;  // released after unlocking: it may be the last reference
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = exports_.find(frame.handle);
        if (it == exports_.end() || it->second.permanent || frame.code > it->second.sent) {
            *error = "release of unknown handle " + std::to_string(frame.handle) + " or more than was sent";
            return false;
        }
        it->second.sent -= frame.code;
        if (it->second.sent == 0) {
            dropped = std::move(it->second.object);
            exportIds_.erase(dropped.GetRefPtr());
            exports_.erase(it);
        }
    }
    if (dropped != nullptr) {
        AddIpcStat(IpcCounter::EXPORTED, -1);
    }
    return true;
}

bool IpcConnection::FillParcel(const Frame& frame, const uint8_t* bytes, std::vector<int>& fds, MessageParcel& parcel,
                               std::string* error)
{
    std::vector<sptr<IRemoteObject>> objects;
    objects.reserve(frame.objects.size());
    for (const FrameObject& object : frame.objects) {
        sptr<IRemoteObject> resolved = ResolveObject(object, error);
        if (resolved == nullptr) {
            return false;
        }
        objects.push_back(std::move(resolved));
    }
    uint32_t parcelFds = frame.ParcelFdCount();
    std::vector<std::shared_ptr<const RawDataBlock>> blocks;
    for (size_t i = 0; i < frame.rawSizes.size(); ++i) {
        int fd = fds[parcelFds + i];
        fds[parcelFds + i] = -1;
        auto block = RawDataBlock::Map(fd, frame.rawSizes[i], error);
        if (block == nullptr) {
            return false;
        }
        blocks.push_back(std::move(block));
    }
    if (!parcel.WriteBuffer(bytes + frame.dataOffset, frame.dataSize)) {
        *error = "parcel of " + std::to_string(frame.dataSize) + " bytes refused";
        return false;
    }
    parcel.RewindRead(0);
    for (auto& object : objects) {
        parcel.AppendObject(object);
    }
    for (uint32_t i = 0; i < parcelFds; ++i) {
        parcel.AdoptFileDescriptor(fds[i]);
        fds[i] = -1;
    }
    for (auto& block : blocks) {
        parcel.AppendOutOfLineData(std::move(block));
    }
    return true;
}

sptr<IRemoteObject> IpcConnection::ResolveObject(const FrameObject& object, std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (object.kind == ObjectKind::RECEIVER) {
        auto it = exports_.find(object.handle);
        if (it == exports_.end()) {
            *error = "object handle " + std::to_string(object.handle) + " was never exported to this peer";
            return nullptr;
        }
        return it->second.object;
    }
    if (object.handle == 0 && rootProxy_ != nullptr) {
        return rootProxy_;
    }
    auto it = proxies_.find(object.handle);
    if (it != proxies_.end()) {
        sptr<IPCObjectProxy> proxy = it->second.promote();
        if (proxy != nullptr) {
            if (proxy->GetObjectDescriptor() != object.descriptor) {
                *error = "object handle " + std::to_string(object.handle) + " reused with another descriptor";
                return nullptr;
            }
            proxy->CountArrival();
            return proxy;
        }
        // Its last reference is going right now: a new proxy takes the handle over, and the
        // old one's release only returns the arrivals it counted.
    }
    sptr<IPCObjectProxy> proxy = new IPCObjectProxy(object.descriptor, object.handle, shared_from_this(), peer_, false);
    proxy->CountArrival();
    proxies_[object.handle] = proxy;
    return proxy;
}

void IpcConnection::DoClose(const std::string& badInput)
{
    if (closed_) {
        return;
    }
    closed_ = true;
    connected_.store(false, std::memory_order_release);
    if (!badInput.empty()) {
        VEX_IPC_LOGE("closing the connection of pid %{public}d (uid %{public}d): %{public}s; the peer sent bad "
                     "input and must reconnect",
                     peer_.pid, peer_.uid, badInput.c_str());
    }
    // Wakes a writer waiting for room, so that the write lock comes free at once.
    shutdown(fd_, SHUT_RDWR);
    {
        std::lock_guard<std::mutex> lock(writeMutex_);
        writeClosed_ = true;
    }
    asio::error_code ignored;
    socket_.close(ignored);
    for (int fd : pendingFds_) {
        close(fd);
    }
    pendingFds_.clear();
    readBuffer_.clear();
    readBuffer_.shrink_to_fit();

    std::unordered_map<uint64_t, std::shared_ptr<PendingReply>> pending;
    std::unordered_map<uint64_t, Export> exports;
    std::vector<sptr<IPCObjectBase>> proxies;
    sptr<IPCObjectProxy> root;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tablesClosed_ = true;
        pending.swap(pending_);
        exports.swap(exports_);
        exportIds_.clear();
        for (auto& entry : proxies_) {
            sptr<IPCObjectProxy> proxy = entry.second.promote();
            if (proxy != nullptr) {
                proxies.push_back(proxy);
            }
        }
        proxies_.clear();
        root = std::move(rootProxy_);
    }
    for (auto& entry : pending) {
        std::lock_guard<std::mutex> lock(entry.second->mutex);
        entry.second->done = true;
        entry.second->status = ERR_DEAD_OBJECT;
        entry.second->cv.notify_all();
    }
    if (root != nullptr) {
        proxies.push_back(root);
    }
    if (peer_.pid != getpid()) {
        ProcessRegistry::Get().DeclareDead(peer_.pid);
    }
    ProcessRegistry::Get().DeclareObjectsDead(proxies);
    size_t counted = 0;
    for (const auto& entry : exports) {
        counted += entry.second.permanent ? 0 : 1;
    }
    if (counted > 0) {
        AddIpcStat(IpcCounter::EXPORTED, -static_cast<long>(counted));
    }
    exports.clear();
    proxies.clear();
    root = nullptr;
    AddIpcStat(IpcCounter::CONNECTIONS, -1);
    ClosedHandler onClosed = std::move(onClosed_);
    if (onClosed) {
        onClosed(*this);
    }
    {
        std::lock_guard<std::mutex> lock(closedMutex_);
        closeDone_ = true;
    }
    closedCv_.notify_all();
}

// ---- requests and writing (any thread) ----

void IpcConnection::RunRequest(const sptr<IRemoteObject>& target, std::shared_ptr<MessageParcel> data,
                               const Frame& frame)
{
    MessageParcel reply;
    MessageOption option(static_cast<int>(frame.flags));
    int32_t status = ERR_NONE;
    auto* stub = dynamic_cast<IPCObjectStub*>(target.GetRefPtr());
    if (stub != nullptr) {
        if (stub->IsObjectDead()) {
            status = ERR_DEAD_OBJECT;
        } else {
            ScopedCallingIdentity identity(Identity{peer_.pid, peer_.uid},
                                           Identity{stub->GetOwnerPid(), stub->GetOwnerUid()});
            status = stub->OnRemoteRequest(frame.code, *data, reply, option);
        }
    } else {
        // An object this process holds from elsewhere (a proxy of a third process): forwarded.
        status = target->SendRequest(frame.code, *data, reply, option);
    }
    data.reset();
    if ((frame.flags & MessageOption::TF_ASYNC) != 0) {
        return;
    }
    Frame answer;
    answer.type = FrameType::REPLY;
    answer.code = static_cast<uint32_t>(status);
    answer.transaction = frame.transaction;
    auto deadline = std::chrono::steady_clock::now() + IPC_WRITE_TIMEOUT;
    int32_t result = SendParcel(answer, reply, deadline);
    if (result == ERR_TRANSACTION_FAILED) {
        MessageParcel empty;
        Frame failure;
        failure.type = FrameType::REPLY;
        failure.code = static_cast<uint32_t>(ERR_TRANSACTION_FAILED);
        failure.transaction = frame.transaction;
        SendParcel(failure, empty, deadline);
    }
}

int32_t IpcConnection::SendRequest(uint64_t handle, uint32_t code, MessageParcel& data, MessageParcel& reply,
                                   MessageOption& option)
{
    if (!IsConnected()) {
        return ERR_DEAD_OBJECT;
    }
    bool sync = (option.GetFlags() & MessageOption::TF_ASYNC) == 0;
    if (sync && IpcIoService::Get().InLoopThread()) {
        VEX_IPC_LOGE("synchronous request from the IPC loop thread refused: it would wait for itself");
        return ERR_TRANSACTION_FAILED;
    }
    Frame frame;
    frame.type = FrameType::REQUEST;
    frame.flags = static_cast<uint32_t>(option.GetFlags());
    frame.code = code;
    frame.handle = handle;
    frame.transaction = nextTransaction_.fetch_add(1, std::memory_order_relaxed);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(option.GetWaitTime());

    std::shared_ptr<PendingReply> pending;
    if (sync) {
        pending = std::make_shared<PendingReply>();
        pending->reply = &reply;
        std::lock_guard<std::mutex> lock(mutex_);
        if (tablesClosed_) {
            return ERR_DEAD_OBJECT;
        }
        pending_[frame.transaction] = pending;
    }
    int32_t result = SendParcel(frame, data, deadline);
    if (result != ERR_NONE || !sync) {
        if (sync) {
            std::lock_guard<std::mutex> lock(mutex_);
            pending_.erase(frame.transaction);
        }
        return result;
    }
    std::unique_lock<std::mutex> lock(pending->mutex);
    if (pending->cv.wait_until(lock, deadline, [&] { return pending->done; })) {
        return pending->status;
    }
    pending->abandoned = true;
    lock.unlock();
    {
        std::lock_guard<std::mutex> tables(mutex_);
        pending_.erase(frame.transaction);
    }
    return ERR_TIMED_OUT;
}

int32_t IpcConnection::SendParcel(Frame& frame, const MessageParcel& parcel,
                                  std::chrono::steady_clock::time_point deadline)
{
    const auto& objects = parcel.GetObjects();
    const auto& parcelFds = parcel.GetFileDescriptors();
    const auto& blocks = parcel.GetOutOfLineData();
    if (objects.size() > IPC_MAX_OBJECTS || parcelFds.size() + blocks.size() > IPC_MAX_FDS ||
        blocks.size() > IPC_MAX_RAW_ITEMS || parcel.GetDataSize() > IPC_MAX_DATA_SIZE) {
        VEX_IPC_LOGE("parcel too large for IPC (%{public}zu objects, %{public}zu descriptors, %{public}zu raw items, "
                     "%{public}zu bytes): send large data as raw data",
                     objects.size(), parcelFds.size(), blocks.size(), parcel.GetDataSize());
        return ERR_TRANSACTION_FAILED;
    }
    // Heap blocks move into memfds here; memfd blocks travel as they are.
    std::vector<std::shared_ptr<const RawDataBlock>> shared;
    std::vector<int> fds(parcelFds.begin(), parcelFds.end());
    for (const auto& block : blocks) {
        std::shared_ptr<const RawDataBlock> sendable = block;
        if (block->SharedFd() < 0) {
            std::string error;
            sendable = RawDataBlock::FromBytes(block->Data(), block->Size(), &error);
            if (sendable == nullptr) {
                VEX_IPC_LOGE("raw data not sent: %{public}s", error.c_str());
                return ERR_TRANSACTION_FAILED;
            }
        }
        frame.rawSizes.push_back(sendable->Size());
        fds.push_back(sendable->SharedFd());
        shared.push_back(std::move(sendable));
    }
    frame.fdCount = static_cast<uint32_t>(fds.size());
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (tablesClosed_) {
            return ERR_DEAD_OBJECT;
        }
        for (const auto& object : objects) {
            FrameObject entry;
            auto* proxy = object->IsProxyObject() ? dynamic_cast<IPCObjectProxy*>(object.GetRefPtr()) : nullptr;
            if (proxy != nullptr && proxy->GetConnection() == this) {
                entry.kind = ObjectKind::RECEIVER;
                entry.handle = proxy->GetHandle();
            } else {
                auto found = exportIds_.find(object.GetRefPtr());
                if (found == exportIds_.end()) {
                    found = exportIds_.emplace(object.GetRefPtr(), nextHandle_++).first;
                    exports_[found->second] = Export{object, 0, false};
                    AddIpcStat(IpcCounter::EXPORTED, 1);
                }
                Export& exported = exports_[found->second];
                if (!exported.permanent) {
                    ++exported.sent;
                }
                entry.kind = ObjectKind::SENDER;
                entry.handle = found->second;
                entry.descriptor = object->GetObjectDescriptor();
            }
            frame.objects.push_back(std::move(entry));
        }
    }
    std::vector<uint8_t> head;
    std::string error;
    if (!EncodeFrame(frame, parcel.GetDataSize(), &head, &error)) {
        // Exports made above stay until the connection closes: a rare sender-side fault.
        VEX_IPC_LOGE("request not sent: %{public}s", error.c_str());
        return ERR_TRANSACTION_FAILED;
    }
    return WriteFrame(head, parcel.GetData(), parcel.GetDataSize(), fds, deadline);
}

int32_t IpcConnection::WriteFrame(const std::vector<uint8_t>& head, const uint8_t* data, size_t dataSize,
                                  const std::vector<int>& fds, std::chrono::steady_clock::time_point deadline)
{
    static const uint8_t zeros[4] = {};
    std::lock_guard<std::mutex> lock(writeMutex_);
    if (writeClosed_) {
        return ERR_DEAD_OBJECT;
    }
    const std::pair<const uint8_t*, size_t> parts[3] = {
        {head.data(), head.size()}, {data, dataSize}, {zeros, IpcDataPadding(dataSize)}};
    size_t total = head.size() + dataSize + IpcDataPadding(dataSize);
    size_t sent = 0;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * IPC_MAX_FDS)];
    while (sent < total) {
        iovec iov[3];
        size_t count = 0;
        size_t skip = sent;
        for (const auto& part : parts) {
            if (skip >= part.second) {
                skip -= part.second;
                continue;
            }
            iov[count].iov_base = const_cast<uint8_t*>(part.first + skip);
            iov[count].iov_len = part.second - skip;
            skip = 0;
            ++count;
        }
        msghdr message{};
        message.msg_iov = iov;
        message.msg_iovlen = count;
        if (sent == 0 && !fds.empty()) {
            // The descriptors ride with the frame's first byte, where the reader expects them.
            message.msg_control = control;
            message.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
            std::memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
        }
        ssize_t written = sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written > 0) {
            sent += static_cast<size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                if (sent > 0) {
                    // Half a frame is on the wire: the stream cannot be resumed.
                    PostClose("the peer stopped reading in the middle of a frame");
                }
                return ERR_TIMED_OUT;
            }
            pollfd waiter{fd_, POLLOUT, 0};
            int ready = poll(&waiter, 1, static_cast<int>(left.count()) + 1);
            if ((ready < 0 && errno != EINTR) || (ready > 0 && (waiter.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)) {
                PostClose(std::string());
                return ERR_DEAD_OBJECT;
            }
            continue;
        }
        PostClose(std::string());
        return ERR_DEAD_OBJECT;
    }
    return ERR_NONE;
}

void IpcConnection::ReleaseProxy(IPCObjectProxy* proxy, uint64_t handle, uint32_t arrivals)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = proxies_.find(handle);
        if (it != proxies_.end() && it->second.GetRefPtr() == proxy) {
            proxies_.erase(it);
        }
        if (tablesClosed_) {
            return;
        }
    }
    // Written from a worker: the proxy's last reference may go on any thread, the loop
    // thread included, which must never wait for room on the socket.
    auto self = shared_from_this();
    IpcWorkQueue::Get().Post([self, handle, arrivals] {
        Frame release;
        release.type = FrameType::RELEASE;
        release.handle = handle;
        release.code = arrivals;
        std::vector<uint8_t> head;
        std::string error;
        if (EncodeFrame(release, 0, &head, &error)) {
            self->WriteFrame(head, nullptr, 0, {}, std::chrono::steady_clock::now() + IPC_WRITE_TIMEOUT);
        }
    });
}

}  // namespace Vex
