// The take-photo command's life: Execute (pre-empting a running collaboration, starting the
// camera ability, posting the channel opening) and Release (taking it all down and telling the
// connection manager that the service is free).
#include "take_photo_command.h"

#include <chrono>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "camera_meshline_constants.h"
#include "camera_result_codes.h"
#include "meshline_manager.h"
#include "session_manager.h"
#include "soft_bus_adapter.h"
#include "start_ability_adapter.h"
#include "take_photo_command_callbacks.h"
#include "tandra_dfx.h"
#include "vex_clock.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr auto CONFLICT_WAIT = std::chrono::seconds(5);
// Lets the pre-empted collaboration's camera application go before ours starts.
constexpr auto AFTER_PREEMPT_PAUSE = std::chrono::milliseconds(500);
constexpr int32_t ERR_CAMERA_DIED = 461440992;
const char* const EVENT_IMAGE_PREVIEW_CANCEL = "imagePreviewCancel";
const char* const START_ABILITY_CALLEE = "AMS";
}  // namespace

TakePhotoCommand::TakePhotoCommand(std::shared_ptr<StartAbilityParam> startAbilityParam)
    : startAbilityParam_(std::move(startAbilityParam))
{
}

TakePhotoCommand::~TakePhotoCommand()
{
    // The connection manager may still hold these; notices after this point are dropped.
    if (serviceStateCallback_ != nullptr) {
        serviceStateCallback_->Detach();
    }
    if (disconnectCallback_ != nullptr) {
        disconnectCallback_->Detach();
    }
    if (applyResultCallback_ != nullptr) {
        applyResultCallback_->Detach();
    }
}

int32_t TakePhotoCommand::Execute(int collaborationSessionId)
{
    TNDR_SERVICE_LOGI("collaborationSessionId = %{public}d", collaborationSessionId);
    if (!SoftBusAdapter::IsWifiActive()) {
        TNDR_SERVICE_LOGE("wifi not open");
        return ERR_PEER_UNAVAILABLE;
    }
    auto context = std::make_shared<PutPhotoContext>(collaborationSessionId);
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        return ERR_NO_PROCESS;
    }
    if (!process->AddPutPhotoContext(collaborationSessionId, context)) {
        return ERR_CONTEXT_REFUSED;
    }
    // From here on the context is this command's: Release finds and removes it even when
    // Execute fails below.
    collaborationSessionId_ = collaborationSessionId;
    context->SetCameraBundleName(startAbilityParam_->bundleName);
    CtrlSessionInfo session;
    if (SessionManager::GetIncomingSession(collaborationSessionId, session)) {
        sessionName_ = session.sessionName;
        peerNetworkId_ = session.peerNetworkId;
    }
    context->SetSessionName(sessionName_);
    DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::CONFLICT,
                     DFX::StageRes::BEGIN);
    if (IsExistConflict()) {
        serviceStateCallback_ = new ServiceStateChangedCallback(this);
        MeshlineManager::GetInstance().SubscribeServiceState(serviceStateCallback_);
        subscribedServiceState_ = true;
        int32_t result = ProcessDisconnect(startAbilityParam_->localDeviceId);
        if (result != 0) {
            DFX::ReportStageError(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::CONFLICT,
                                  DFX::StageRes::FAILED, result);
            TNDR_SERVICE_LOGE("disconnecte failed");
            return result;
        }
        Clock::SleepFor(AFTER_PREEMPT_PAUSE);
    }
    {
        std::lock_guard<std::mutex> lock(conflictMutex_);
        hasConflict_ = false;
        serviceFreed_ = false;
    }
    DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::CONFLICT,
                     DFX::StageRes::SUCCESS);

    DFX::ReportStageToCall(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::START_ABILITY,
                           DFX::StageRes::BEGIN, 0, START_ABILITY_CALLEE);
    process->ClearCachedEvent(startAbilityParam_->bundleName);
    int32_t result = StartAbilityAdapter::StartAbility(collaborationSessionId, startAbilityParam_);
    if (result != 0) {
        DFX::ReportStageError(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::START_ABILITY,
                              DFX::StageRes::FAILED, result);
        TNDR_SERVICE_LOGE("StartCamera fail");
        return result;
    }
    disconnectCallback_ = new CmdDisConnectCallback(this);
    MeshlineManager::GetInstance().SubscribeNotifyDisconnect(startAbilityParam_->localDeviceId, serviceName_,
                                                             DISCONNECT_EVENT, disconnectCallback_);
    process->SetCollaborationDataInfo(collaborationSessionId, startAbilityParam_->bundleName);
    started_ = true;

    // The opening waits up to 15 s for a grant; holding the command keeps it alive meanwhile
    // even if the host releases it (the opening then sees the camera closed and backs out).
    std::shared_ptr<TakePhotoCommand> self = weak_from_this().lock();
    int32_t addResult = AsynThreadPool::AddAsynTask([this, self, context]() { OpenChannel(context); });
    TNDR_SERVICE_LOGI("open channel task, addResult = %{public}d", addResult);
    return 0;
}

