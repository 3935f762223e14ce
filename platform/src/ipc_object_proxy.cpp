// IPCObjectProxy: forwards to its connection; its end releases the peer's handle.
#include "ipc_object_proxy.h"

#include "ipc_connection.h"
#include "ipc_stats_counter.h"

namespace Vex {

IPCObjectProxy::IPCObjectProxy(std::u16string descriptor, uint64_t handle, std::shared_ptr<IpcConnection> connection,
                               const IpcPeer& owner, bool permanent)
    : IPCObjectBase(std::move(descriptor), owner.pid, owner.uid),
      handle_(handle),
      connection_(std::move(connection)),
      permanent_(permanent)
{
    if (!permanent_) {
        AddIpcStat(IpcCounter::PROXIES, 1);
    }
}

IPCObjectProxy::~IPCObjectProxy()
{
    if (!permanent_) {
        connection_->ReleaseProxy(this, handle_, arrivals_.load(std::memory_order_relaxed));
        AddIpcStat(IpcCounter::PROXIES, -1);
    }
}

int32_t IPCObjectProxy::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (IsObjectDead()) {
        return ERR_DEAD_OBJECT;
    }
    return connection_->SendRequest(handle_, code, data, reply, option);
}

}  // namespace Vex
