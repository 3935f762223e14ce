// IPCObjectStub: a local remote object; requests sent to it run OnRemoteRequest. With the
// in-process transport a synchronous SendRequest runs OnRemoteRequest on the calling thread,
// with the caller's identity visible through IPCSkeleton and the thread's own identity
// switched to the owner process for the duration; a one-way request runs on a platform IPC
// thread. Requests to an object whose owner died fail with ERR_DEAD_OBJECT.
// IRemoteStub<I> joins a stub with the interface it serves.
// Thread-safety: OnRemoteRequest may run on several threads at once; subclasses guard state.
#pragma once

#include "iremote_broker.h"
#include "ipc_object_base.h"

namespace Vex {

class IPCObjectStub : public IPCObjectBase {
public:
    // The owner is the calling thread's own process (IPCSkeleton::GetSelfPid()).
    explicit IPCObjectStub(std::u16string descriptor = std::u16string());
    ~IPCObjectStub() override;

    // Default: ERR_UNKNOWN_TRANSACTION.
    virtual int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option);

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    bool IsProxyObject() const override { return false; }
};

template <typename INTERFACE>
class IRemoteStub : public IPCObjectStub, public INTERFACE {
public:
    IRemoteStub() : IPCObjectStub(INTERFACE::GetDescriptor()) {}
    sptr<IRemoteObject> AsObject() override { return this; }
    sptr<IRemoteBroker> AsInterface() override { return this; }
};

}  // namespace Vex
