// IRemoteObject: an endpoint of IPC. A local object (a stub) runs requests itself; a proxy
// object forwards them to another process. Every object belongs to a process (its owner pid);
// when that process dies, the object's death recipients are told once, on the platform's
// death-notice thread, and requests to it fail with ERR_DEAD_OBJECT.
// Thread-safety: all operations may be called from any thread.
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
