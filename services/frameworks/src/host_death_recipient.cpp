// What a watched client's death sets off: kind 101 cancels the client's collaboration, kind
// 102 tells the peers that the camera application died and forgets its subscriptions.
#include "host_death_recipient.h"

#include "camera_ability_process.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

HostDeathRecipient::HostDeathRecipient(uint32_t deathCode, const sptr<IRemoteObject>& remoteObject)
    : remoteObject_(remoteObject), deathCode_(deathCode)
{
}

void HostDeathRecipient::OnRemoteDied(const wptr<IRemoteObject>&)
{
    TNDR_SERVICE_LOGI("Remote died, do clean works. deathCode=%{public}d", deathCode_);
    if (deathCode_ == DEATH_KIND_SUBSCRIBER) {
        ProcessCameraDeath();
    } else if (deathCode_ == DEATH_KIND_REQUESTER) {
        HostDied(collaborationId_);
    } else {
        TNDR_SERVICE_LOGI("unkown service type, which is %{public}d", deathCode_);
        return;
    }
    // Keep this object alive until the end of the call even though the self reference goes.
    sptr<IRemoteObject::DeathRecipient> self = deathRecipient_;
    if (remoteObject_ != nullptr && self != nullptr) {
        remoteObject_->RemoveDeathRecipient(self);
    }
    deathRecipient_ = nullptr;
}

void HostDeathRecipient::HostDied(uint32_t collaborationId)
{
    TNDR_SERVICE_LOGI("enter");
    RemoveHost(collaborationId);
}

void HostDeathRecipient::RemoveHost(uint32_t collaborationId)
{
    TNDR_SERVICE_LOGI("RemoveHost enter");
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        return;
    }
    if (process->ProcessCancelTakePhotoRequest(collaborationId) != 0) {
        TNDR_SERVICE_LOGE("canel takephoto request failed");
    }
}

void HostDeathRecipient::ProcessCameraDeath()
{
    TNDR_SERVICE_LOGI("ProcessCameraDeath enter");
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process != nullptr) {
        process->SendCameraDeathCode(eventId_, pid_);
        process->EraseDeathRecipientPid(pid_);
    }
    TNDR_SERVICE_LOGI("ProcessCameraDeath leave");
}

}  // namespace Tandra
}  // namespace QUEX
