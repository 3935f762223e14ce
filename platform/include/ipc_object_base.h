// IPCObjectBase: what every remote object of this platform shares, local stub or proxy of
// another process's stub: its owner process and the death-recipient bookkeeping the process
// registry drives, so that recipients fire once on the death-notice thread either way.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <mutex>
#include <vector>

#include "iremote_object.h"

namespace Vex {

class IPCObjectBase : public IRemoteObject {
public:
    IPCObjectBase(std::u16string descriptor, int32_t ownerPid, int32_t ownerUid);
    ~IPCObjectBase() override;

    bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) override;
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

}  // namespace Vex
