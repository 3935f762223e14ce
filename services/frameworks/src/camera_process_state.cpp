// The requesting side's per-collaboration record and the state machine that decides which of
// the peer's codes it still accepts.
#include "camera_process_state.h"

#include <mutex>
#include <optional>

#include "camera_msg_header.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
// Not produced by this system's peers, but accepted as a final code when it comes.
constexpr uint32_t CODE_RESERVED_FAILURE = 1001201911;
// The range of peer codes that the reduced table knows.
constexpr uint32_t REMOTE_CODE_FIRST = CODE_PHOTO_FAILED;
constexpr uint32_t REMOTE_CODE_LAST = CODE_PHOTO;
constexpr uint32_t STATUS_WAITING = CameraProcessState::STATUS_WAITING;
constexpr uint32_t STATUS_RECEIVING = CameraProcessState::STATUS_RECEIVING;
constexpr uint32_t STATUS_FINISHED = CameraProcessState::STATUS_FINISHED;

bool Move(uint32_t& status, bool allowed, uint32_t next)
{
    if (allowed) {
        status = next;
    }
    return allowed;
}

// The moves of a photo batch that both tables share; nothing for any other code.
std::optional<bool> BatchTransition(uint32_t& status, uint32_t code)
{
    switch (code) {
        case CODE_PHOTO_COUNT:
            // The count travels on both channels; only the first copy is taken.
            return Move(status, status == STATUS_WAITING, STATUS_RECEIVING);
        case CODE_PHOTO:
            return Move(status, status != STATUS_FINISHED, STATUS_RECEIVING);
        case CODE_PHOTO_FAILED:
            return Move(status, status == STATUS_RECEIVING, STATUS_FINISHED);
        case CODE_DISCONNECTED_BEFORE_SEND:
            return Move(status, status == STATUS_WAITING, STATUS_FINISHED);
        default:
            return std::nullopt;
    }
}
}  // namespace

CameraProcessState::CameraProcessState(uint32_t collaborationId, const std::string& networkId,
                                       const sptr<CallbackSkeletonProxy>& callBackObject)
    : collaborationId_(collaborationId), networkId_(networkId), callBackObject_(callBackObject)
{
}

uint32_t CameraProcessState::GetCollaborationId() const
{
    return collaborationId_;
}

uint32_t CameraProcessState::GetStatus() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return status_;
}

void CameraProcessState::SetStatus(uint32_t status)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    status_ = status;
}

std::string CameraProcessState::GetNetworId() const
{
    return networkId_;
}

sptr<CallbackSkeletonProxy> CameraProcessState::GetCallBackObject() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return callBackObject_;
}

sptr<IRemoteObject> CameraProcessState::GetRemoteObject() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return remoteObject_;
}

sptr<IRemoteObject::DeathRecipient> CameraProcessState::GetDeathRecipientObject() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return deathRecipientObject_;
}

void CameraProcessState::SetRemoteObject(const sptr<IRemoteObject>& remoteObject)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    remoteObject_ = remoteObject;
}

void CameraProcessState::SetDeathRecipientObject(const sptr<IRemoteObject::DeathRecipient>& recipient)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    deathRecipientObject_ = recipient;
}

bool CameraProcessState::UpdateProcessState(uint32_t, uint32_t code)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    TNDR_SERVICE_LOGI("code = %{public}u, state = %{public}u", code, status_);
    if (code == CODE_CAMERA_STARTED) {
        TNDR_SERVICE_LOGI("recv camera pull succ code = %{public}u, do nothing", code);
        return true;
    }
    if (std::optional<bool> accepted = BatchTransition(status_, code)) {
        return *accepted;
    }
    switch (code) {
        case CODE_LAST_PHOTO:
        case CODE_CAMERA_APP_FAILURE:
        case CODE_DEVICE_TYPE_REFUSED:
        case CODE_PEER_WIFI_OFF:
        case CODE_CAMERA_DIED:
        case CODE_RESERVED_FAILURE:
        case CODE_DATA_SEND_FAILED:
            // A single photo may come without a count, so the last photo may end a wait too.
            return Move(status_, status_ != STATUS_FINISHED, STATUS_FINISHED);
        default:
            TNDR_SERVICE_LOGE("unknown code, code is %{public}d", code);
            return false;
    }
}

bool CameraProcessState::UpdateRemoteState(uint32_t code)
{
    if (std::optional<bool> accepted = BatchTransition(status_, code)) {
        return *accepted;
    }
    if (code < REMOTE_CODE_FIRST || code > REMOTE_CODE_LAST) {
        TNDR_SERVICE_LOGE("unknown code, code is %{public}d", code);
    }
    return false;
}

}  // namespace Tandra
}  // namespace QUEX
