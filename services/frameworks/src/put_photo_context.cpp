// The serving side's per-command record: who is putting images, whether the camera
// application lives, and how far the camera and the data channel have got.
#include "put_photo_context.h"

#include <mutex>

#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

PutPhotoContext::PutPhotoContext(int32_t collaborationSessionId) : collaborationSessionId_(collaborationSessionId) {}

void PutPhotoContext::SetCameraBundleName(const std::string& bundleName)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    cameraBundleName_ = bundleName;
}

std::string PutPhotoContext::GetCameraBundleName() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return cameraBundleName_;
}

void PutPhotoContext::SetSessionName(const std::string& sessionName)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    sessionName_ = sessionName;
}

std::string PutPhotoContext::GetSessionName() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return sessionName_;
}

void PutPhotoContext::SetPid(int32_t pid)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    pid_ = pid;
}

void PutPhotoContext::SetUid(int32_t uid)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    uid_ = uid;
}

int32_t PutPhotoContext::GetPid() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return pid_;
}

int32_t PutPhotoContext::GetUid() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return uid_;
}

void PutPhotoContext::SetCameraAlive(bool alive)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    cameraAlive_ = alive;
}

bool PutPhotoContext::IsCameraAlive() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return cameraAlive_;
}

std::pair<bool, uint32_t> PutPhotoContext::ChangeCameraStatus(uint32_t newStatus)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    const uint32_t found = cameraStatus_;
    TNDR_SERVICE_LOGI("change cameraChanelStatus from %{public}u to %{public}u", found, newStatus);
    switch (newStatus) {
        case CAMERA_PUTTING:
        case CAMERA_REMOTE_CANCELLED:
            // Putting images and a remote cancel exclude each other: only a running camera
            // may enter either.
            if (found != CAMERA_RUNNING) {
                return {false, found};
            }
            break;
        case CAMERA_ENDED:
            break;
        default:
            TNDR_SERVICE_LOGE("unhandled cameraStatus=%{public}u", newStatus);
            return {false, found};
    }
    cameraStatus_ = newStatus;
    return {true, found};
}

uint32_t PutPhotoContext::GetCameraStatus() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return cameraStatus_;
}

void PutPhotoContext::ChangeTransmitChanelStatus(int32_t status, int32_t code)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    TNDR_SERVICE_LOGI("change transmitChanelStatus from %{public}d to %{public}d", transmitChanelStatus_, status);
    transmitChanelStatus_ = status;
    transmitCode_ = code;
}

std::pair<int32_t, int32_t> PutPhotoContext::GetTransmitChanelStatus() const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return {transmitChanelStatus_, transmitCode_};
}

}  // namespace Tandra
}  // namespace QUEX
