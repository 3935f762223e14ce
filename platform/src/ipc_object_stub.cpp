// IPCObjectStub with the in-process transport: a synchronous request runs on the caller's
// thread under the owner's identity; a one-way request runs on an IPC worker thread with its
// own copy of the data, since the caller may drop its parcel as soon as SendRequest returns.
#include <algorithm>
#include <memory>

#include "ipc_skeleton.h"
#include "ipc_work_queue.h"
#include "iremote_stub.h"
#include "process_registry.h"

namespace Vex {

IPCObjectStub::IPCObjectStub(std::u16string descriptor)
    : IRemoteObject(std::move(descriptor)), ownerPid_(IPCSkeleton::GetSelfPid()), ownerUid_(IPCSkeleton::GetSelfUid())
{
    ProcessRegistry::Get().Attach(this, ownerPid_);
    // Checked after joining: a process declared dead before (or while) we joined owns only
    // dead objects.
    if (ProcessRegistry::Get().IsDead(ownerPid_)) {
        std::lock_guard<std::mutex> lock(mutex_);
        dead_ = true;
    }
}

IPCObjectStub::~IPCObjectStub()
{
    ProcessRegistry::Get().Detach(this, ownerPid_);
}

int IPCObjectStub::OnRemoteRequest(uint32_t, MessageParcel&, MessageParcel&, MessageOption&)
{
    return ERR_UNKNOWN_TRANSACTION;
}

int32_t IPCObjectStub::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (IsObjectDead()) {
        return ERR_DEAD_OBJECT;
    }
    Identity caller = IPCSkeleton::GetSelfIdentity();
    Identity callee{ownerPid_, ownerUid_};
    if ((option.GetFlags() & MessageOption::TF_ASYNC) == 0) {
        ScopedCallingIdentity identity(caller, callee);
        return OnRemoteRequest(code, data, reply, option);
    }

    // The worker keeps the object alive until the request ran; an object that is not held by
    // any strong reference (being destroyed) cannot take one-way requests.
    sptr<IPCObjectStub> self = wptr<IPCObjectStub>(this).promote();
    if (self == nullptr) {
        return ERR_DEAD_OBJECT;
    }
    auto copy = std::make_shared<MessageParcel>();
    if (!copy->CopyFrom(data)) {
        return ERR_TRANSACTION_FAILED;
    }
    int flags = option.GetFlags();
    int waitTime = option.GetWaitTime();
    IpcWorkQueue::Get().Post([self, copy, code, caller, callee, flags, waitTime]() {
        if (self->IsObjectDead()) {
            return;
        }
        MessageParcel scratchReply;
        MessageOption asyncOption(flags, waitTime);
        ScopedCallingIdentity identity(caller, callee);
        self->OnRemoteRequest(code, *copy, scratchReply, asyncOption);
    });
    return ERR_NONE;
}

bool IPCObjectStub::AddDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    if (recipient == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (dead_) {
        return false;
    }
    recipients_.push_back(recipient);
    return true;
}

bool IPCObjectStub::RemoveDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    if (recipient == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto* list : {&recipients_, &pendingNotices_}) {
        auto it = std::find(list->begin(), list->end(), recipient);
        if (it != list->end()) {
            list->erase(it);
            return true;
        }
    }
    return false;
}

bool IPCObjectStub::IsObjectDead() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return dead_;
}

std::vector<sptr<IRemoteObject::DeathRecipient>> IPCObjectStub::TakeDeathRecipients()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (dead_) {
        return {};
    }
    dead_ = true;
    pendingNotices_ = recipients_;
    recipients_.clear();
    return pendingNotices_;
}

bool IPCObjectStub::ClaimDeathNotice(const sptr<DeathRecipient>& recipient)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find(pendingNotices_.begin(), pendingNotices_.end(), recipient);
    if (it == pendingNotices_.end()) {
        return false;
    }
    pendingNotices_.erase(it);
    return true;
}

}  // namespace Vex
