#include "daemon.h"

#include <limits.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <json/json.h>

#include "collaboration_sessions.h"
#include "device_context.h"
#include "ipc_stats.h"
#include "vex_clock.h"
#include "ipc_skeleton.h"
#include "plugin_loader.h"
#include "process_registry.h"
#include "socket_path.h"
#include "system_ability_manager.h"
#include "vex_log.h"
#include "vex_log_tags.h"
#include "vex_sys_event.h"
#include "vex_sys_event_json_sink.h"

namespace QUEX {
namespace Tandra {

namespace {

// How long a stop waits for the plugin to tell peers and apps that collaborations ended.
constexpr std::chrono::milliseconds STOP_DRAIN{3000};

// The link can carry a collaboration to a peer when that peer is linked and trusted and this
// device's network is up.
class BusLinkStatus : public LinkStatus {
public:
    explicit BusLinkStatus(NetSoftBus& bus) : bus_(bus) {}
    bool CanCarry(const std::string& networkId) override
    {
        if (!bus_.IsWifiActive()) {
            return false;
        }
        for (const PeerDevice& peer : bus_.GetPeerDevices()) {
            if (peer.identity.networkId == networkId || peer.identity.udid == networkId) {
                return true;
            }
        }
        return false;
    }

private:
    NetSoftBus& bus_;
};

}  // namespace

Daemon::Daemon(DaemonConfig config) : config_(std::move(config)) {}

Daemon::~Daemon()
{
    Stop();
}

int Daemon::Start(std::string* error)
{
    started_ = true;
    Vex::SetLogLevel(config_.verbose ? Vex::LOG_DEBUG : Vex::LOG_INFO);
    if (config_.clockSpeedup > 1.0) {
        Vex::Clock::UseScaledTime(config_.clockSpeedup);
    }
    if (!MakeFolder(config_.stateDir, 0700, error)) {
        *error = "state folder: " + *error + " (or pass --state-dir)";
        return 1;
    }
    if (!config_.interfaceName.empty() && if_nametoindex(config_.interfaceName.c_str()) == 0) {
        *error = "no network interface named " + config_.interfaceName +
                 ": `ip link` lists the interfaces; pass the one that carries the links with --interface";
        return 1;
    }
    if (access(config_.pluginPath.c_str(), R_OK) != 0) {
        *error = "plugin library not found at " + config_.pluginPath +
                 ": build the project (cmake --build) or install it, or pass --plugin PATH";
        return 1;
    }

    const std::string bindir = ExecutableDir();
    launcher_ = ManifestAbilityLauncher::Load(config_.abilitiesDir,
                                              {{"bindir", bindir}, {"prefix", bindir + "/.."}}, error);
    if (launcher_ == nullptr) {
        *error = "ability manifests: " + *error + " (fix the file, or pass --abilities DIR)";
        return 1;
    }
    // An ability that ends before it ever connected leaves no connection to drop; its exit is
    // its death all the same.
    launcher_->SetExitObserver([](const ChildExit& exit) { Vex::ProcessRegistry::Get().DeclareDead(exit.pid); });
    // Started abilities find this daemon's socket in their environment.
    setenv("TANDRA_SOCKET", config_.socketPath.c_str(), 1);

    NetBusConfig busConfig;
    busConfig.stateDir = config_.stateDir;
    busConfig.deviceName = config_.deviceName;
    busConfig.deviceType = config_.deviceType;
    busConfig.bindAddress = config_.bindAddress;
    busConfig.port = config_.port;
    busConfig.discoveryPort = config_.discoveryPort;
    busConfig.broadcastAddress = config_.broadcastAddress;
    busConfig.staticPeers = config_.staticPeers;
    busConfig.interfaceName = config_.interfaceName;
    busConfig.trustOnFirstUse = config_.trustOnFirstUse;
    // Photos go on to the applications as raw data.
    busConfig.shareableDataBodies = true;
    bus_ = NetSoftBus::Create(busConfig, error);
    if (bus_ == nullptr) {
        return 1;
    }
    bus_->SetLocalAbilities(launcher_->GetAbilities());
    bus_->SetLinkObserver(this);

    const DeviceIdentity self = bus_->GetLocalIdentity();
    Vex::JsonLinesSinkOptions sinkOptions;
    sinkOptions.device = self.deviceName;
    Vex::SysEventSink sink = Vex::MakeJsonLinesSink(config_.stateDir + "/events.jsonl", sinkOptions, error);
    if (!sink) {
        return 1;
    }
    Vex::SetSysEventSink(sink);
    DeviceContext::Get().InstallEnv(std::make_shared<NetDeviceEnv>(*bus_, *launcher_));

    apps_ = std::make_unique<AppRegistry>(
        [this](const std::string& executable) { return launcher_->BundleForExecutable(executable); });
    meshline_ = MeshlineService::Create(std::make_shared<BusLinkStatus>(*bus_));
    hostService_ = new DaemonHostService(meshline_);
    deviceService_ = new DeviceServiceImpl(*bus_, *apps_, config_.discoveryPort != 0, config_.staticPeers);
    bundleMgr_ = new DaemonBundleMgr(*apps_);
    deviceService_->SetDiagnosticsSource([this]() { return Diagnostics(); });
    auto manager = Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    manager->AddSystemAbility(TANDRA_SA_ID, hostService_);
    manager->AddSystemAbility(TANDRA_DEVICE_SA_ID, deviceService_);
    manager->AddSystemAbility(Vex::BUNDLE_MGR_SERVICE_SYS_ABILITY_ID, bundleMgr_);

    if (PluginLoader::GetLoader().LoadPlugin(config_.pluginPath) != 0) {
        *error = "cannot load the plugin library " + config_.pluginPath +
                 " (the log line above says why): rebuild it or pass --plugin PATH";
        return 1;
    }

    if (bus_->Start(error) != 0) {
        return 1;
    }
    busStarted_ = true;

    if (!PrepareSocketPath(config_.socketPath, error)) {
        return 1;
    }
    ipc_ = Vex::IpcServer::Listen(config_.socketPath, error);
    if (ipc_ == nullptr) {
        *error = "cannot serve applications on " + config_.socketPath + ": " + *error;
        return 1;
    }
    ipc_->SetConnectionObserver([this](const Vex::IpcPeer& peer, bool connected) {
        if (connected) {
            apps_->OnConnected(peer.pid, peer.uid);
        } else {
            apps_->OnDisconnected(peer.pid);
            hostService_->ForgetCaller(peer.pid);
        }
    });
    TNDR_HOST_LOGI("tandrad ready: device \"%{public}s\" network id %{public}s, link port %{public}u, "
                   "applications on %{public}s",
                   self.deviceName.c_str(), self.networkId.c_str(), static_cast<unsigned>(bus_->GetPort()),
                   config_.socketPath.c_str());
    std::fprintf(stderr, "tandrad: ready: device \"%s\" (%s), link port %u, socket %s\n", self.deviceName.c_str(),
                 self.networkId.c_str(), static_cast<unsigned>(bus_->GetPort()), config_.socketPath.c_str());
    return 0;
}

void Daemon::Stop()
{
    if (!started_) {
        return;
    }
    started_ = false;
    // Collaborations first, while apps and peers can still be told: the requesting apps'
    // collaborations are cancelled as their apps would; camera apps are ended, which the
    // plugin sees as their death and reports to the peer.
    if (hostService_ != nullptr) {
        hostService_->CancelAll();
    }
    if (launcher_ != nullptr) {
        launcher_->TerminateAll();
    }
    Vex::ProcessRegistry::Get().WaitForDeathNotices(STOP_DRAIN);
    DeviceContext::Get().Pool().WaitIdle(STOP_DRAIN);
    if (meshline_ != nullptr) {
        meshline_->Stop();  // anyone still waiting for a decision hears the refusal
    }
    if (ipc_ != nullptr) {
        ipc_->Stop();
        unlink(config_.socketPath.c_str());
    }
    if (bus_ != nullptr) {
        bus_->SetLinkObserver(nullptr);
        if (busStarted_) {
            bus_->Stop();
        }
    }
    DeviceContext::Get().InstallEnv(nullptr);
    auto manager = Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager != nullptr) {
        manager->RemoveSystemAbility(TANDRA_SA_ID);
        manager->RemoveSystemAbility(TANDRA_DEVICE_SA_ID);
        manager->RemoveSystemAbility(Vex::BUNDLE_MGR_SERVICE_SYS_ABILITY_ID);
    }
    Vex::SetSysEventSink(nullptr);
}

std::string Daemon::Diagnostics()
{
    Json::Value counts(Json::objectValue);
    const Vex::IpcStats ipc = Vex::GetIpcStats();
    counts["ipc_connections"] = static_cast<Json::UInt64>(ipc.connections);
    counts["ipc_exported_handles"] = static_cast<Json::UInt64>(ipc.exportedHandles);
    counts["ipc_proxy_handles"] = static_cast<Json::UInt64>(ipc.proxyHandles);
    counts["apps"] = static_cast<Json::UInt64>(apps_->Count());
    counts["timed_waits"] = static_cast<Json::UInt64>(Vex::Clock::WaitingCount());
    counts["incoming_sessions"] = static_cast<Json::UInt64>(DeviceContext::Get().Sessions().ActiveIncomingCount());
    counts["meshline_tasks"] = static_cast<Json::UInt64>(meshline_->ActiveTaskCount());
    counts["meshline_subscribers"] = static_cast<Json::UInt64>(meshline_->SubscriberCount());
    counts["meshline_callbacks"] = static_cast<Json::UInt64>(meshline_->CallbackCount());
    counts["children"] = static_cast<Json::UInt64>(launcher_->RunningChildren().size());
    counts["tracked_collaborations"] = static_cast<Json::UInt64>(hostService_->TrackedCollaborations());
    counts["pool_busy"] = DeviceContext::Get().Pool().WaitIdle(std::chrono::milliseconds(0)) ? 0 : 1;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, counts);
}

