// The device behind the host library. DeviceEnv is everything the host asks of the device it
// runs on: its identity and the host service's own IPC identity, its Wi-Fi state, the soft
// bus, the installed abilities and those of its peers, and the ability launcher.
// DefaultDeviceEnv is a lone device (no peers, Wi-Fi on); DeviceEnvWrapper forwards every
// operation to another env, so a test or the daemon overrides just the operations it needs.
// DeviceContext is the one per process: it holds the installed env, binds its soft bus to the
// host's session layer and owns the host's thread pool.
// Thread-safety: DeviceEnv implementations must allow every operation from any thread at
// any time. DeviceContext's operations may be called from any thread; an env replaced while a
// call is in flight stays alive until that call ends (callers hold a shared reference).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ability_launcher.h"
#include "ability_records.h"
#include "ipc_skeleton.h"
#include "soft_bus.h"
#include "thread_pool.h"

namespace QUEX {
namespace Tandra {

struct DeviceIdentity {
    std::string networkId;
    std::string udid;
    uint32_t deviceType = 0;
    std::string deviceName;
};

// A device this one can reach, with the abilities it has installed.
struct PeerDevice {
    DeviceIdentity identity;
    std::vector<AbilityInfo> abilities;
};

class DeviceEnv {
public:
    DeviceEnv() = default;
    virtual ~DeviceEnv() = default;
    DeviceEnv(const DeviceEnv&) = delete;
    DeviceEnv& operator=(const DeviceEnv&) = delete;

    virtual DeviceIdentity GetLocalDevice() = 0;
    // The IPC identity of the host service process: its workers and soft-bus threads act as it.
    virtual Vex::Identity GetServiceIdentity() = 0;
    virtual bool IsWifiActive() = 0;
    // The bus lives as long as the env.
    virtual SoftBus& GetSoftBus() = 0;
    virtual std::vector<AbilityInfo> GetLocalAbilities() = 0;
    virtual std::vector<PeerDevice> GetPeerDevices() = 0;
    // The launcher lives as long as the env.
    virtual AbilityLauncher& GetLauncher() = 0;
};

// A device alone: no peers (opening sessions or channels fails with HOST_ERR_NO_DEVICE), Wi-Fi
// on, no abilities, a launcher that refuses (HOST_ERR_START_ABILITY). Its identity comes from
// the host name; its service identity is the real process's.
class DefaultDeviceEnv : public DeviceEnv {
public:
    DefaultDeviceEnv();
    ~DefaultDeviceEnv() override;

    DeviceIdentity GetLocalDevice() override;
    Vex::Identity GetServiceIdentity() override;
    bool IsWifiActive() override;
    SoftBus& GetSoftBus() override;
    std::vector<AbilityInfo> GetLocalAbilities() override;
    std::vector<PeerDevice> GetPeerDevices() override;
    AbilityLauncher& GetLauncher() override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

class DeviceEnvWrapper : public DeviceEnv {
public:
    explicit DeviceEnvWrapper(std::shared_ptr<DeviceEnv> target) : target_(std::move(target)) {}
    DeviceEnv* target() const { return target_.get(); }

    DeviceIdentity GetLocalDevice() override { return target_->GetLocalDevice(); }
    Vex::Identity GetServiceIdentity() override { return target_->GetServiceIdentity(); }
    bool IsWifiActive() override { return target_->IsWifiActive(); }
    SoftBus& GetSoftBus() override { return target_->GetSoftBus(); }
    std::vector<AbilityInfo> GetLocalAbilities() override { return target_->GetLocalAbilities(); }
    std::vector<PeerDevice> GetPeerDevices() override { return target_->GetPeerDevices(); }
    AbilityLauncher& GetLauncher() override { return target_->GetLauncher(); }

private:
    const std::shared_ptr<DeviceEnv> target_;
};

class CollaborationSessions;

class DeviceContext {
public:
    // Created on first use with a DefaultDeviceEnv; never destroyed (pool workers and bus
    // threads may still run while the process exits).
    static DeviceContext& Get();

    // The installed env; never null.
    std::shared_ptr<DeviceEnv> Env();
    // Installs env (null installs a new DefaultDeviceEnv) and returns the previous one. The
    // previous env's bus stops delivering to the host; the new one's bus delivers to it.
    std::shared_ptr<DeviceEnv> InstallEnv(std::shared_ptr<DeviceEnv> env);

    ThreadPool& Pool();
    // The host's session layer: the soft bus's listener.
    CollaborationSessions& Sessions();

    // Backends report Wi-Fi changes here: going off tells every EventListener (OnWiFiShutDown)
    // on the calling thread.
    void NotifyWifiStateChanged(bool active);

    DeviceContext(const DeviceContext&) = delete;
    DeviceContext& operator=(const DeviceContext&) = delete;

private:
    DeviceContext();
    ~DeviceContext();

    std::mutex mutex_;
    std::shared_ptr<DeviceEnv> env_;
    std::unique_ptr<CollaborationSessions> sessions_;
    std::unique_ptr<ThreadPool> pool_;
};

}  // namespace Tandra
}  // namespace QUEX
