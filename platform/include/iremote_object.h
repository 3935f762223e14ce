// IRemoteObject: an endpoint of IPC. A local object (a stub) runs requests itself; a proxy
// object forwards them to another process. Every object belongs to a process (its owner pid);
// when that process dies, the object's death recipients are told once, on the platform's
// death-notice thread, and requests to it fail with ERR_DEAD_OBJECT.
// Thread-safety: all operations may be called from any thread.
//
// Transports. In process, IPCObjectStub::SendRequest runs the request itself. Across
// processes (ipc_server.h, ipc_client.h), an IPCObjectProxy (IsProxyObject() true) stands for
// a stub of the process at the other end of a Unix-socket connection and carries the stub's
// descriptor, so iface_cast and the registered proxies work on it unchanged; the receiving
// side runs the stub's OnRemoteRequest under the socket's peer credentials. Both kinds share
// IPCObjectBase's death bookkeeping, so recipients fire once on the death-notice thread
// either way. Plugin and host see only IRemoteObject, IRemoteProxy<I>, iface_cast and
// MessageParcel.
#pragma once

#include <cstdint>
#include <string>

#include "message_option.h"
#include "message_parcel.h"
#include "refbase.h"

namespace Vex {

class IRemoteBroker;

// Transport result codes (negative, so that they never collide with handler results).
constexpr int32_t ERR_NONE = 0;
constexpr int32_t ERR_DEAD_OBJECT = -32;
constexpr int32_t ERR_INVALID_DATA = -22;
constexpr int32_t ERR_UNKNOWN_TRANSACTION = -74;
constexpr int32_t ERR_TRANSACTION_FAILED = -71;
// A synchronous request across processes got no reply within its wait time.
constexpr int32_t ERR_TIMED_OUT = -110;

class IRemoteObject : public virtual RefBase {
public:
    class DeathRecipient : public virtual RefBase {
    public:
        // The object whose owner died; it can no longer be called.
        virtual void OnRemoteDied(const wptr<IRemoteObject>& object) = 0;
    };

    explicit IRemoteObject(std::u16string descriptor = std::u16string());
    ~IRemoteObject() override;

    virtual int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;
    // False when the object's owner is already dead or the recipient is null.
    virtual bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) = 0;
    // False when the recipient was not attached. A removed recipient is never called.
    virtual bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) = 0;
    virtual bool IsProxyObject() const = 0;
    virtual bool IsObjectDead() const = 0;
    // The process that hosts the object.
    virtual int32_t GetOwnerPid() const = 0;
    // The broker behind a local object, null for proxies.
    virtual sptr<IRemoteBroker> AsInterface();

    const std::u16string& GetObjectDescriptor() const { return descriptor_; }

private:
    const std::u16string descriptor_;
};

}  // namespace Vex
