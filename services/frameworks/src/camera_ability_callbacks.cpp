#include "camera_ability_callbacks.h"

#include "camera_ability_process.h"

namespace QUEX {
namespace Tandra {

int32_t ApplyResultCallback::ApplyResult(std::string first, std::string second, std::string third, int32_t,
                                         int32_t resultCode)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process != nullptr) {
        process->ApplyResourcecallback(first, second, third, static_cast<uint32_t>(resultCode));
    }
    return 0;
}

int32_t DisconncetCallback::OnDisconnected(std::string second, std::string)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        return 0;
    }
    return process->ProcessDisconnect(second);
}

}  // namespace Tandra
}  // namespace QUEX
