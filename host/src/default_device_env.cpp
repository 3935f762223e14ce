// A device on its own: what the host runs on until a daemon or a test installs real backends.
#include <unistd.h>

#include <climits>

#include "device_context.h"
#include "host_types.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {

// A bus without peers: nothing can be opened, so nothing is ever delivered.
class LoneSoftBus : public SoftBus {
public:
    void SetListener(SoftBusListener*) override {}
    std::pair<int32_t, int32_t> OpenCtrlSession(const std::string& peerNetworkId, const std::string&,
                                                const std::string&) override
    {
        TNDR_HOST_LOGE("no soft bus: cannot reach %{public}s", peerNetworkId.c_str());
        return {HOST_ERR_NO_DEVICE, -1};
    }
    int32_t CloseCtrlSession(int32_t, bool) override { return HOST_ERR_NO_SESSION; }
    bool HasCtrlSession(int32_t) override { return false; }
    int32_t SendCtrlMessage(int32_t, const char*, uint32_t, uint32_t) override { return HOST_ERR_NO_SESSION; }
    std::pair<int32_t, int32_t> OpenDataChannel(const std::string& peerDeviceId, const SessionAttribute&) override
    {
        TNDR_HOST_LOGE("no soft bus: cannot reach %{public}s", peerDeviceId.c_str());
        return {HOST_ERR_NO_DEVICE, -1};
    }
    int32_t CloseDataChannel(int32_t) override { return HOST_ERR_NO_SESSION; }
    int32_t SendDataMessage(int32_t, int32_t, const char*, uint32_t, uint32_t, bool) override
    {
        return HOST_ERR_NO_SESSION;
    }
};

class RefusingLauncher : public AbilityLauncher {
public:
    int32_t StartAbility(int32_t, const StartAbilityParam& param) override
    {
        TNDR_HOST_LOGE("no launcher: cannot start %{public}s", param.bundleName.c_str());
        return HOST_ERR_START_ABILITY;
    }
};

}  // namespace

struct DefaultDeviceEnv::Impl {
    DeviceIdentity identity;
    Vex::Identity service{static_cast<int32_t>(getpid()), static_cast<int32_t>(getuid())};
    LoneSoftBus bus;
    RefusingLauncher launcher;
};

DefaultDeviceEnv::DefaultDeviceEnv() : impl_(new Impl())
{
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof(host) - 1) != 0 || host[0] == '\0') {
        snprintf(host, sizeof(host), "localhost");
    }
    impl_->identity.networkId = std::string("net-") + host;
    impl_->identity.udid = std::string("udid-") + host;
    impl_->identity.deviceType = 0x0E;
    impl_->identity.deviceName = host;
}

DefaultDeviceEnv::~DefaultDeviceEnv() = default;

DeviceIdentity DefaultDeviceEnv::GetLocalDevice()
{
    return impl_->identity;
}

Vex::Identity DefaultDeviceEnv::GetServiceIdentity()
{
    return impl_->service;
}

bool DefaultDeviceEnv::IsWifiActive()
{
    return true;
}

SoftBus& DefaultDeviceEnv::GetSoftBus()
{
    return impl_->bus;
}

std::vector<AbilityInfo> DefaultDeviceEnv::GetLocalAbilities()
{
    return {};
}

std::vector<PeerDevice> DefaultDeviceEnv::GetPeerDevices()
{
    return {};
}

AbilityLauncher& DefaultDeviceEnv::GetLauncher()
{
    return impl_->launcher;
}

}  // namespace Tandra
}  // namespace QUEX
