// The requesting side of a take-photo collaboration: checks the caller, applies for the link's
// resources, creates the collaboration and replies at once; then, on the thread pool, opens
// the control session that carries the command text and waits for the peer's first answer.
#include <chrono>
#include <cstdio>

#include "ability_manager.h"
#include "ability_manager_client.h"
#include "asyn_thread_pool.h"
#include "camera_ability_callbacks.h"
#include "camera_ability_process.h"
#include "camera_app_callback.h"
#include "camera_meshline_constants.h"
#include "camera_result_codes.h"
#include "host_death_recipient.h"
#include "ipc_skeleton.h"
#include "meshline_info.h"
#include "meshline_manager.h"
#include "session_manager.h"
#include "soft_bus_adapter.h"
#include "tandra_dfx.h"
#include "tandra_service_utils.h"
#include "vex_clock.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t ERR_NOT_TOP_ABILITY = 1020;
constexpr int32_t ERR_WIFI_OFF = 2013;

constexpr uint32_t APPLY_RESULT_GRANTED = 1004720001;
constexpr auto APPLY_RESOURCE_WAIT = std::chrono::seconds(15);
constexpr uint32_t WAIT_CODE_FIRST_ANSWER = 1001201912;
constexpr uint32_t FIRST_ANSWER_WAIT_SECONDS = 180;

constexpr int32_t SERVICE_TYPE_CAMERA = 2;
constexpr int32_t SESSION_TYPE_CONTROL = 1;

// What the connection manager is asked for: a link able to carry photos, the peer's camera
// (shared with others) and its display (for us alone).
constexpr int COMM_MIN_BANDWIDTH = 0x1400000;
constexpr int COMM_MAX_LATENCY = 19000;
constexpr int COMM_MIN_LATENCY = 2000;
constexpr int COMM_MAX_WAIT_TIME = 10;
constexpr int COMM_MAX_BUFFER = 0x8000000;

// A cancel (or any other ending) marks the record finished before it erases it.
bool IsEnded(CameraAbilityProcess& process, uint32_t collaborationId)
{
    std::shared_ptr<CameraProcessState> state = process.QueryCameraProcess(collaborationId);
    return state == nullptr || state->GetStatus() == CameraProcessState::STATUS_FINISHED;
}
}  // namespace

std::pair<int32_t, uint32_t> CameraAbilityProcess::ProcessCameraAbilityRequest(sptr<PickerResult> pickerResult,
                                                                               sptr<IRemoteObject> callback)
{
    TNDR_SERVICE_LOGI("enter");
    if (!GetTopAbility()) {
        return {ERR_NOT_TOP_ABILITY, 0};
    }
    if (!SoftBusAdapter::IsWifiActive()) {
        return {ERR_WIFI_OFF, 0};
    }
    sptr<AbilityFilter> abilityFilter = pickerResult != nullptr ? pickerResult->GetAbilityFilter() : nullptr;
    sptr<DeviceInfo> deviceInfo = pickerResult != nullptr ? pickerResult->GetDeviceInfo() : nullptr;
    sptr<LocalInfo> localInfo = pickerResult != nullptr ? pickerResult->GetLocalDeviceInfo() : nullptr;
    if (abilityFilter == nullptr || deviceInfo == nullptr || localInfo == nullptr) {
        TNDR_SERVICE_LOGE("abilityFilter = %{public}d, deviceInfo = %{public}d, localInfo = %{public}d",
                          abilityFilter == nullptr, deviceInfo == nullptr, localInfo == nullptr);
        return {ERR_INVALID_PARAM, 0};
    }

    const std::string networkId = deviceInfo->GetDeviceNetworkId();
    DFX::ReportSessionSetup(TNDR_DFX_SITE, DFX::StageRes::BEGIN, 0, networkId);
    // A request for a peer that already has a collaboration joins it, and nothing else: a new
    // resource application or a published "requesting" state would reach the running one.
    std::shared_ptr<CameraProcessState> running = QueryCameraProcess(networkId);
    if (running != nullptr) {
        TNDR_SERVICE_LOGI("a collaboration with this peer is running, the request joins it");
        DFX::ReportSessionSetup(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, networkId);
        return {ERR_OK, running->GetCollaborationId()};
    }

    MeshlineManager& meshline = MeshlineManager::GetInstance();
    sptr<DisconncetCallback> disconnectCallback = new (std::nothrow) DisconncetCallback();
    meshline.SubscribeNotifyDisconnect(networkId, frameworkName_, DISCONNECT_EVENT, disconnectCallback);
    meshline.PublishServiceState(networkId, frameworkName_, "", SERVICE_STATE_REQUESTING);

    int32_t res = ProcessApplyResource(networkId);
    if (res != ERR_OK) {
        TNDR_SERVICE_LOGE("failed to ProcessApplyResource, res is %{public}d", res);
        meshline.UnSubscribeNotifyDisconnect(networkId, frameworkName_);
        return {res, 0};
    }

    bool joined = false;
    uint32_t collaborationId = ProcessCameraSessions(networkId, callback, joined);
    if (collaborationId == 0) {
        // The disconnect subscription stays: a collaboration for this peer may still be running.
        TNDR_SERVICE_LOGE("failed to ProcessCameraSessions, collaborationId is %{public}d", collaborationId);
        return {ERR_INVALID_PARAM, 0};
    }
    if (joined) {
        // The running collaboration has its session and command already.
        return {ERR_OK, collaborationId};
    }

    // The application gets its reply before the peer has been contacted.
    int32_t postResult = AsynThreadPool::AddAsynTask([this, deviceInfo, collaborationId, localInfo, abilityFilter]() {
        SendTakePhotoReq(deviceInfo, collaborationId, localInfo, abilityFilter);
    });
    TNDR_SERVICE_LOGI("add async result = %{public}d", postResult);
    return {ERR_OK, collaborationId};
}

