// RefBase: the strong count lives in the shared RefCounter so that a wptr can still look at it
// (and refuse to promote) after the object itself is gone.
#include "refbase.h"

namespace Vex {

RefBase::RefBase() : refs_(new RefCounter()) {}

RefBase::~RefBase()
{
    // Drops the weak count the object held on its own control block.
    refs_->DecWeak();
}

void RefBase::IncStrongRef(const void* objectId)
{
    // Release: the first strong reference publishes the constructed object to threads that
    // later promote a weak reference (or the process registry's record) with acquire.
    int32_t previous = refs_->strong.fetch_add(1, std::memory_order_acq_rel);
    if (previous == 0 && !refs_->everStrong.exchange(true, std::memory_order_acq_rel)) {
        OnFirstStrongRef(objectId);
    }
}

void RefBase::DecStrongRef(const void* objectId)
{
    if (refs_->strong.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        OnLastStrongRef(objectId);
        delete this;
    }
}

bool RefBase::AttemptIncStrongRef(const void* objectId)
{
    (void)objectId;
    int32_t current = refs_->strong.load(std::memory_order_acquire);
    while (current > 0) {
        if (refs_->strong.compare_exchange_weak(current, current + 1, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

int32_t RefBase::GetSptrRefCount() const
{
    return refs_->strong.load(std::memory_order_relaxed);
}

void RefBase::OnFirstStrongRef(const void*) {}

void RefBase::OnLastStrongRef(const void*) {}

}  // namespace Vex
