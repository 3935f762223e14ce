// The requesting side's receive path: a peer message is checked against its header, passed
// through the collaboration's state machine, and then becomes an event or a photo at the
// application's callback. Photo bytes are copied once, into the callback parcel; everything
// before that works on the host's receive buffer in place.
#include <cstring>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "camera_app_callback.h"
#include "camera_meshline_constants.h"
#include "camera_result_codes.h"
#include "message_parcel.h"
#include "tandra_dfx.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t ERR_PARCEL_WRITE = 1007;
constexpr int32_t ERR_SEND_TO_APP = 461374453;
constexpr uint32_t PHOTO_WAIT_SECONDS = 10;
static_assert(MAX_PHOTO_SIZE == MessageParcel::MAX_RAW_DATA_SIZE, "a photo fits one callback parcel");

// Finds or creates the photo-data wait in one step under the pending lock, so that the
// photo-count message and a photo racing in on the other channel agree on who starts the
// waiter: exactly one of them sees it created.
std::pair<std::shared_ptr<Pending<int32_t>>, bool> ObtainPhotoWait(
    std::shared_mutex& mutex, std::map<std::string, std::shared_ptr<Pending<int32_t>>>& waits, const std::string& key)
{
    std::unique_lock<std::shared_mutex> lock(mutex);
    std::shared_ptr<Pending<int32_t>>& slot = waits[key];
    const bool created = slot == nullptr;
    if (created) {
        slot = std::make_shared<Pending<int32_t>>();
    }
    return {slot, created};
}

// Starts the photo-data wait on the pool. The task waits on the record it was given, never on
// one looked up by key when it runs: the last photo may overtake it and release the wait, and
// a look-up would then start a new wait for a collaboration that is over, left registered to
// time out later.
// A stop sequence runs on the pool while messages keep arriving here: when it already ended
// the collaboration (it marks it finished before it releases the waits), a wait registered just
// now was missed by its release and would stay registered, so it is released here instead.
void PostPhotoWait(CameraAbilityProcess* process, uint32_t collaborationId, std::shared_ptr<Pending<int32_t>> pending)
{
    std::shared_ptr<CameraProcessState> state = process->QueryCameraProcess(collaborationId);
    if (state == nullptr || state->GetStatus() == CameraProcessState::STATUS_FINISHED) {
        process->SetTimeoutContext(collaborationId, CODE_LAST_PHOTO);
        TNDR_SERVICE_LOGI("collaboration %{public}u already ended, no photo wait", collaborationId);
        return;
    }
    int32_t post = AsynThreadPool::AddAsynTask([process, collaborationId, pending = std::move(pending)]() {
        process->GetTimeoutWaitCode(collaborationId, CODE_LAST_PHOTO, PHOTO_WAIT_SECONDS, pending);
    });
    TNDR_SERVICE_LOGI("add async result = %{public}d", post);
}
}  // namespace

void CameraAbilityProcess::OnDataReceived(uint32_t collaborationId, const char* data, unsigned long rawDataLen)
{
    if (data == nullptr || rawDataLen < CAMERA_MSG_HEADER_LEN) {
        TNDR_SERVICE_LOGE("invalid data, rawDataLen = %{public}zu", static_cast<size_t>(rawDataLen));
        ProcessPhotoEventCommand(ERR_INVALID_PARAM, collaborationId, MSG_ERROR);
        return;
    }
    CameraMsgHeader header;
    std::memcpy(&header, data, CAMERA_MSG_HEADER_LEN);
    TNDR_SERVICE_LOGI("code = %{public}u, size = %{public}u, rawDataLen = %{public}zu", header.code, header.size,
                      static_cast<size_t>(rawDataLen));
    if (header.code == CODE_PHOTO_COUNT) {
        // Its size is the number of photos to come, not a length.
        TNDR_SERVICE_LOGI("size is total image, no validate");
    } else if (header.size > rawDataLen || static_cast<uint32_t>(header.size + CAMERA_MSG_HEADER_LEN) != rawDataLen) {
        TNDR_SERVICE_LOGE("length mismatch, size = %{public}u, rawDataLen = %{public}zu", header.size,
                          static_cast<size_t>(rawDataLen));
        ProcessPhotoEventCommand(ERR_INVALID_PARAM, collaborationId, MSG_ERROR);
        return;
    }
    if (!CheckAndUpdateState(collaborationId, header.code)) {
        return;
    }
    TNDR_SERVICE_LOGI("has received code = %{public}d", header.code);
    ProcessDataReceived(header.code, header.size, collaborationId, data);
}

