// IPCObjectStub with the in-process transport: a synchronous request runs on the caller's
// thread under the owner's identity; a one-way request runs on an IPC worker thread with its
// own copy of the data, since the caller may drop its parcel as soon as SendRequest returns.
#include <memory>

#include "ipc_skeleton.h"
#include "ipc_work_queue.h"
#include "iremote_stub.h"

namespace Vex {

IPCObjectStub::IPCObjectStub(std::u16string descriptor)
    : IPCObjectBase(std::move(descriptor), IPCSkeleton::GetSelfPid(), IPCSkeleton::GetSelfUid())
{
}

IPCObjectStub::~IPCObjectStub() = default;

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
    Identity callee{GetOwnerPid(), GetOwnerUid()};
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

}  // namespace Vex
