// The take-photo command's data channel: apply for the link resources a photo transfer needs,
// wait for the grant, open the channel back to the requester and register it for the senders.
#include <chrono>
#include <new>

#include "bounded_copy.h"
#include "camera_ability_process.h"
#include "camera_meshline_constants.h"
#include "camera_result_codes.h"
#include "meshline_manager.h"
#include "session_manager.h"
#include "soft_bus_adapter.h"
#include "take_photo_command.h"
#include "take_photo_command_callbacks.h"
#include "tandra_dfx.h"
#include "vex_clock.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr auto APPLY_WAIT = std::chrono::seconds(15);
constexpr int32_t RESOURCE_GRANTED = 1004720001;
constexpr int32_t ERR_ATTR_COPY_FAILED = 461374444;

// What a photo transfer asks of the link.
constexpr int MIN_BANDWIDTH = 0x1400000;
constexpr int MAX_LATENCY = 19000;
constexpr int MIN_LATENCY = 2000;
constexpr int MAX_WAIT_TIME = 10;
constexpr int MAX_BUFFER = 0x8000000;
constexpr int MAX_IDLE_TIME = 19000;
constexpr int FIRST_PACKAGE = 0x400000;
constexpr int TRANS_RELIABILITY = 1;

// Peer-to-peer first, then the access point's 5 GHz and 2.4 GHz bands.
constexpr LinkType TAKE_PHOTO_LINK_TYPES[LINK_TYPE_MAX] = {
    LINK_TYPE_WIFI_P2P, LINK_TYPE_WIFI_WLAN_5G, LINK_TYPE_WIFI_WLAN_2G, LINK_TYPE_NONE, LINK_TYPE_NONE,
    LINK_TYPE_NONE,     LINK_TYPE_NONE,         LINK_TYPE_NONE,         LINK_TYPE_NONE,
};
}  // namespace

int32_t TakePhotoCommand::OpenChannel(std::shared_ptr<PutPhotoContext> context)
{
    const std::string peer = startAbilityParam_->localDeviceId;
    DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::BEGIN, 0, peer);
    SessionAttribute attr{};
    int32_t result = IniandApplytResource(attr, peer);
    if (result != 0) {
        return result;
    }
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::FAILED, ERR_NO_PROCESS, peer);
        return ERR_NO_PROCESS;
    }
    auto [openResult, sessionId] = SessionManager::OpenDataTransmitChannel(peer, attr);
    {
        std::lock_guard<std::mutex> lock(channelMutex_);
        if (openResult == 0 && context->GetCameraStatus() == PutPhotoContext::CAMERA_ENDED) {
            TNDR_SERVICE_LOGE("already PROCESSED, release %{public}d", SoftBusAdapter::CloseSoftBusSession(sessionId));
            return ERR_CAMERA_CLOSED;
        }
        if (SessionManager::GetCollaborationSession(context->GetCollaborationSessionId())) {
            softBusSessionId_ = sessionId;
        }
    }
    if (openResult != 0) {
        context->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_FAILED, openResult);
        // Senders waiting for the channel learn of the failure now, not after their time-out.
        process->Releaselock();
        DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::FAILED, openResult, peer);
        return openResult;
    }
    DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::SUCCESS, 0, peer);
    MeshlineManager::GetInstance().PublishServiceState(peer, serviceName_, "", SERVICE_STATE_CONNECTED);
    context->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_OPENED, 0);
    bool added = false;
    {
        // Release may have run since the check above; it erased no entry then, so registering
        // the channel now would leave it behind. Release closed the channel if it knew it.
        std::lock_guard<std::mutex> lock(channelMutex_);
        if (context->GetCameraStatus() == PutPhotoContext::CAMERA_ENDED) {
            int32_t closed = softBusSessionId_ == sessionId ? 0 : SoftBusAdapter::CloseSoftBusSession(sessionId);
            process->Releaselock();
            TNDR_SERVICE_LOGE("released while opening, close %{public}d", closed);
            return ERR_CAMERA_CLOSED;
        }
        added = process->AddDataChannelId(context->GetCollaborationSessionId(), sessionId);
    }
    process->Releaselock();
    if (!added) {
        TNDR_SERVICE_LOGE("add dataChannel fail");
        return ERR_CHANNEL_NOT_RECORDED;
    }
    return 0;
}