void CameraAbilityProcess::ProcessDataReceived(uint32_t code, uint32_t size, uint32_t collaborationId, const char* data)
{
    switch (code) {
        case CODE_PHOTO_FAILED:
        case CODE_CAMERA_APP_FAILURE:
        case CODE_DEVICE_TYPE_REFUSED:
        case CODE_PEER_WIFI_OFF:
        case CODE_CAMERA_APP_FAILURE_2:
        case CODE_CAMERA_DIED:
        case CODE_DATA_SEND_FAILED:
            DfxCodeReceived(code, false, collaborationId);
            ProcessNotifyUI(code, collaborationId, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO}, MSG_ERRORCODE);
            break;
        case CODE_DISCONNECTED_BEFORE_SEND:
            DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                                  DFX::StageRes::CANCEL, 0, DFX::BizState::END);
            ProcessNotifyUI(EVENT_PEER_DISCONNECTED, collaborationId, {CODE_PHOTO_COUNT}, MSG_STATE);
            break;
        case CODE_PHOTO_COUNT: {
            // The photo wait is registered before the application is told, because photos may
            // already be arriving on the data channel; whoever registers it starts its waiter.
            auto [pending, created] =
                ObtainPhotoWait(pendingMutex_, pendingWaits_, PendingKey(collaborationId, CODE_LAST_PHOTO));
            ProcessNotifyUI(EVENT_PHOTO_COUNT, collaborationId, {CODE_PHOTO_COUNT}, std::to_string(size));
            if (created) {
                PostPhotoWait(this, collaborationId, std::move(pending));
            }
            break;
        }
        case CODE_PHOTO:
        case CODE_LAST_PHOTO:
            ProcessPhotoDataReceived(code, size, collaborationId, data);
            break;
        case CODE_CAMERA_STARTED:
            DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_REQUEST, DFX::SerCollBizStage::START_ABILITY,
                                  DFX::StageRes::SUCCESS, 0, DFX::BizState::END);
            break;
        default:
            TNDR_SERVICE_LOGI("THE code not find, code = %{public}u.", code);
            break;
    }
}

void CameraAbilityProcess::DfxCodeReceived(uint32_t code, bool isSuccess, uint32_t collaborationId)
{
    // The control session's name, as this device opened it.
    std::shared_ptr<CameraProcessState> state = QueryCameraProcess(collaborationId);
    const std::string sessionName =
        UIntToString(collaborationId) + "-" + (state != nullptr ? state->GetNetworId() : std::string());
    if (isSuccess) {
        DFX::ReportPhotoTransfer(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, DFX::BizState::END, sessionName);
        return;
    }
    DFX::ReportPhotoTransfer(TNDR_DFX_SITE, DFX::StageRes::FAILED, static_cast<int32_t>(code), DFX::BizState::END,
                             sessionName);
    DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                          DFX::StageRes::FAILED, static_cast<int32_t>(code - DFX_ERROR_CODE_BASE), DFX::BizState::END);
}

bool CameraAbilityProcess::CheckAndUpdateState(uint32_t collaborationId, uint32_t code)
{
    TNDR_SERVICE_LOGI("enter");
    std::shared_ptr<CameraProcessState> state = QueryCameraProcess(collaborationId);
    if (state == nullptr) {
        TNDR_SERVICE_LOGE("QueryCameraProcess not fond!");
        return false;
    }
    if (!state->UpdateProcessState(collaborationId, code)) {
        TNDR_SERVICE_LOGE("The code does not match the current status.");
        return false;
    }
    return true;
}

