// Watching client processes: a requesting application per collaboration (its death cancels
// the collaboration) and the camera application that subscribed to events on the serving side
// (its death is told to the peer of every put-photo session).
#include <new>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "camera_result_codes.h"
#include "host_death_recipient.h"
#include "tandra_dfx.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

int32_t CameraAbilityProcess::RegistDeathRecipientByCollaborationId(uint32_t collaborationId, uint32_t deathCode,
                                                                    const sptr<IRemoteObject>& remoteObject,
                                                                    std::shared_ptr<CameraProcessState> state)
{
    TNDR_SERVICE_LOGI("enter");
    sptr<HostDeathRecipient> recipient = new (std::nothrow) HostDeathRecipient(deathCode, remoteObject);
    if (recipient == nullptr) {
        TNDR_SERVICE_LOGE("new HostDeathRecipient failed.");
        return ERR_INVALID_PARAM;
    }
    recipient->SetCollaborationId(collaborationId);
    recipient->SetDeathRecipient(recipient);
    if (remoteObject == nullptr || !remoteObject->AddDeathRecipient(recipient)) {
        TNDR_SERVICE_LOGE("AddDeathRecipient for Host failed.");
        recipient->SetDeathRecipient(nullptr);
        return ERR_INVALID_PARAM;
    }
    if (state != nullptr) {
        state->SetRemoteObject(remoteObject);
        state->SetDeathRecipientObject(recipient);
    }
    return 0;
}

int32_t CameraAbilityProcess::RegistDeathRecipientByPid(int32_t pid, uint32_t eventId, uint32_t deathCode,
                                                        const sptr<IRemoteObject>& remoteObject)
{
    TNDR_SERVICE_LOGI("enter");
    // One recipient per process, whatever event it subscribes.
    if (QueryIsDeathRecipient(pid)) {
        TNDR_SERVICE_LOGI("the pid hava regist");
        return 0;
    }
    DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::START_ABILITY,
                     DFX::StageRes::SUCCESS);
    DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::CAMERA_RUNNING,
                     DFX::StageRes::BEGIN);

    // The subscriber is the camera application of the running collaboration: tell the peer at
    // once that the camera is up.
    const int32_t runningSessionId = GetCollaborationDataInfo().first;
    std::shared_ptr<PutPhotoContext> context = QueryPutPhotoContext(runningSessionId);
    if (context != nullptr) {
        TNDR_SERVICE_LOGI("camera started");
        context->SetCameraAlive(true);
        SendCodeBack(CODE_CAMERA_STARTED, context->GetCollaborationSessionId());
    }

    sptr<HostDeathRecipient> recipient = new (std::nothrow) HostDeathRecipient(deathCode, remoteObject);
    if (recipient == nullptr) {
        TNDR_SERVICE_LOGE("new HostDeathRecipient failed.");
        EraseDeathRecipientPid(pid);
        return ERR_INVALID_PARAM;
    }
    recipient->SetPid(pid);
    recipient->SetEventId(eventId);
    recipient->SetDeathRecipient(recipient);
    if (remoteObject == nullptr || !remoteObject->AddDeathRecipient(recipient)) {
        TNDR_SERVICE_LOGE("AddDeathRecipient for Host failed.");
        recipient->SetDeathRecipient(nullptr);
        EraseDeathRecipientPid(pid);
        return ERR_INVALID_PARAM;
    }
    return 0;
}

void CameraAbilityProcess::SendCameraDeathCode(uint32_t, int32_t pid)
{
    if (QueryOnEventProcess(pid) == nullptr) {
        TNDR_SERVICE_LOGE("The channel is disconnected.");
        return;
    }
    for (const std::shared_ptr<PutPhotoContext>& context : GetAllPutPhotoContexts()) {
        if (context == nullptr) {
            continue;
        }
        const int32_t sessionId = context->GetCollaborationSessionId();
        const int32_t addResult =
            AsynThreadPool::AddAsynTask([this, sessionId]() { SendCodeBack(CODE_CAMERA_DIED, sessionId); });
        TNDR_SERVICE_LOGI("add async result = %{public}d", addResult);
        context->SetCameraAlive(false);
    }
    EraseOnEventByPid(pid);
    TNDR_SERVICE_LOGI("camera died, send camera death Code");
}

}  // namespace Tandra
}  // namespace QUEX
