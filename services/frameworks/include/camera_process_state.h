// CameraProcessState: the requesting side's record of one take-photo collaboration: its id,
// the serving device, the application's callback, the watched remote object and its death
// recipient, and the photo-exchange status (0 waiting, 1 receiving, 2 finished) with the state
// machine that decides which peer codes are accepted.
// Thread-safety: every field is guarded by the record's own shared mutex; each getter returns
// a new strong reference, so a callback handed out stays valid after the record goes.
#pragma once

#include <cstdint>
#include <shared_mutex>
#include <string>

#include "callback_skeleton_proxy.h"
#include "iremote_object.h"

namespace QUEX {
namespace Tandra {

class CameraProcessState {
public:
    static constexpr uint32_t STATUS_WAITING = 0;
    static constexpr uint32_t STATUS_RECEIVING = 1;
    static constexpr uint32_t STATUS_FINISHED = 2;

    CameraProcessState(uint32_t collaborationId, const std::string& networkId,
                       const Vex::sptr<CallbackSkeletonProxy>& callBackObject);

    uint32_t GetCollaborationId() const;
    uint32_t GetStatus() const;
    void SetStatus(uint32_t status);
    std::string GetNetworId() const;
    Vex::sptr<CallbackSkeletonProxy> GetCallBackObject() const;
    Vex::sptr<Vex::IRemoteObject> GetRemoteObject() const;
    Vex::sptr<Vex::IRemoteObject::DeathRecipient> GetDeathRecipientObject() const;
    void SetRemoteObject(const Vex::sptr<Vex::IRemoteObject>& remoteObject);
    void SetDeathRecipientObject(const Vex::sptr<Vex::IRemoteObject::DeathRecipient>& recipient);

    // Applies the state machine under the exclusive lock; true when the code is accepted.
    bool UpdateProcessState(uint32_t collaborationId, uint32_t code);
    // The reduced table, without the lock (kept for the record's interface).
    bool UpdateRemoteState(uint32_t code);

private:
    mutable std::shared_mutex mutex_;
    const uint32_t collaborationId_;
    uint32_t status_ = STATUS_WAITING;
    const std::string networkId_;
    Vex::sptr<CallbackSkeletonProxy> callBackObject_;
    Vex::sptr<Vex::IRemoteObject> remoteObject_;
    Vex::sptr<Vex::IRemoteObject::DeathRecipient> deathRecipientObject_;
};

}  // namespace Tandra
}  // namespace QUEX