int32_t TakePhotoCommand::IniandApplytResource(SessionAttribute& attr, std::string /*peerDeviceId*/)
{
    if (InitSessionAttributeForTakePhoto(attr) != 0) {
        DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::FAILED, ERR_ATTR_COPY_FAILED,
                           startAbilityParam_->localDeviceId);
        return ERR_ATTR_COPY;
    }
    int32_t result = ApplyResource();
    if (result != 0) {
        DFX::ReportChannel(TNDR_DFX_SITE, DFX::StageRes::FAILED, result, startAbilityParam_->localDeviceId);
        return result;
    }
    return 0;
}

int32_t TakePhotoCommand::ApplyResource()
{
    sptr<ResourceRequest> request = new (std::nothrow) ResourceRequest();
    sptr<CommunicationRequest> communication =
        new (std::nothrow) CommunicationRequest(MIN_BANDWIDTH, MAX_LATENCY, MIN_LATENCY, MAX_WAIT_TIME, MAX_BUFFER);
    sptr<HardwareRequest> hardware = new (std::nothrow) HardwareRequest(HardwareType::CAMERA, true);
    if (request == nullptr || communication == nullptr || hardware == nullptr) {
        TNDR_SERVICE_LOGE("failed to new ResourceRequest or new CommunicationRequest or new HardwareRequest.");
        return ERR_INVALID_ARGUMENT;
    }
    communication->SetMaxIdleTime(MAX_IDLE_TIME);
    communication->SetFirstPackge(FIRST_PACKAGE);
    communication->SetTransReliability(TRANS_RELIABILITY);
    communication->SetDataType(dataType_);
    request->SetCommunicationRequest(communication);
    request->SetRemoteHardwareList({hardware});

    applyResultCallback_ = new CmdApplyResultCallback(this);
    int32_t result = MeshlineManager::GetInstance().ApplyAdvancedResource(
        startAbilityParam_->localDeviceId, FRAMEWORK_NAME, request, applyResultCallback_);
    if (result != 0) {
        TNDR_SERVICE_LOGE("failed to meshline param check.");
        return result;
    }
    std::unique_lock<std::mutex> lock(applyMutex_);
    // Not reset first: a grant that arrived before the wait began still counts.
    Clock::WaitFor(applyCond_, lock, APPLY_WAIT, [this]() { return applyResult_ != 0; });
    if (applyResult_ == RESOURCE_GRANTED) {
        return 0;
    }
    TNDR_SERVICE_LOGE("failed to apply resource.");
    return ERR_APPLY_RESOURCE_FAILED;
}

int32_t TakePhotoCommand::InitSessionAttributeForTakePhoto(SessionAttribute& attr)
{
    attr = SessionAttribute{};
    attr.dataType = TYPE_BYTES;
    attr.linkTypeNum = LINK_TYPE_MAX;
    if (BoundedCopy(attr.linkType, sizeof(attr.linkType), TAKE_PHOTO_LINK_TYPES, sizeof(TAKE_PHOTO_LINK_TYPES)) !=
        EOK) {
        return ERR_ATTR_COPY_FAILED;
    }
    return 0;
}

void TakePhotoCommand::ProcessApplyResourceResult(std::string deviceId, std::string serviceName, std::string reason,
                                                  uint32_t result)
{
    TNDR_SERVICE_LOGI("result is %{public}u, reason is %{public}s.", result, reason.c_str());
    if (deviceId.empty() || serviceName.empty()) {
        TNDR_SERVICE_LOGE("param is empty.");
        return;
    }
    // Grants for other applicants reach every subscriber; only ours ends the wait.
    if (deviceId != startAbilityParam_->localDeviceId || serviceName != serviceName_) {
        return;
    }
    std::lock_guard<std::mutex> lock(applyMutex_);
    applyResult_ = static_cast<int32_t>(result);
    applyCond_.notify_one();
    TNDR_SERVICE_LOGI("result = %{public}d", applyResult_);
}

}  // namespace Tandra
}  // namespace QUEX
