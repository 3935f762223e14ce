// Daemon: one device's host service, wired from its pieces. Start brings them up in order
// (state folder, behaviour-event file, ability manifests, device link, the host's device
// context, services, plugin, the link's listening, the applications' socket); Stop takes them
// down in reverse, first ending running collaborations the way a stop would (peers and apps
// told). It is also the link's observer, turning link events into the host's notices.
// Thread-safety: Start and Stop on the main thread; the observer calls come from the link's
// threads and only touch pieces that are safe for that.
#pragma once

#include <memory>
#include <string>

#include "app_registry.h"
#include "daemon_config.h"
#include "daemon_host_service.h"
#include "device_service_impl.h"
#include "ipc_server.h"
#include "manifest_ability_launcher.h"
#include "link_status.h"
#include "meshline_service.h"
#include "net_device_env.h"
#include "net_link_types.h"
#include "net_soft_bus.h"

namespace QUEX {
namespace Tandra {

class Daemon : public LinkObserver {
public:
    explicit Daemon(DaemonConfig config);
    ~Daemon() override;

    // 0 when serving; otherwise *error says what failed and what to do.
    int Start(std::string* error);
    void Stop();

    void OnPeerLinked(const std::string& networkId) override;
    void OnPeerLost(const std::string& networkId) override;
    void OnWifiStateChanged(bool active) override;
    void OnPairingRequested(const KnownDevice& device, const std::string& code) override;

    // The live counts that leak checks and support look at, as one JSON object.
    std::string Diagnostics();

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

private:
    const DaemonConfig config_;
    bool started_ = false;
    bool busStarted_ = false;
    std::unique_ptr<ManifestAbilityLauncher> launcher_;
    std::unique_ptr<NetSoftBus> bus_;
    std::unique_ptr<AppRegistry> apps_;
    Vex::sptr<MeshlineService> meshline_;
    Vex::sptr<DaemonHostService> hostService_;
    Vex::sptr<DeviceServiceImpl> deviceService_;
    Vex::sptr<DaemonBundleMgr> bundleMgr_;
    std::unique_ptr<Vex::IpcServer> ipc_;
};

}  // namespace Tandra
}  // namespace QUEX
