#include "device_service_impl.h"

#include "ipc_skeleton.h"

namespace QUEX {
namespace Tandra {

const char* const CAMERA_ABILITY_TYPE = "tandra.CameraAbility.TakePhoto";

namespace {

bool OffersCamera(const std::vector<AbilityInfo>& abilities)
{
    for (const AbilityInfo& ability : abilities) {
        if (ability.action == CAMERA_ABILITY_TYPE || ability.abilityType.rfind("tandra.CameraAbility", 0) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

DeviceEntry DeviceServiceImpl::SelfEntry()
{
    DeviceIdentity identity = bus_.GetLocalIdentity();
    DeviceEntry self;
    self.networkId = identity.networkId;
    self.udid = identity.udid;
    self.name = identity.deviceName;
    self.type = identity.deviceType;
    self.trusted = true;
    self.linked = true;
    return self;
}

AppRegistration DeviceServiceImpl::RegisterApp(bool foreground)
{
    const int32_t pid = Vex::IPCSkeleton::GetCallingPid();
    AppRegistration registration;
    registration.bundleName = apps_.BundleOf(pid);
    registration.self = SelfEntry();
    if (registration.bundleName.empty()) {
        // Still served: an unknown program may list devices, but is never any app's bundle
        // and never the foreground app.
        registration.result = foreground ? DEVICE_ERR_NOT_AN_APP : 0;
        return registration;
    }
    registration.result = apps_.SetForeground(pid, foreground);
    return registration;
}

int32_t DeviceServiceImpl::SetForeground(bool foreground)
{
    return apps_.SetForeground(Vex::IPCSkeleton::GetCallingPid(), foreground);
}

DeviceList DeviceServiceImpl::ListDevices()
{
    DeviceList list;
    std::vector<PeerDevice> linked = bus_.GetPeerDevices();
    for (const KnownDevice& known : bus_.GetKnownDevices()) {
        DeviceEntry entry;
        entry.networkId = known.identity.networkId;
        entry.udid = known.identity.udid;
        entry.name = known.identity.deviceName;
        entry.type = known.identity.deviceType;
        entry.trusted = known.trusted;
        entry.linked = known.linked;
        entry.address = known.address;
        entry.foundBy = known.foundBy;
        entry.pairingCode = known.pairingCode;
        for (const PeerDevice& peer : linked) {
            if (peer.identity.networkId == entry.networkId) {
                entry.hasCamera = OffersCamera(peer.abilities);
            }
        }
        list.devices.push_back(std::move(entry));
    }
    list.note = bus_.DiscoveryNote();
    return list;
}

PairingAnswer DeviceServiceImpl::Pair(const std::string& device)
{
    PairingAnswer answer;
    answer.result = bus_.RequestPairing(device, &answer.code, &answer.message);
    return answer;
}

PairingAnswer DeviceServiceImpl::ConfirmPair(const std::string& device, bool accept)
{
    PairingAnswer answer;
    answer.result = bus_.ConfirmPairing(device, accept, &answer.message);
    return answer;
}

PairingAnswer DeviceServiceImpl::Unpair(const std::string& device)
{
    PairingAnswer answer;
    answer.result = bus_.Unpair(device, &answer.message);
    return answer;
}

}  // namespace Tandra
}  // namespace QUEX
