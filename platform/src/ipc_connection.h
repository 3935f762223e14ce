// IpcConnection: one Unix-socket connection between two processes, carrying requests both
// ways. It keeps the handle tables of the two directions (objects this side exported, with
// how often each was sent; proxies of the peer's objects), the replies awaited by
// transaction id, and the descriptors that arrived ahead of their frames.
// Reading happens on the IPC event loop thread only; requests run on IPC worker threads (one
// slow handler never holds up the next request); frames are written by the sending thread
// under the write lock. Closing (peer gone, bad input, Close) runs on the loop thread: it
// fails awaited replies with ERR_DEAD_OBJECT, drops exported objects and declares the peer
// dead, so the death recipients on its proxies fire once on the death-notice thread.
// Thread-safety: all public operations may be called from any thread.
#pragma once

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ipc_frame.h"
#include "ipc_object_proxy.h"
#include "ipc_peer.h"
#include "message_option.h"
#include "message_parcel.h"

namespace Vex {

// Replies and releases wait this long for a peer that does not read before the connection
// is given up.
constexpr auto IPC_WRITE_TIMEOUT = std::chrono::seconds(10);
// Descriptors may arrive at most this far ahead of the frames that announce them.
constexpr size_t IPC_MAX_PENDING_FDS = 2 * IPC_MAX_FDS;

class IpcConnection : public std::enable_shared_from_this<IpcConnection> {
public:
    using Socket = asio::local::stream_protocol::socket;
    using ClosedHandler = std::function<void(IpcConnection& connection)>;

    // Server side: root is exported as the permanent handle 0 (the system ability manager).
    // Client side (root null): a permanent proxy of the server's handle 0 is made.
    // onClosed runs once, on the loop thread, after the connection closed.
    static std::shared_ptr<IpcConnection> Start(Socket socket, const IpcPeer& peer, const sptr<IRemoteObject>& root,
                                                ClosedHandler onClosed);
    ~IpcConnection();
    IpcConnection(const IpcConnection&) = delete;
    IpcConnection& operator=(const IpcConnection&) = delete;

    int32_t SendRequest(uint64_t handle, uint32_t code, MessageParcel& data, MessageParcel& reply,
                        MessageOption& option);
    // The server's system ability manager (client side), null once closed.
    sptr<IRemoteObject> RootProxy();
    // Called by a proxy's destructor: forget it and tell the peer.
    void ReleaseProxy(IPCObjectProxy* proxy, uint64_t handle, uint32_t arrivals);

    // Orderly close from any thread; returns at once.
    void Close();
    // REQUIRES: not on the loop thread. False on time-out.
    bool WaitClosed(std::chrono::milliseconds timeout);
    bool IsConnected() const { return connected_.load(std::memory_order_acquire); }
    const IpcPeer& Peer() const { return peer_; }

private:
    struct PendingReply;
    struct Export {
        sptr<IRemoteObject> object;
        uint64_t sent = 0;
        bool permanent = false;
    };
    enum class ReadResult { DATA, AGAIN, CLOSED };

    IpcConnection(Socket socket, const IpcPeer& peer, ClosedHandler onClosed);

    // Loop thread.
    void ArmRead();
    void OnReadable(const asio::error_code& error);
    ReadResult ReadSome();
    bool DecodeFrames();
    bool HandleFrame(const Frame& frame, const uint8_t* bytes, std::vector<int>& fds, std::string* error);
    bool HandleRelease(const Frame& frame, std::string* error);
    bool FillParcel(const Frame& frame, const uint8_t* bytes, std::vector<int>& fds, MessageParcel& parcel,
                    std::string* error);
    sptr<IRemoteObject> ResolveObject(const FrameObject& object, std::string* error);
    void DoClose(const std::string& badInput);

    // Any thread.
    void RunRequest(const sptr<IRemoteObject>& target, std::shared_ptr<MessageParcel> data, const Frame& frame);
    int32_t SendParcel(Frame& frame, const MessageParcel& parcel, std::chrono::steady_clock::time_point deadline);
    int32_t WriteFrame(const std::vector<uint8_t>& head, const uint8_t* data, size_t dataSize,
                       const std::vector<int>& fds, std::chrono::steady_clock::time_point deadline);
    void PostClose(const std::string& badInput);

    Socket socket_;
    const int fd_;
    const IpcPeer peer_;
    ClosedHandler onClosed_;
    std::atomic<bool> connected_{true};
    std::atomic<uint64_t> nextTransaction_{1};

    // Loop thread only.
    bool closed_ = false;
    std::vector<uint8_t> readBuffer_;
    size_t readLength_ = 0;
    std::deque<int> pendingFds_;

    std::mutex mutex_;  // handle tables and awaited replies
    std::unordered_map<uint64_t, Export> exports_;
    std::unordered_map<const IRemoteObject*, uint64_t> exportIds_;
    uint64_t nextHandle_ = 1;
    std::unordered_map<uint64_t, wptr<IPCObjectProxy>> proxies_;
    sptr<IPCObjectProxy> rootProxy_;
    std::unordered_map<uint64_t, std::shared_ptr<PendingReply>> pending_;
    bool tablesClosed_ = false;

    std::mutex writeMutex_;
    bool writeClosed_ = false;

    std::mutex closedMutex_;
    std::condition_variable closedCv_;
    bool closeDone_ = false;
};

}  // namespace Vex