bool TakePhotoCommand::IsExistConflict()
{
    TNDR_SERVICE_LOGI("enter");
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        TNDR_SERVICE_LOGE("cameraProcess is nullptr");
        return false;
    }
    if (process->GetCollaborationDataInfo().second.empty()) {
        TNDR_SERVICE_LOGE("no current task.");
        return false;
    }
    std::lock_guard<std::mutex> lock(conflictMutex_);
    hasConflict_ = true;
    return true;
}

int32_t TakePhotoCommand::ProcessDisconnect(std::string /*peerDeviceId*/)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        TNDR_SERVICE_LOGE("cameraProcess is nullptr");
        return ERR_NO_PROCESS;
    }
    auto [sessionId, bundleName] = process->GetCollaborationDataInfo();
    if (bundleName.empty()) {
        TNDR_SERVICE_LOGE("no current task.");
        return ERR_INVALID_ARGUMENT;
    }
    TNDR_SERVICE_LOGI("collaborationSessionId = %{public}d", sessionId);
    std::shared_ptr<PutPhotoContext> context = process->QueryPutPhotoContext(sessionId);
    if (context == nullptr) {
        TNDR_SERVICE_LOGE("context is nullptr");
        return ERR_INVALID_ARGUMENT;
    }
    std::string event = EVENT_IMAGE_PREVIEW_CANCEL;
    process->ProcessCancelTakePhotoCallBack(CODE_LOCAL_TAKE_PHOTO_CANCELLED, event, bundleName);
    context->ChangeCameraStatus(PutPhotoContext::CAMERA_ENDED);
    process->SendCodeBack(CODE_DISCONNECTED_BEFORE_SEND, sessionId);

    std::unique_lock<std::mutex> lock(conflictMutex_);
    if (!hasConflict_) {
        return 0;
    }
    // The old command's release publishes the service as free; until then the camera is not ours.
    if (Clock::WaitFor(conflictCond_, lock, CONFLICT_WAIT, [this]() { return serviceFreed_; })) {
        lock.unlock();
        MeshlineManager::GetInstance().UnSubscribeServiceState();
        subscribedServiceState_ = false;
        return 0;
    }
    TNDR_SERVICE_LOGI("timeout.");
    return ERR_WAIT_TIMEOUT;
}

void TakePhotoCommand::ServiceStateChangeCallback(std::string& serviceName, int state)
{
    TNDR_SERVICE_LOGI("serviceName %{public}s, state %{public}d.", serviceName.c_str(), state);
    if (serviceName.empty()) {
        TNDR_SERVICE_LOGE("don't notify.");
        return;
    }
    if (serviceName == serviceName_ && state == SERVICE_STATE_FREE) {
        std::lock_guard<std::mutex> lock(conflictMutex_);
        serviceFreed_ = true;
        conflictCond_.notify_one();
    }
    TNDR_SERVICE_LOGI("leave.");
}

