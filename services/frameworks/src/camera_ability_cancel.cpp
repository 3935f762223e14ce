// How a take-photo collaboration ends: the stop sequence that every reported ending runs on the
// requesting side, the cancel requests of both sides, and the reactions to a lost link (the
// peer disconnected, the control session went down, Wi-Fi was switched off).
// Endings race: a peer code, a cancel and a link loss may arrive together on different
// threads. Every step below therefore tolerates a record that another ending already erased,
// and only the ending that actually detaches the application's death recipient releases it.
#include <new>

#include "camera_ability_process.h"
#include "camera_app_callback.h"
#include "camera_meshline_constants.h"
#include "camera_result_codes.h"
#include "host_death_recipient.h"
#include "meshline_manager.h"
#include "photo_callerInfo.h"
#include "session_manager.h"
#include "tandra_dfx.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
// Tells the connection manager that this peer's service is free again and stops listening for
// its disconnection: the collaboration with it is over.
void ReleasePeer(const std::string& networkId, const std::string& frameworkName)
{
    MeshlineManager& meshline = MeshlineManager::GetInstance();
    meshline.PublishServiceState(networkId, frameworkName, "", SERVICE_STATE_FREE);
    meshline.UnSubscribeNotifyDisconnect(networkId, frameworkName);
}
}  // namespace

int32_t CameraAbilityProcess::CollaborationToCancelTakePhotoReq(MessageParcel& data, MessageParcel& /*reply*/,
                                                                MessageOption& /*option*/, IPCContext /*context*/)
{
    TNDR_SERVICE_LOGI("enter.");
    uint32_t collaborationId = data.ReadUint32();
    return ProcessCancelTakePhotoRequest(collaborationId);
}

int32_t CameraAbilityProcess::ProcessCancelTakePhotoRequest(uint32_t collaborationId)
{
    TNDR_SERVICE_LOGI("enter");
    std::shared_ptr<CameraProcessState> state = QueryCameraProcess(collaborationId);
    if (state == nullptr) {
        TNDR_SERVICE_LOGE("The corresponding value cannot be found in the processingSessions map.");
        return ERR_INVALID_PARAM;
    }
    TNDR_SERVICE_LOGI("process status is %{public}u", state->GetStatus());
    // Marked finished first, so that a take-photo send still opening its session sees the cancel.
    state->SetStatus(CameraProcessState::STATUS_FINISHED);
    ReleaseTimeoutLock(collaborationId, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO});

    if (SendStopTakePhotoReq(collaborationId, state->GetNetworId()) != ERR_OK) {
        TNDR_SERVICE_LOGE("failed to sendStopTakePhotoReq");
    }
    // The application no longer needs watching once its collaboration is gone; when it is the
    // one that died, its notice is being delivered and the detach is left to the notice.
    DetachCollaborationDeathRecipient(state);

    int32_t result = ERR_OK;
    if (!EraseCameraProcess(collaborationId)) {
        TNDR_SERVICE_LOGE("EraseCameraProcess is failed");
        result = ERR_INVALID_PARAM;
    }
    if (!EraseSessionId(collaborationId)) {
        TNDR_SERVICE_LOGE("EraseSessionId is double");
        result = ERR_INVALID_PARAM;
    }
    DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                          DFX::StageRes::CANCEL, 0, DFX::BizState::END);
    TNDR_SERVICE_LOGI("leave");
    return result;
}

void CameraAbilityProcess::SendStopTakePhoto(uint32_t collaborationId, uint32_t code,
                                             std::shared_ptr<CameraProcessState> state)
{
    TNDR_SERVICE_LOGI("code = %{public}d", code);
    if (code == EVENT_PHOTO_COUNT) {
        TNDR_SERVICE_LOGI("the code is %{public}d, not need to perform the following operations.", code);
        return;
    }
    const std::string networkId = state != nullptr ? state->GetNetworId() : std::string();
    if (code == CODE_LOCAL_CTRL_SHUTDOWN) {
        // The control session is already gone: nothing can be sent to the peer.
        ReleasePeer(networkId, frameworkName_);
    } else {
        SendStopTakePhotoReq(collaborationId, networkId);
    }

    if (state != nullptr) {
        DetachCollaborationDeathRecipient(state);
        state->SetStatus(CameraProcessState::STATUS_FINISHED);
    }
    EraseCameraProcess(collaborationId);
    EraseSessionId(collaborationId);
    ReleaseTimeoutLock(collaborationId, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO});
}

