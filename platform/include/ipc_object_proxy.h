// IPCObjectProxy: a remote object that stands for a stub of another process, reached through
// one IPC connection under the handle that process exported it as. It carries the stub's
// interface descriptor, so iface_cast builds the registered proxy class around it, and it is
// owned by the peer's pid, so the peer's death (its connection dropping) marks it dead and
// fires its death recipients once on the death-notice thread. When its last reference goes,
// the peer is told to drop the handle.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <atomic>
#include <memory>

#include "ipc_object_base.h"
#include "ipc_peer.h"

namespace Vex {

class IpcConnection;

class IPCObjectProxy : public IPCObjectBase {
public:
    // REQUIRES: called by the transport only. A permanent proxy (the server's system ability
    // manager) never releases its handle.
    IPCObjectProxy(std::u16string descriptor, uint64_t handle, std::shared_ptr<IpcConnection> connection,
                   const IpcPeer& owner, bool permanent);
    ~IPCObjectProxy() override;

    // Synchronous requests wait up to option.GetWaitTime() seconds, then fail with
    // ERR_TIMED_OUT; TF_ASYNC returns once the request is written. ERR_DEAD_OBJECT at once
    // when the connection is gone.
    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    bool IsProxyObject() const override { return true; }

    uint64_t GetHandle() const { return handle_; }
    const IpcConnection* GetConnection() const { return connection_.get(); }
    // The transport counts each time the handle arrived, so that the release it sends at the
    // end cannot drop a reference that is still travelling.
    void CountArrival() { arrivals_.fetch_add(1, std::memory_order_relaxed); }

private:
    const uint64_t handle_;
    const std::shared_ptr<IpcConnection> connection_;
    const bool permanent_;
    std::atomic<uint32_t> arrivals_{0};
};

}  // namespace Vex