void Daemon::OnPeerLinked(const std::string& networkId)
{
    TNDR_HOST_LOGI("linked to %{public}s", networkId.c_str());
}

void Daemon::OnPeerLost(const std::string& networkId)
{
    TNDR_HOST_LOGI("link to %{public}s lost", networkId.c_str());
    if (meshline_ == nullptr) {
        return;
    }
    // Services name a peer by either id: the requesting side by its network id, the serving
    // side by the UDID its command carried.
    std::string udid;
    for (const KnownDevice& device : bus_->GetKnownDevices()) {
        if (device.identity.networkId == networkId) {
            udid = device.identity.udid;
        }
    }
    meshline_->NotifyPeerLost(networkId, udid);
}

void Daemon::OnWifiStateChanged(bool active)
{
    TNDR_HOST_LOGI("network interface %{public}s is %{public}s", config_.interfaceName.c_str(),
                   active ? "up" : "down");
    if (meshline_ != nullptr) {
        meshline_->NotifyWifiState(active);
    }
    DeviceContext::Get().NotifyWifiStateChanged(active);
}

void Daemon::OnPairingRequested(const KnownDevice& device, const std::string& code)
{
    TNDR_HOST_LOGI("device \"%{public}s\" asks to pair, code %{public}s: confirm with `tandra-photo pair --accept "
                   "%{public}s` if it shows the same code",
                   device.identity.deviceName.c_str(), code.c_str(), device.identity.deviceName.c_str());
}

}  // namespace Tandra
}  // namespace QUEX
