// The requesting side's timed waits for the peer (keyed by collaboration and wait code), and
// the translation of failure codes into what the application's UI is told.
#include <cinttypes>
#include <cstdio>

#include "camera_ability_process.h"
#include "camera_app_callback.h"
#include "camera_result_codes.h"
#include "session_manager.h"
#include "tandra_dfx.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr uint32_t ERR_PEER_NO_ANSWER = 2012;
constexpr uint32_t ERR_REMOTE_REFUSED = 3867803653U;

constexpr uint32_t UI_PEER_UNAVAILABLE = 1001202004;
constexpr uint32_t UI_NO_ANSWER = 1001202008;
constexpr uint32_t UI_TRANSFER_FAILED = 1001202009;
constexpr uint32_t UI_WIFI_OFF = 1001202005;
constexpr uint32_t UI_LINK_LOST = 1001202011;
constexpr uint32_t UI_GENERAL = 1001202002;

}  // namespace

std::string CameraAbilityProcess::PendingKey(uint32_t collaborationId, uint32_t code)
{
    char key[32] = {0};
    (void)std::snprintf(key, sizeof(key), "%011" PRIu32 "%011" PRIu32, collaborationId, code);
    return std::string(key);
}

std::shared_ptr<Pending<int32_t>> CameraAbilityProcess::ObtainImagePending(uint32_t collaborationId, uint32_t code)
{
    TNDR_SERVICE_LOGI("enter");
    const std::string key = PendingKey(collaborationId, code);
    std::unique_lock<std::shared_mutex> lock(pendingMutex_);
    const auto it = pendingWaits_.find(key);
    if (it != pendingWaits_.end()) {
        TNDR_SERVICE_LOGI("pending exist");
        return it->second;
    }
    auto pending = std::make_shared<Pending<int32_t>>();
    pendingWaits_.emplace(key, pending);
    TNDR_SERVICE_LOGI("pending not exist");
    return pending;
}

std::shared_ptr<Pending<int32_t>> CameraAbilityProcess::EraseImagePending(const std::string& key)
{
    std::unique_lock<std::shared_mutex> lock(pendingMutex_);
    const auto it = pendingWaits_.find(key);
    if (it == pendingWaits_.end()) {
        TNDR_SERVICE_LOGI("pending not exist");
        return nullptr;
    }
    std::shared_ptr<Pending<int32_t>> pending = std::move(it->second);
    pendingWaits_.erase(it);
    return pending;
}

bool CameraAbilityProcess::SetTimeoutContext(uint32_t collaborationId, uint32_t code)
{
    TNDR_SERVICE_LOGI("enter, code is %{public}d", code);
    std::shared_ptr<Pending<int32_t>> pending = EraseImagePending(PendingKey(collaborationId, code));
    if (pending == nullptr) {
        TNDR_SERVICE_LOGE("find timeoutWaitContext failed");
        return false;
    }
    pending->Stop();
    return true;
}

void CameraAbilityProcess::ReleaseTimeoutLock(uint32_t collaborationId, const std::list<uint32_t>& codes)
{
    for (const uint32_t code : codes) {
        const bool found = SetTimeoutContext(collaborationId, code);
        TNDR_SERVICE_LOGI("result = %{public}d, code = %{public}d.", found ? 1 : 0, code);
    }
}

int32_t CameraAbilityProcess::GetTimeoutWaitCode(uint32_t collaborationId, uint32_t code, uint32_t seconds)
{
    return GetTimeoutWaitCode(collaborationId, code, seconds, ObtainImagePending(collaborationId, code));
}

int32_t CameraAbilityProcess::GetTimeoutWaitCode(uint32_t collaborationId, uint32_t code, uint32_t seconds,
                                                 const std::shared_ptr<Pending<int32_t>>& pending)
{
    TNDR_SERVICE_LOGI("enter, TIME_OUT code is %{public}d", code);
    if (pending == nullptr) {
        TNDR_SERVICE_LOGE("pending is null");
        ProcessPhotoEventCommand(ERR_INVALID_PARAM, collaborationId, MSG_ERRORCODE);
        return ERR_INVALID_PARAM;
    }
    // A photo larger than a link can carry within the period is still on its way while its
    // bytes arrive: the photo wait only ends when a whole period passes without any.
    const std::string peer = code == CODE_LAST_PHOTO ? PeerNetworkIdOf(collaborationId) : std::string();
    uint64_t received = peer.empty() ? 0 : SessionManager::DataBytesReceived(peer);
    int32_t status = pending->Start(static_cast<int32_t>(seconds)).first;
    while (status == PENDING_TIMEOUT && !peer.empty()) {
        const uint64_t now = SessionManager::DataBytesReceived(peer);
        if (now == received) {
            break;
        }
        TNDR_SERVICE_LOGI("photo bytes still arriving (%{public}" PRIu64 " more), waiting on", now - received);
        received = now;
        status = pending->Start(static_cast<int32_t>(seconds)).first;
    }
    if (status == ERR_INVALID_PARAM) {
        ProcessPhotoEventCommand(ERR_INVALID_PARAM, collaborationId, MSG_ERRORCODE);
    } else if (status == PENDING_TIMEOUT && code == CODE_PHOTO_COUNT) {
        ProcessPhotoEventCommand(ERR_PEER_NO_ANSWER, collaborationId, MSG_ERRORCODE);
        DFX::ReportStageState(TNDR_DFX_SITE, DFX::BizScene::RECEIVE_RESULT, DFX::SerCollBizStage::CAMERA_RUNNING,
                              DFX::StageRes::CANCEL, 0, DFX::BizState::END);
    } else if (status == PENDING_TIMEOUT && code == CODE_LAST_PHOTO) {
        ProcessPhotoEventCommand(ERR_WAIT_TIMEOUT, collaborationId, MSG_ERRORCODE);
    }
    // A record that timed out stays registered: only SetTimeoutContext removes it.
    return status;
}

uint32_t CameraAbilityProcess::GetErrorCode(uint32_t status, uint32_t code)
{
    TNDR_CALLBACK_LOGI("Notify UI error code is %{public}d", code);
    switch (code) {
        case ERR_PEER_UNAVAILABLE:
        case CODE_PEER_WIFI_OFF:
            return UI_PEER_UNAVAILABLE;
        case ERR_PEER_NO_ANSWER:
            return UI_NO_ANSWER;
        case CODE_PHOTO_FAILED:
            return UI_TRANSFER_FAILED;
        case CODE_LOCAL_WIFI_SHUTDOWN:
            return UI_WIFI_OFF;
        case CODE_LOCAL_CTRL_SHUTDOWN:
        case ERR_REMOTE_REFUSED:
            return UI_LINK_LOST;
        default:
            // Photos were already arriving: the transfer broke off.
            return status == CameraProcessState::STATUS_RECEIVING ? UI_TRANSFER_FAILED : UI_GENERAL;
    }
}

std::string CameraAbilityProcess::PeerNetworkIdOf(uint32_t collaborationId)
{
    std::shared_ptr<CameraProcessState> state = QueryCameraProcess(collaborationId);
    return state != nullptr ? state->GetNetworId() : std::string();
}

void CameraAbilityProcess::Releaselock()
{
    std::lock_guard<std::mutex> lock(dataChannelMutex_);
    dataChannelCond_.notify_one();
}

}  // namespace Tandra
}  // namespace QUEX