void TakePhotoCommand::Release()
{
    TNDR_SERVICE_LOGI("enter");
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        TNDR_SERVICE_LOGE("CameraAbilityProcess is nullptr.");
        return;
    }
    if (softBusSessionId_ == -1) {
        TNDR_SERVICE_LOGI("release softBusSessionId_ == -1");
    }
    std::shared_ptr<PutPhotoContext> context = process->RemovePhotoContext(collaborationSessionId_);
    if (context == nullptr) {
        TNDR_SERVICE_LOGE("RemovePutPhotoContext is nullptr");
        return;
    }
    if (!started_) {
        ReleaseRefused(context);
        return;
    }
    uint32_t cameraStatus = 0;
    {
        std::lock_guard<std::mutex> lock(channelMutex_);
        cameraStatus = context->ChangeCameraStatus(PutPhotoContext::CAMERA_ENDED).second;
    }
    bool alive = context->IsCameraAlive();
    std::pair<int32_t, int32_t> transmitStatus = context->GetTransmitChanelStatus();
    RecordCommandReleaseResult(cameraStatus, alive, transmitStatus);

    bool eraseChannel = process->EraseDataChannelId(collaborationSessionId_);
    context->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_CANCELLED, 0);
    process->Releaselock();
    if (cameraStatus == PutPhotoContext::CAMERA_RUNNING) {
        std::string event = EVENT_IMAGE_PREVIEW_CANCEL;
        std::string bundleName = startAbilityParam_->bundleName;
        int32_t cancelRes = process->ProcessCancelTakePhotoCallBack(CODE_LOCAL_TAKE_PHOTO_CANCELLED, event, bundleName);
        TNDR_SERVICE_LOGI("cancelRes = %{public}d", cancelRes);
    }
    int32_t closeRes = SoftBusAdapter::CloseSoftBusSession(softBusSessionId_);
    process->ClearCollaborationDataInfo();
    MeshlineManager& meshline = MeshlineManager::GetInstance();
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        released_ = true;
        meshline.PublishServiceState(startAbilityParam_->localDeviceId, serviceName_, "", SERVICE_STATE_FREE);
    }
    meshline.UnSubscribeNotifyDisconnect(startAbilityParam_->localDeviceId, serviceName_);
    TNDR_SERVICE_LOGI("release closeRes = %{public}d, eraseChannel = %{public}d", closeRes, eraseChannel ? 1 : 0);
}

void TakePhotoCommand::ReleaseRefused(const std::shared_ptr<PutPhotoContext>& context)
{
    // Nothing was started and nothing published: only what the refused Execute registered goes.
    TNDR_SERVICE_LOGI("release of a refused command");
    context->ChangeCameraStatus(PutPhotoContext::CAMERA_ENDED);
    context->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_CANCELLED, 0);
    if (subscribedServiceState_) {
        // A pre-emption that was not granted in time keeps waiting for nothing otherwise.
        MeshlineManager::GetInstance().UnSubscribeServiceState();
        subscribedServiceState_ = false;
    }
}

void TakePhotoCommand::RecordCommandReleaseResult(uint32_t cameraStatus, bool isCameraAlive,
                                                  std::pair<int, int> transmitStatus)
{
    TNDR_SERVICE_LOGI("cameraStatus %{public}d, IsCameraAlive %{public}d, transStatus %{public}d, code %{public}d",
                      static_cast<int32_t>(cameraStatus), isCameraAlive ? 1 : 0, transmitStatus.first,
                      transmitStatus.second);
    if (cameraStatus == PutPhotoContext::CAMERA_RUNNING) {
        if (isCameraAlive) {
            DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND,
                                  DFX::SerCollBizStage::CAMERA_RUNNING, DFX::StageRes::CANCEL, 0, DFX::BizState::END);
        } else {
            DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND,
                                  DFX::SerCollBizStage::CAMERA_RUNNING, DFX::StageRes::FAILED, ERR_CAMERA_DIED,
                                  DFX::BizState::END);
            TNDR_SERVICE_LOGE("camera died");
        }
        return;
    }
    if (cameraStatus == PutPhotoContext::CAMERA_PUTTING) {
        if (transmitStatus.first == PutPhotoContext::CHANNEL_FAILED) {
            TNDR_SERVICE_LOGI("camera soft bus open fail");
        } else if (transmitStatus.first == PutPhotoContext::CHANNEL_OPENED) {
            TNDR_SERVICE_LOGI("camera soft bus open success");
        } else {
            DFX::ReportPhotoTransfer(TNDR_DFX_SITE, DFX::StageRes::CANCEL, 0, DFX::BizState::END, sessionName_);
        }
    }
}

}  // namespace Tandra
}  // namespace QUEX