bool CameraAbilityProcess::GetTopAbility()
{
    int32_t uid = IPCSkeleton::GetCallingUid();
    auto abilityManager = AbilityManager::GetInstance();
    sptr<AppExecFwk::IBundleMgr> bundleMgr = abilityManager != nullptr ? abilityManager->GetBundleMgr() : nullptr;
    if (bundleMgr == nullptr) {
        TNDR_SERVICE_LOGE("failed to get bms proxy");
        return false;
    }
    std::string callerBundleName;
    bundleMgr->GetBundleNameForUid(uid, callerBundleName);
    std::string topBundleName;
    auto abilityManagerClient = AAFwk::AbilityManagerClient::GetInstance();
    if (abilityManagerClient != nullptr) {
        topBundleName = abilityManagerClient->GetTopAbility().GetBundleName();
    }
    // A caller whose bundle is unknown is never the foreground application, not even when
    // nothing is in the foreground.
    if (!callerBundleName.empty() && topBundleName == callerBundleName) {
        return true;
    }
    TNDR_PROXY_LOGE("The top ability is %{public}s now,request ability is %{public}s", topBundleName.c_str(),
                    callerBundleName.c_str());
    return false;
}

int32_t CameraAbilityProcess::ProcessApplyResource(const std::string& networkId)
{
    if (networkId.empty()) {
        TNDR_SERVICE_LOGE("networkId is empty");
        return ERR_INVALID_PARAM;
    }
    sptr<ResourceRequest> resourceRequest = new (std::nothrow) ResourceRequest();
    std::shared_ptr<CurrentApplyDeviceInfo> info(new (std::nothrow) CurrentApplyDeviceInfo());
    if (resourceRequest == nullptr || info == nullptr) {
        TNDR_SERVICE_LOGE("failed to new ResourceRequest or new CurrentApplyDeviceInfo.");
        return ERR_INVALID_PARAM;
    }
    if (InitApplyInfo(resourceRequest) != ERR_OK) {
        TNDR_SERVICE_LOGE("failed to init applyinfo.");
        return ERR_INVALID_PARAM;
    }
    if (!AddCurrentInfo(networkId, info)) {
        TNDR_SERVICE_LOGE("failed to AddCurrentInfo.");
        return ERR_INVALID_PARAM;
    }

    sptr<ApplyResultCallback> callback = new (std::nothrow) ApplyResultCallback();
    int32_t res =
        MeshlineManager::GetInstance().ApplyAdvancedResource(networkId, frameworkName_, resourceRequest, callback);
    if (res != ERR_OK) {
        TNDR_SERVICE_LOGE("failed to meshline param check.");
        EraseCurrentInfo(networkId);
        return res;
    }

    uint32_t decision = 0;
    {
        // The decision may already be in: the service can answer before ApplyAdvancedResource
        // returns, so the predicate is checked before the first wait.
        std::unique_lock<std::mutex> lock(info->mutex);
        Clock::WaitFor(info->cond, lock, APPLY_RESOURCE_WAIT, [&info]() { return info->result != 0; });
        decision = info->result;
    }
    EraseCurrentInfo(networkId);
    return decision == APPLY_RESULT_GRANTED ? ERR_OK : ERR_APPLY_RESOURCE_FAILED;
}

