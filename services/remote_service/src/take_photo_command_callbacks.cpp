#include "take_photo_command_callbacks.h"

#include "take_photo_command.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

void TakePhotoCommandCallback::Detach()
{
    std::lock_guard<std::mutex> lock(mutex_);
    command_ = nullptr;
}

int32_t ServiceStateChangedCallback::OnServiceStateChanged(std::string /*first*/, std::string serviceName,
                                                           std::string /*third*/, int32_t state, int32_t /*value*/)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (command_ != nullptr) {
        command_->ServiceStateChangeCallback(serviceName, state);
    }
    return 0;
}

int32_t CmdDisConnectCallback::OnDisconnected(std::string peerDeviceId, std::string /*serviceName*/)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (command_ == nullptr) {
        TNDR_SERVICE_LOGE("command is gone");
        return 0;
    }
    return command_->ProcessDisconnect(peerDeviceId);
}

int32_t CmdApplyResultCallback::ApplyResult(std::string deviceId, std::string serviceName, std::string reason,
                                            int32_t /*value*/, int32_t resultCode)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (command_ != nullptr) {
        command_->ProcessApplyResourceResult(deviceId, serviceName, reason, static_cast<uint32_t>(resultCode));
    }
    return 0;
}

}  // namespace Tandra
}  // namespace QUEX
