// IPCObjectStub: a local remote object; requests sent to it run OnRemoteRequest. With the
// in-process transport a synchronous SendRequest runs OnRemoteRequest on the calling thread,
// with the caller's identity visible through IPCSkeleton and the thread's own identity
// switched to the owner process for the duration; a one-way request runs on a platform IPC
// thread. Requests to an object whose owner died fail with ERR_DEAD_OBJECT.
// IRemoteStub<I> joins a stub with the interface it serves.
// Thread-safety: OnRemoteRequest may run on several threads at once; subclasses guard state.
#pragma once

#include <mutex>
#include <vector>

#include "iremote_broker.h"
#include "iremote_object.h"

namespace Vex {

class IPCObjectStub : public IRemoteObject {
public:
    // The owner is the calling thread's own process (IPCSkeleton::GetSelfPid()).
    explicit IPCObjectStub(std::u16string descriptor = std::u16string());
    ~IPCObjectStub() override;

    // Default: ERR_UNKNOWN_TRANSACTION.
    virtual int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option);

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool IsProxyObject() const override { return false; }
    bool IsObjectDead() const override;
    int32_t GetOwnerPid() const override { return ownerPid_; }
    int32_t GetOwnerUid() const { return ownerUid_; }

    // Called by the process registry when the owner dies: marks the object dead and hands out
    // the attached recipients once (later calls return nothing). They stay pending until the
    // death-notice thread claims each one, so that a removal before delivery still wins.
    std::vector<sptr<DeathRecipient>> TakeDeathRecipients();
    // Called by the death-notice thread just before a recipient is told; false when the
    // recipient was removed meanwhile (it must then not be called).
    bool ClaimDeathNotice(const sptr<DeathRecipient>& recipient);

private:
    const int32_t ownerPid_;
    const int32_t ownerUid_;
    mutable std::mutex mutex_;
    bool dead_ = false;
    std::vector<sptr<DeathRecipient>> recipients_;
    std::vector<sptr<DeathRecipient>> pendingNotices_;
};

template <typename INTERFACE>
class IRemoteStub : public IPCObjectStub, public INTERFACE {
public:
    IRemoteStub() : IPCObjectStub(INTERFACE::GetDescriptor()) {}
    sptr<IRemoteObject> AsObject() override { return this; }
    sptr<IRemoteBroker> AsInterface() override { return this; }
};

}  // namespace Vex