void CameraAbilityProcess::ProcessNotifyUI(uint32_t code, uint32_t collaborationId, std::list<uint32_t> waitCodes,
                                           std::string message)
{
    TNDR_SERVICE_LOGI("enter");
    ReleaseTimeoutLock(collaborationId, waitCodes);
    ProcessPhotoEventCommand(code, collaborationId, std::move(message));
}

int32_t CameraAbilityProcess::ProcessPhotoEventCommand(uint32_t code, uint32_t collaborationId, std::string message)
{
    TNDR_SERVICE_LOGI("enter");
    std::shared_ptr<CameraProcessState> state = QueryCameraProcess(collaborationId);
    sptr<CallbackSkeletonProxy> callback = state != nullptr ? state->GetCallBackObject() : nullptr;
    if (callback == nullptr) {
        TNDR_SERVICE_LOGE("query CameraProcess failed");
        return ERR_INVALID_PARAM;
    }
    // The stop sequence needs the code as it was reported: a lost control session must not be
    // answered with a stop request on it, and the application only ever sees the mapped code.
    const uint32_t reportedCode = code;
    if (message == MSG_ERRORCODE) {
        code = GetErrorCode(state->GetStatus(), code);
    }
    MessageParcel data;
    int32_t requestCode = CallbackSkeletonProxy::BuildCollaborationCallbackCode(data, CALLBACK_SERVICE_EVENT,
                                                                                CALLBACK_SUB_EVENT, 0, 0, 0);
    if (requestCode < 0) {
        TNDR_SERVICE_LOGE("build callback code failed");
        return ERR_INVALID_PARAM;
    }
    if (!data.WriteUint32(code) || !data.WriteUint32(collaborationId) || !data.WriteString(message)) {
        TNDR_SERVICE_LOGE("write to parcel failed");
        return ERR_PARCEL_WRITE;
    }
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, CALLBACK_WAIT_SECONDS);
    int32_t result = 0;
    if (callback->SendRequest(static_cast<uint32_t>(requestCode), data, reply, option) != ERR_NONE) {
        // An application that cannot be told still has its collaboration ended.
        TNDR_SERVICE_LOGE("send request to Tandra failed");
        result = ERR_SEND_TO_APP;
    } else {
        TNDR_SERVICE_LOGI("replyRes = %{public}d", reply.ReadInt32());
    }
    // Every reported event but the photo count ends the collaboration; the stop sequence
    // decides which.
    int32_t post = AsynThreadPool::AddAsynTask(
        [this, collaborationId, reportedCode, state]() { SendStopTakePhoto(collaborationId, reportedCode, state); });
    TNDR_SERVICE_LOGI("add async result = %{public}d", post);
    return result;
}

void CameraAbilityProcess::ProcessPhotoDataReceived(uint32_t code, uint32_t size, uint32_t collaborationId,
                                                    const char* message)
{
    TNDR_SERVICE_LOGI("has received code = %{public}d", code);
    if (code == CODE_PHOTO) {
        if (ProcessPhotoDataCommand(EVENT_PHOTO, collaborationId, size, message + CAMERA_MSG_HEADER_LEN) ==
            ERR_SEND_TO_APP) {
            return;  // the collaboration has ended: no wait for the next photo
        }
        auto [pending, created] =
            ObtainPhotoWait(pendingMutex_, pendingWaits_, PendingKey(collaborationId, CODE_LAST_PHOTO));
        if (!created) {
            // Each photo grants the next one a whole new period.
            pending->Refresh(PHOTO_WAIT_SECONDS);
        } else {
            PostPhotoWait(this, collaborationId, std::move(pending));
        }
        return;
    }
    if (code == CODE_LAST_PHOTO) {
        TNDR_SERVICE_LOGD("performance time: sendByte end");
        DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                         DFX::StageRes::SUCCESS);
        DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::PHOTO_RECEIVED,
                         DFX::StageRes::BEGIN);
        ReleaseTimeoutLock(collaborationId, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO});
        int32_t result =
            ProcessPhotoDataCommand(EVENT_LAST_PHOTO, collaborationId, size, message + CAMERA_MSG_HEADER_LEN);
        if (result != 0) {
            DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::PHOTO_RECEIVED,
                                  DFX::StageRes::FAILED, result, DFX::BizState::END);
            TNDR_SERVICE_LOGE("data back to widget failed");
        } else {
            DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::PHOTO_RECEIVED,
                                  DFX::StageRes::SUCCESS, 0, DFX::BizState::END);
        }
        return;
    }
    TNDR_SERVICE_LOGI("THE code not find, code = %{public}u.", code);
}

