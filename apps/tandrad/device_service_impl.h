// DeviceServiceImpl: the daemon's device service for applications: registration against the
// app registry (the caller is who the socket says it is), the devices the link knows with
// their trust and cameras, and pairing through the link.
// Thread-safety: operations run on IPC threads, several at once; the registry and bus are
// safe for that.
#pragma once

#include <functional>

#include "app_registry.h"
#include "device_service.h"
#include "net_soft_bus.h"

namespace QUEX {
namespace Tandra {

class DeviceServiceImpl : public DeviceServiceStub {
public:
    // discoveryOn: broadcast discovery is configured; staticPeers: the configured host:port peers.
    DeviceServiceImpl(NetSoftBus& bus, AppRegistry& apps, bool discoveryOn, std::vector<std::string> staticPeers)
        : bus_(bus), apps_(apps), discoveryOn_(discoveryOn), staticPeers_(std::move(staticPeers))
    {
    }

    AppRegistration RegisterApp(bool foreground) override;
    int32_t SetForeground(bool foreground) override;
    DeviceList ListDevices() override;
    PairingAnswer Pair(const std::string& device) override;
    PairingAnswer ConfirmPair(const std::string& device, bool accept) override;
    PairingAnswer Unpair(const std::string& device) override;
    std::string Diagnostics() override;
    // What Diagnostics reports beyond the link and the apps; set once by the daemon.
    void SetDiagnosticsSource(std::function<std::string()> source) { diagnostics_ = std::move(source); }

private:
    DeviceEntry SelfEntry();
    // Which ways of finding devices found nothing, so that a user whose network drops
    // broadcast knows to name the peer.
    std::string DiscoveryNote(const std::vector<KnownDevice>& known);

    NetSoftBus& bus_;
    AppRegistry& apps_;
    const bool discoveryOn_;
    const std::vector<std::string> staticPeers_;
    std::function<std::string()> diagnostics_;
};

// The ability type of a camera: a peer offering it can take photos for us.
extern const char* const CAMERA_ABILITY_TYPE;

}  // namespace Tandra
}  // namespace QUEX
