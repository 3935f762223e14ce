// Radio state and data-channel closing, from the installed device env.
#include "soft_bus_adapter.h"

#include "device_context.h"

namespace QUEX {
namespace Tandra {

bool SoftBusAdapter::IsWifiActive()
{
    return DeviceContext::Get().Env()->IsWifiActive();
}

int32_t SoftBusAdapter::CloseSoftBusSession(int32_t sessionId)
{
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    return env->GetSoftBus().CloseDataChannel(sessionId);
}

}  // namespace Tandra
}  // namespace QUEX
