// Death bookkeeping shared by stubs and proxies: the registry marks an object dead and takes
// its recipients; the death-notice thread claims each one just before calling it.
#include "ipc_object_base.h"

#include <algorithm>

#include "process_registry.h"

namespace Vex {

IPCObjectBase::IPCObjectBase(std::u16string descriptor, int32_t ownerPid, int32_t ownerUid)
    : IRemoteObject(std::move(descriptor)), ownerPid_(ownerPid), ownerUid_(ownerUid)
{
    ProcessRegistry::Get().Attach(this, ownerPid_);
    // Checked after joining: a process declared dead before (or while) we joined owns only
    // dead objects.
    if (ProcessRegistry::Get().IsDead(ownerPid_)) {
        std::lock_guard<std::mutex> lock(mutex_);
        dead_ = true;
    }
}

IPCObjectBase::~IPCObjectBase()
{
    ProcessRegistry::Get().Detach(this, ownerPid_);
}

bool IPCObjectBase::AddDeathRecipient(const sptr<DeathRecipient>& recipient)
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

bool IPCObjectBase::RemoveDeathRecipient(const sptr<DeathRecipient>& recipient)
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

bool IPCObjectBase::IsObjectDead() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return dead_;
}

std::vector<sptr<IRemoteObject::DeathRecipient>> IPCObjectBase::TakeDeathRecipients()
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

bool IPCObjectBase::ClaimDeathNotice(const sptr<DeathRecipient>& recipient)
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
