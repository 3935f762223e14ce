// Starts go through the installed env's launcher.
#include "start_ability_adapter.h"

#include "device_context.h"
#include "host_types.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

int32_t StartAbilityAdapter::StartAbility(int32_t collaborationSessionId, std::shared_ptr<StartAbilityParam> param)
{
    if (param == nullptr) {
        TNDR_HOST_LOGE("nothing to start");
        return HOST_ERR_INVALID_PARAM;
    }
    TNDR_HOST_LOGI("start %{public}s/%{public}s for session %{public}d", param->bundleName.c_str(),
                   param->abilityName.c_str(), collaborationSessionId);
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    return env->GetLauncher().StartAbility(collaborationSessionId, *param);
}

}  // namespace Tandra
}  // namespace QUEX