int32_t CameraAbilityProcess::SendStopTakePhotoReq(uint32_t collaborationId, std::string networkId)
{
    if (networkId.empty()) {
        TNDR_SERVICE_LOGE("param is empty.");
        return ERR_INVALID_PARAM;
    }
    int32_t sessionId = QuerySessionId(collaborationId);
    if (sessionId == NO_SESSION_ID) {
        TNDR_SERVICE_LOGE("The corresponding value cannot be found in the sessionIdMap.");
        return ERR_INVALID_PARAM;
    }
    int32_t result = SessionManager::StopCollaborationToDevice(sessionId, true);
    ReleasePeer(networkId, frameworkName_);
    TNDR_SERVICE_LOGI("result = %{public}d", result);
    return result;
}

// An ending (a cancel, the application's death) that lands while the command's session is
// still opening finds no session id to stop, so it neither tells the peer nor frees the link.
// Stopping the session quietly here would leave the peer's camera application running for a
// collaboration that is gone, and the connection manager holding the link for it, until the
// link itself drops: the peer is told and the link freed, as a cancel does.
void CameraAbilityProcess::StopSessionOfEndedCollaboration(int32_t sessionId, const std::string& networkId)
{
    SessionManager::StopCollaborationToDevice(sessionId, true);
    ReleasePeer(networkId, frameworkName_);
}

void CameraAbilityProcess::DetachCollaborationDeathRecipient(const std::shared_ptr<CameraProcessState>& state)
{
    if (state == nullptr) {
        return;
    }
    sptr<IRemoteObject> remote = state->GetRemoteObject();
    sptr<IRemoteObject::DeathRecipient> recipient = state->GetDeathRecipientObject();
    if (remote == nullptr || recipient == nullptr) {
        return;
    }
    // Only a successful removal guarantees that the notice will never run; then the recipient's
    // self reference is the last thing keeping it (and the application's object) alive.
    if (!remote->RemoveDeathRecipient(recipient)) {
        return;
    }
    if (auto* host = dynamic_cast<HostDeathRecipient*>(recipient.GetRefPtr())) {
        host->SetDeathRecipient(nullptr);
    }
}

int32_t CameraAbilityProcess::ProcessDisconnect(std::string networkId)
{
    TNDR_SERVICE_LOGI("enter");
    std::shared_ptr<CameraProcessState> state = QueryCameraProcess(networkId);
    if (state == nullptr) {
        TNDR_SERVICE_LOGE("process is nullptr.");
        return ERR_INVALID_PARAM;
    }
    // Reporting the event runs the stop sequence.
    ProcessPhotoEventCommand(EVENT_PEER_DISCONNECTED, state->GetCollaborationId(), MSG_STATE);
    return ERR_OK;
}

void CameraAbilityProcess::ProcessCtrlChannelShutDown(const std::string& key)
{
    uint32_t collaborationId = ResolveCollaborationId(key);
    TNDR_SERVICE_LOGI("OnCtrlChannelShutDown");
    // The session's name is "<id>-<serving device>", chosen by the requesting device. A session
    // that a peer opened towards this device carries the peer's id, which may equal one of ours:
    // only a name that also names our collaboration's peer is ours to end.
    const size_t separator = key.find('-');
    const std::string peerNetworkId = separator == std::string::npos ? std::string() : key.substr(separator + 1);
    if (QueryCameraProcess(collaborationId, peerNetworkId) == nullptr) {
        TNDR_SERVICE_LOGI("no collaboration of this device on the session, collaborationId = %{public}u",
                          collaborationId);
        return;
    }
    ProcessPhotoEventCommand(CODE_LOCAL_CTRL_SHUTDOWN, collaborationId, MSG_ERRORCODE);
    DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                          DFX::StageRes::FAILED, static_cast<int32_t>(CODE_LOCAL_CTRL_SHUTDOWN - DFX_ERROR_CODE_BASE),
                          DFX::BizState::END);
    ReleaseTimeoutLock(collaborationId, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO});
}

void CameraAbilityProcess::ProcessCtrlChannelShutDown(const CtrlSessionInfo& session)
{
    TNDR_SERVICE_LOGI("OnCtrlChannelShutDown, session %{public}d", session.sessionId);
    const uint32_t collaborationId = CollaborationOfSession(session);
    if (collaborationId == 0) {
        TNDR_SERVICE_LOGI("no collaboration of this device on session %{public}d", session.sessionId);
        return;
    }
    ProcessPhotoEventCommand(CODE_LOCAL_CTRL_SHUTDOWN, collaborationId, MSG_ERRORCODE);
    DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                          DFX::StageRes::FAILED, static_cast<int32_t>(CODE_LOCAL_CTRL_SHUTDOWN - DFX_ERROR_CODE_BASE),
                          DFX::BizState::END);
    ReleaseTimeoutLock(collaborationId, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO});
}