int32_t CameraAbilityProcess::ProcessPhotoDataCommand(uint32_t photoSendStatus, uint32_t collaborationId, uint32_t size,
                                                      const char* data)
{
    TNDR_SERVICE_LOGI("enter, photoSendStatus = %{public}u", photoSendStatus);
    if (data == nullptr) {
        TNDR_SERVICE_LOGE("invalid buffer, nullptr");
        return ERR_INVALID_ARGUMENT;
    }
    std::shared_ptr<CameraProcessState> state = QueryCameraProcess(collaborationId);
    sptr<CallbackSkeletonProxy> callback = state != nullptr ? state->GetCallBackObject() : nullptr;
    if (callback == nullptr) {
        TNDR_SERVICE_LOGE("query CameraProcess failed");
        return ERR_INVALID_ARGUMENT;
    }
    // A photo that cannot reach the application ends the collaboration as any failure does: the
    // application hears why, and everything of the collaboration is released.
    auto notHandedOver = [this, collaborationId]() {
        ReleaseTimeoutLock(collaborationId, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO});
        ProcessPhotoEventCommand(ERR_SEND_TO_APP, collaborationId, MSG_ERRORCODE);
        return ERR_SEND_TO_APP;
    };
    // Checked before the parcel takes a buffer for it.
    if (size > MAX_PHOTO_SIZE) {
        TNDR_SERVICE_LOGE("photo of %{public}u bytes is more than one callback carries", size);
        return notHandedOver();
    }
    MessageParcel parcel;
    int32_t requestCode = CallbackSkeletonProxy::BuildCollaborationCallbackCode(parcel, CALLBACK_SERVICE_PHOTO,
                                                                                CALLBACK_SUB_PHOTO, 0, 0, 0);
    if (requestCode < 0) {
        TNDR_SERVICE_LOGE("build callback code failed");
        return notHandedOver();
    }
    // The one copy of the photo bytes on this side: from the receive buffer into the parcel.
    if (!parcel.WriteUint32(photoSendStatus) || !parcel.WriteUint32(collaborationId) || !parcel.WriteUint32(size) ||
        !parcel.WriteRawData(data, size)) {
        TNDR_SERVICE_LOGE("write to parcel failed, photoSendStatus = %{public}u", photoSendStatus);
        return notHandedOver();
    }
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, CALLBACK_WAIT_SECONDS);
    if (callback->SendRequest(static_cast<uint32_t>(requestCode), parcel, reply, option) != ERR_NONE) {
        TNDR_SERVICE_LOGE("send request to Tandra failed");
        return notHandedOver();
    }
    int32_t result = reply.ReadInt32();
    TNDR_SERVICE_LOGI("replyRes = %{public}d", result);

    // Looked up directly rather than through QuerySessionId, which cannot tell a missing
    // entry from the mark of a session that is already gone.
    TNDR_SERVICE_LOGI("collaborationId is %{public}d.", collaborationId);
    int32_t sessionId = NO_SESSION_ID;
    {
        std::shared_lock<std::shared_mutex> lock(registryMutex_);
        auto it = sessionIds_.find(collaborationId);
        if (it == sessionIds_.end()) {
            lock.unlock();
            TNDR_SERVICE_LOGE("The corresponding value cannot be found in the sessionIdMap.");
            return ERR_INVALID_ARGUMENT;
        }
        sessionId = it->second;
    }
    if (sessionId == NO_SESSION_ID) {
        return result;
    }
    if (photoSendStatus == EVENT_LAST_PHOTO) {
        DetachCollaborationDeathRecipient(state);
        SendStopTakePhotoReq(collaborationId, state->GetNetworId());
        EraseCameraProcess(collaborationId);
        EraseSessionId(collaborationId);
    }
    return result;
}

}  // namespace Tandra
}  // namespace QUEX
