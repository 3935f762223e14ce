// NetDeviceEnv: the device as the daemon runs it: identity and links from the network soft
// bus, Wi-Fi from the state of the link's interface, installed abilities and the launcher from
// the ability manifests, and the daemon's own process as the host service's identity.
// Thread-safety: every operation may be called from any thread (the bus and the launcher are).
#pragma once

#include <unistd.h>

#include "device_context.h"
#include "manifest_ability_launcher.h"
#include "net_soft_bus.h"

namespace QUEX {
namespace Tandra {

class NetDeviceEnv : public DeviceEnv {
public:
    // Both must outlive the env.
    NetDeviceEnv(NetSoftBus& bus, ManifestAbilityLauncher& launcher) : bus_(bus), launcher_(launcher) {}

    DeviceIdentity GetLocalDevice() override { return bus_.GetLocalIdentity(); }
    Vex::Identity GetServiceIdentity() override { return {static_cast<int32_t>(getpid()), static_cast<int32_t>(getuid())}; }
    bool IsWifiActive() override { return bus_.IsWifiActive(); }
    SoftBus& GetSoftBus() override { return bus_; }
    std::vector<AbilityInfo> GetLocalAbilities() override { return launcher_.GetAbilities(); }
    std::vector<PeerDevice> GetPeerDevices() override { return bus_.GetPeerDevices(); }
    AbilityLauncher& GetLauncher() override { return launcher_; }

private:
    NetSoftBus& bus_;
    ManifestAbilityLauncher& launcher_;
};

}  // namespace Tandra
}  // namespace QUEX
