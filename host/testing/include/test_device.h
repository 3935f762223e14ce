// TestDevice: one device for a component test. Constructing it installs test backends into
// the process's DeviceContext (restored on destruction): a settable identity and Wi-Fi state,
// local abilities and peer devices, a RecordingLauncher and a ScriptedPeer as the soft bus.
// It also sets the platform's foreground ability and the bundle names of uids. Typical use:
//
//   TestDevice device;                           // identity DefaultIdentity()
//   device.AddPeerDevice(TestDevice::PeerIdentity(), {cameraAbility});
//   device.SetForegroundApp("com.example.photo");
//   device.SetBundleName(20010001, "com.example.photo");
//   ... drive the plugin; device.Peer() records what was sent; device.Launcher() the starts.
//
// To override one operation of the env, wrap it: DeviceEnvWrapper around device.EnvPtr(), then
// DeviceContext::Get().InstallEnv(wrapper) (TestDevice's destructor still restores the env
// that was installed before it).
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device_context.h"
#include "recording_launcher.h"
#include "scripted_peer.h"

namespace QUEX {
namespace Tandra {
namespace Testing {

// The env that TestDevice installs; everything settable.
class TestDeviceEnv : public DeviceEnv {
public:
    explicit TestDeviceEnv(DeviceIdentity identity);

    DeviceIdentity GetLocalDevice() override;
    Vex::Identity GetServiceIdentity() override;
    bool IsWifiActive() override;
    SoftBus& GetSoftBus() override { return peer_; }
    std::vector<AbilityInfo> GetLocalAbilities() override;
    std::vector<PeerDevice> GetPeerDevices() override;
    AbilityLauncher& GetLauncher() override { return launcher_; }

    void SetLocalDevice(const DeviceIdentity& identity);
    void SetServiceIdentity(Vex::Identity identity);
    // Only changes the state; TestDevice::SetWifiActive also notifies.
    void SetWifiState(bool active);
    void SetLocalAbilities(std::vector<AbilityInfo> abilities);
    void AddLocalAbility(const AbilityInfo& ability);
    void SetPeerDevices(std::vector<PeerDevice> peers);
    void AddPeerDevice(const PeerDevice& peer);
    void RemovePeerDevice(const std::string& networkId);

    ScriptedPeer& Peer() { return peer_; }
    RecordingLauncher& Launcher() { return launcher_; }

private:
    mutable std::mutex mutex_;
    DeviceIdentity identity_;
    Vex::Identity serviceIdentity_;
    bool wifiActive_ = true;
    std::vector<AbilityInfo> localAbilities_;
    std::vector<PeerDevice> peers_;
    RecordingLauncher launcher_;
    ScriptedPeer peer_;  // last: its threads stop before the rest goes
};

class TestDevice {
public:
    // networkId "LOCALNETWORKID0001", udid "LOCALUDID0001", type 0x0E, name "local-phone".
    static DeviceIdentity DefaultIdentity();
    // networkId "PEERNETWORKID0001", udid "PEERUDID0001", type 0x11, name "peer-tablet".
    static DeviceIdentity PeerIdentity();

    explicit TestDevice(DeviceIdentity identity = DefaultIdentity());
    ~TestDevice();
    TestDevice(const TestDevice&) = delete;
    TestDevice& operator=(const TestDevice&) = delete;

    DeviceIdentity Identity();
    // The host service's IPC identity (default: the test process's real pid and uid).
    void SetServiceIdentity(int32_t pid, int32_t uid);

    // Turning Wi-Fi off tells every EventListener OnWiFiShutDown, on the calling thread.
    void SetWifiActive(bool active);
    bool IsWifiActive();

    // The platform's foreground ability (AbilityManagerClient::SetTopAbility); empty bundle
    // name: nothing in the foreground.
    void SetForegroundApp(const std::string& bundleName, const std::string& abilityName = "MainAbility");
    // The bundle of a uid (the platform's BundleMgrService, system ability 401).
    void SetBundleName(int32_t uid, const std::string& bundleName);

    void AddLocalAbility(const AbilityInfo& ability);
    void AddPeerDevice(const DeviceIdentity& identity, std::vector<AbilityInfo> abilities = {});
    void RemovePeerDevice(const std::string& networkId);

    ScriptedPeer& Peer() { return env_->Peer(); }
    RecordingLauncher& Launcher() { return env_->Launcher(); }
    TestDeviceEnv& Env() { return *env_; }
    std::shared_ptr<TestDeviceEnv> EnvPtr() { return env_; }

private:
    std::shared_ptr<TestDeviceEnv> env_;
    std::shared_ptr<DeviceEnv> previous_;
};

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