int32_t CameraAbilityProcess::InitApplyInfo(sptr<ResourceRequest> resourceRequest)
{
    if (resourceRequest == nullptr) {
        TNDR_SERVICE_LOGE("resourceRequest is nullptr.");
        return ERR_INVALID_PARAM;
    }
    sptr<CommunicationRequest> communication = new (std::nothrow) CommunicationRequest(
        COMM_MIN_BANDWIDTH, COMM_MAX_LATENCY, COMM_MIN_LATENCY, COMM_MAX_WAIT_TIME, COMM_MAX_BUFFER);
    sptr<HardwareRequest> camera = new (std::nothrow) HardwareRequest(HardwareType::CAMERA, true);
    sptr<HardwareRequest> display = new (std::nothrow) HardwareRequest(HardwareType::DISPLAY, false);
    if (communication == nullptr || camera == nullptr || display == nullptr) {
        TNDR_SERVICE_LOGE("failed to new CommunicationRequest or new HardwareRequest.");
        return ERR_INVALID_PARAM;
    }
    communication->SetDataType(dataTypeName_);
    resourceRequest->SetCommunicationRequest(communication);
    resourceRequest->SetRemoteHardwareList({camera, display});
    return ERR_OK;
}

void CameraAbilityProcess::ApplyResourcecallback(const std::string& networkId, const std::string& serviceName,
                                                 const std::string& reason, uint32_t result)
{
    TNDR_SERVICE_LOGI("result is %{public}u, reason is %{public}s.", result, reason.c_str());
    if (networkId.empty() || serviceName.empty()) {
        TNDR_SERVICE_LOGE("param is empty.");
        return;
    }
    std::shared_ptr<CurrentApplyDeviceInfo> info = QueryCurrentInfoByNetworkId(networkId);
    if (info == nullptr) {
        TNDR_SERVICE_LOGE("device is %{public}s, no exist.", networkId.c_str());
        return;
    }
    if (serviceName != frameworkName_) {
        return;
    }
    std::lock_guard<std::mutex> lock(info->mutex);
    info->result = result;
    info->cond.notify_one();
}

uint32_t CameraAbilityProcess::ProcessCameraSessions(const std::string& networkId, sptr<IRemoteObject> callback)
{
    bool joined = false;
    return ProcessCameraSessions(networkId, callback, joined);
}

uint32_t CameraAbilityProcess::ProcessCameraSessions(const std::string& networkId, sptr<IRemoteObject> callback,
                                                     bool& joined)
{
    joined = false;
    sptr<CallbackSkeletonProxy> proxy =
        callback != nullptr ? new (std::nothrow) CallbackSkeletonProxy(callback) : nullptr;
    if (proxy == nullptr) {
        TNDR_SERVICE_LOGE("callback is null");
        return 0;
    }
    std::shared_ptr<CameraProcessState> existing = QueryCameraProcess(networkId);
    if (existing != nullptr) {
        // A second request for the same peer joins the running collaboration.
        TNDR_SERVICE_LOGE("already being processed here");
        DFX::ReportSessionSetup(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, networkId);
        joined = true;
        return existing->GetCollaborationId();
    }

    TNDR_SERVICE_LOGI("new request, save process info");
    uint32_t collaborationId = TandraServiceUtils::ObtainIdleCollaborationId();
    auto state = std::make_shared<CameraProcessState>(collaborationId, networkId, proxy);
    if (!AddCameraProcess(collaborationId, state)) {
        DFX::ReportSessionSetup(TNDR_DFX_SITE, DFX::StageRes::FAILED, ERR_INVALID_PARAM, networkId);
        TNDR_SERVICE_LOGE("AddCameraProcess failed.");
        return 0;
    }
    if (RegistDeathRecipientByCollaborationId(collaborationId, HostDeathRecipient::DEATH_KIND_REQUESTER, callback,
                                              state) != ERR_OK) {
        EraseCameraProcess(collaborationId);
        TNDR_SERVICE_LOGE("AddDeathRecipient for Host failed.");
        return 0;
    }
    DFX::ReportSessionSetup(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, networkId);
    return collaborationId;
}

