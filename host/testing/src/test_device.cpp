// One test device: settable backends installed into the process's device context.
#include "test_device.h"

#include <unistd.h>

#include <algorithm>

#include "ability_manager_client.h"
#include "bundle_mgr.h"

namespace QUEX {
namespace Tandra {
namespace Testing {

TestDeviceEnv::TestDeviceEnv(DeviceIdentity identity)
    : identity_(std::move(identity)), serviceIdentity_{static_cast<int32_t>(getpid()), static_cast<int32_t>(getuid())}
{
}

DeviceIdentity TestDeviceEnv::GetLocalDevice()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return identity_;
}

Vex::Identity TestDeviceEnv::GetServiceIdentity()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return serviceIdentity_;
}

bool TestDeviceEnv::IsWifiActive()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return wifiActive_;
}

std::vector<AbilityInfo> TestDeviceEnv::GetLocalAbilities()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return localAbilities_;
}

std::vector<PeerDevice> TestDeviceEnv::GetPeerDevices()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return peers_;
}

void TestDeviceEnv::SetLocalDevice(const DeviceIdentity& identity)
{
    std::lock_guard<std::mutex> lock(mutex_);
    identity_ = identity;
}

void TestDeviceEnv::SetServiceIdentity(Vex::Identity identity)
{
    std::lock_guard<std::mutex> lock(mutex_);
    serviceIdentity_ = identity;
}

void TestDeviceEnv::SetWifiState(bool active)
{
    std::lock_guard<std::mutex> lock(mutex_);
    wifiActive_ = active;
}

void TestDeviceEnv::SetLocalAbilities(std::vector<AbilityInfo> abilities)
{
    std::lock_guard<std::mutex> lock(mutex_);
    localAbilities_ = std::move(abilities);
}

void TestDeviceEnv::AddLocalAbility(const AbilityInfo& ability)
{
    std::lock_guard<std::mutex> lock(mutex_);
    localAbilities_.push_back(ability);
}

void TestDeviceEnv::SetPeerDevices(std::vector<PeerDevice> peers)
{
    std::lock_guard<std::mutex> lock(mutex_);
    peers_ = std::move(peers);
}

void TestDeviceEnv::AddPeerDevice(const PeerDevice& peer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    peers_.push_back(peer);
}

void TestDeviceEnv::RemovePeerDevice(const std::string& networkId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    peers_.erase(std::remove_if(peers_.begin(), peers_.end(),
                                [&networkId](const PeerDevice& peer) { return peer.identity.networkId == networkId; }),
                 peers_.end());
}

DeviceIdentity TestDevice::DefaultIdentity()
{
    return {"LOCALNETWORKID0001", "LOCALUDID0001", 0x0E, "local-phone"};
}

DeviceIdentity TestDevice::PeerIdentity()
{
    return {"PEERNETWORKID0001", "PEERUDID0001", 0x11, "peer-tablet"};
}

TestDevice::TestDevice(DeviceIdentity identity) : env_(std::make_shared<TestDeviceEnv>(std::move(identity)))
{
    previous_ = DeviceContext::Get().InstallEnv(env_);
}

TestDevice::~TestDevice()
{
    DeviceContext::Get().InstallEnv(previous_);
    // The peer's threads stop here, on the test thread, so that none of them can be the one
    // that drops the last reference to the env (and with it the peer).
    env_->Peer().Shutdown();
}

DeviceIdentity TestDevice::Identity()
{
    return env_->GetLocalDevice();
}

void TestDevice::SetServiceIdentity(int32_t pid, int32_t uid)
{
    env_->SetServiceIdentity({pid, uid});
}

void TestDevice::SetWifiActive(bool active)
{
    bool wasActive = env_->IsWifiActive();
    env_->SetWifiState(active);
    if (wasActive != active) {
        DeviceContext::Get().NotifyWifiStateChanged(active);
    }
}

bool TestDevice::IsWifiActive()
{
    return env_->IsWifiActive();
}

void TestDevice::SetForegroundApp(const std::string& bundleName, const std::string& abilityName)
{
    auto client = Vex::AAFwk::AbilityManagerClient::GetInstance();
    if (bundleName.empty()) {
        client->SetTopAbility(Vex::AppExecFwk::ElementName());
        return;
    }
    client->SetTopAbility(Vex::AppExecFwk::ElementName(Identity().networkId, bundleName, abilityName));
}

void TestDevice::SetBundleName(int32_t uid, const std::string& bundleName)
{
    Vex::sptr<Vex::AppExecFwk::BundleMgrService> service = Vex::AppExecFwk::BundleMgrService::GetOrRegister();
    if (service != nullptr) {
        service->SetBundleName(uid, bundleName);
    }
}

void TestDevice::AddLocalAbility(const AbilityInfo& ability)
{
    env_->AddLocalAbility(ability);
}

void TestDevice::AddPeerDevice(const DeviceIdentity& identity, std::vector<AbilityInfo> abilities)
{
    env_->AddPeerDevice({identity, std::move(abilities)});
}

void TestDevice::RemovePeerDevice(const std::string& networkId)
{
    env_->RemovePeerDevice(networkId);
}

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