void CameraAbilityProcess::ProcessWifiShutDown()
{
    TNDR_SERVICE_LOGI("enter");
    // Requesting side: every collaboration whose control session is up ends.
    std::vector<uint32_t> collaborationIds;
    {
        std::shared_lock<std::shared_mutex> lock(registryMutex_);
        for (const auto& entry : cameraProcesses_) {
            collaborationIds.push_back(entry.first);
        }
    }
    for (uint32_t collaborationId : collaborationIds) {
        int32_t sessionId = QuerySessionId(collaborationId);
        if (sessionId == NO_SESSION_ID) {
            TNDR_SERVICE_LOGE("The corresponding value cannot be found in the sessionIdMap.");
            continue;
        }
        TNDR_SERVICE_LOGI("shutDown collaborationId=%{public}d", collaborationId);
        ProcessPhotoEventCommand(CODE_LOCAL_WIFI_SHUTDOWN, collaborationId, MSG_ERRORCODE);
        SessionManager::StopCollaborationToDevice(sessionId, true);
    }

    // Serving side: every requester hears that the camera's device went off the network.
    for (const std::shared_ptr<PutPhotoContext>& context : GetAllPutPhotoContexts()) {
        if (context == nullptr) {
            continue;
        }
        const int32_t sessionId = context->GetCollaborationSessionId();
        TNDR_SERVICE_LOGI("shutDown collaborationSessionId=%{public}d", sessionId);
        TNDR_SERVICE_LOGI("send shutDown event back, collaborationSessionId=%{public}d", sessionId);
        SendCodeBack(CODE_PEER_WIFI_OFF, sessionId);
    }
}

int32_t CameraAbilityProcess::CollaborationToRemoteCancelTakePhotoReq(MessageParcel& data, MessageParcel& /*reply*/,
                                                                      MessageOption& /*option*/, IPCContext context)
{
    TNDR_SERVICE_LOGI("enter.");
    sptr<PhotoCallerInfo> callerInfo;
    if (data.ReadInt32() != 0) {
        callerInfo = PhotoCallerInfo::Unmarshalling(data);
    }
    uint32_t errCode = data.ReadUint32();

    sptr<PhotoInfo> photoInfo = new (std::nothrow) PhotoInfo();
    if (photoInfo == nullptr || callerInfo == nullptr) {
        TNDR_SERVICE_LOGE("photoInfo = %{public}d, photoCallerInfo = %{public}d", photoInfo == nullptr ? 1 : 0,
                          callerInfo == nullptr ? 1 : 0);
        return ERR_INVALID_PARAM;
    }
    photoInfo->SetErrCode(errCode);
    photoInfo->SetInterfaceId(PhotoInfo::PUT_IMAGE_INTERFACE_ID);

    std::shared_ptr<PutPhotoContext> putPhotoContext = QueryPutPhotoContext(callerInfo->GetCollaborationSessionId());
    if (putPhotoContext == nullptr) {
        TNDR_SERVICE_LOGE("putPhotoContext is null!");
        return ERR_NO_PUT_PHOTO_CONTEXT;
    }
    if (!IsSubscribedCameraApp(putPhotoContext, context.pid, context.uid)) {
        TNDR_SERVICE_LOGE("caller %{public}d is not the camera application of the collaboration", context.pid);
        return ERR_INVALID_PARAM;
    }
    // A camera that is already putting its images (or has ended) can no longer cancel.
    if (!putPhotoContext->ChangeCameraStatus(PutPhotoContext::CAMERA_REMOTE_CANCELLED).first) {
        TNDR_SERVICE_LOGE("changeCameraStatus failed!");
        return ERR_CAMERA_STATUS;
    }
    putPhotoContext->SetPid(context.pid);
    putPhotoContext->SetUid(context.uid);
    auto param = std::make_shared<PhotoParam>(PhotoParam::REQUEST_REMOTE_CANCEL);
    int32_t result = ProcessPutPhotoRequest(putPhotoContext, photoInfo, callerInfo, param);
    TNDR_SERVICE_LOGI("ProcessPutPhotoRequest return result = %{public}d", result);
    return result;
}

}  // namespace Tandra
}  // namespace QUEX