int32_t CameraAbilityProcess::SendTakePhotoReq(sptr<DeviceInfo> deviceInfo, uint32_t collaborationId,
                                               sptr<LocalInfo> localInfo, sptr<AbilityFilter> abilityFilter)
{
    if (deviceInfo == nullptr || localInfo == nullptr || abilityFilter == nullptr ||
        deviceInfo->GetDeviceNetworkId().empty() || deviceInfo->GetDeviceUdid().empty()) {
        ProcessPhotoEventCommand(ERR_INVALID_PARAM, collaborationId, MSG_ERRORCODE);
        return ERR_INVALID_PARAM;
    }
    const std::string networkId = deviceInfo->GetDeviceNetworkId();
    const std::string collIdStr = UIntToString(collaborationId);
    const std::string sessionName = collIdStr + "-" + networkId;
    TNDR_SERVICE_LOGI(
        "networkId = %{public}s,  abilityTypeStr = %{public}s,collIdStr = %{public}s, "
        "localDeviceId =%{public}s",
        networkId.c_str(), abilityFilter->GetAbilityType().c_str(), collIdStr.c_str(),
        localInfo->GetLocalDeviceId().c_str());
    DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                          DFX::StageRes::BEGIN, 0, DFX::BizState::BEGIN);

    std::string peerUdid = deviceInfo->GetDeviceUdid();
    std::string commandText = GenerateTakePhotoReqCommand(peerUdid, abilityFilter, localInfo);
    auto serviceInfo =
        std::make_shared<ServiceInfo>(SERVICE_TYPE_CAMERA, SESSION_TYPE_CONTROL, sessionName, std::move(commandText));
    auto [result, sessionId] =
        SessionManager::CollaborationToDeviceByCtrlSession(localInfo->GetLocalDeviceId(), networkId, serviceInfo);
    TNDR_SERVICE_LOGI("collbyCtrlSession ret: %{public}d, id: %{public}d.", result, sessionId);

    // A cancel while the session was being opened has already ended the collaboration: the
    // session must not outlive it.
    if (IsEnded(*this, collaborationId)) {
        TNDR_SERVICE_LOGI("already cancel, should stop session");
        DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_REQUEST, DFX::SerCollBizStage::REQUEST_SENT,
                              DFX::StageRes::CANCEL, 0, DFX::BizState::END);
        StopSessionOfEndedCollaboration(sessionId, networkId);
        return result;
    }
    if (result != ERR_OK) {
        ProcessPhotoEventCommand(static_cast<uint32_t>(result), collaborationId, MSG_ERRORCODE);
        HandleSendTakePhotoReqError(result, networkId, sessionName);
        return result;
    }
    if (!AddSessionId(collaborationId, sessionId)) {
        TNDR_SERVICE_LOGE("AddSessionId for Host failed.");
        ProcessPhotoEventCommand(ERR_INVALID_PARAM, collaborationId, MSG_ERRORCODE);
        return ERR_INVALID_PARAM;
    }
    // Every ending marks the record finished before it stops the waits and erases the session
    // id. With the wait registered first, an ending that this check misses comes later and
    // stops the wait; one that it sees may have looked for the session id too early, so the
    // session is stopped here.
    std::shared_ptr<Pending<int32_t>> firstAnswer = ObtainImagePending(collaborationId, WAIT_CODE_FIRST_ANSWER);
    if (IsEnded(*this, collaborationId)) {
        TNDR_SERVICE_LOGI("already cancel, should stop session");
        DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_REQUEST, DFX::SerCollBizStage::REQUEST_SENT,
                              DFX::StageRes::CANCEL, 0, DFX::BizState::END);
        EraseImagePending(PendingKey(collaborationId, WAIT_CODE_FIRST_ANSWER));
        EraseSessionId(collaborationId);
        StopSessionOfEndedCollaboration(sessionId, networkId);
        return result;
    }
    MeshlineManager::GetInstance().PublishServiceState(networkId, frameworkName_, "", SERVICE_STATE_CONNECTED);

    int32_t waitResult =
        GetTimeoutWaitCode(collaborationId, WAIT_CODE_FIRST_ANSWER, FIRST_ANSWER_WAIT_SECONDS, firstAnswer);
    TNDR_SERVICE_LOGI("TimeoutWait result = %{public}d", waitResult);
    return waitResult;
}

void CameraAbilityProcess::HandleSendTakePhotoReqError(int32_t errorCode, const std::string& networkId,
                                                       const std::string& sessionName)
{
    if (errorCode == ERR_WAIT_TIMEOUT) {
        DFX::ReportRequestError(TNDR_DFX_SITE, DFX::StageRes::FAILED, ERR_DATA_CHANNEL_TIMEOUT, networkId, sessionName);
    } else if (errorCode == ERR_PEER_UNAVAILABLE) {
        DFX::ReportRequestError(TNDR_DFX_SITE, DFX::StageRes::CANCEL, 0, networkId, sessionName);
    } else {
        DFX::ReportRequestError(TNDR_DFX_SITE, DFX::StageRes::FAILED, errorCode, networkId, sessionName);
    }
}

std::string CameraAbilityProcess::UIntToString(uint32_t value)
{
    constexpr size_t BUFFER_SIZE = 12;  // 11 digits and the terminator
    char buffer[BUFFER_SIZE] = {0};
    int written = std::snprintf(buffer, BUFFER_SIZE, "%011u", value);
    if (written < 0 || static_cast<size_t>(written) >= BUFFER_SIZE) {
        TNDR_SERVICE_LOGE("Convert int to string is failed");
        return std::string();
    }
    return std::string(buffer, static_cast<size_t>(written));
}

}  // namespace Tandra
}  // namespace QUEX
