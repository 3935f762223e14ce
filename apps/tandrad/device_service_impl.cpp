#include "device_service_impl.h"

#include <algorithm>

#include "ipc_skeleton.h"
#include "net_link_types.h"

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
    const std::vector<KnownDevice> knownDevices = bus_.GetKnownDevices();
    for (const KnownDevice& known : knownDevices) {
        DeviceEntry entry;
        entry.networkId = known.identity.networkId;
        entry.udid = known.identity.udid;
        entry.name = known.identity.deviceName;
        entry.type = known.identity.deviceType;
        entry.trusted = known.trusted;
        entry.linked = known.linked;
        entry.address = known.address;
        entry.foundBy = DiscoverySourceName(known.foundBy);
        for (const PeerDevice& peer : linked) {
            if (peer.identity.networkId == entry.networkId) {
                entry.hasCamera = OffersCamera(peer.abilities);
            }
        }
        list.devices.push_back(std::move(entry));
    }
    list.note = DiscoveryNote(knownDevices);
    return list;
}

std::string DeviceServiceImpl::DiscoveryNote(const std::vector<KnownDevice>& known)
{
    for (const KnownDevice& device : known) {
        if (device.linked) {
            return "";  // something was found: nothing to explain
        }
    }
    bool byBroadcast = false;
    bool byDnsSd = false;
    std::vector<std::string> unreached = staticPeers_;
    for (const KnownDevice& device : known) {
        byBroadcast |= device.foundBy == DiscoverySource::BROADCAST;
        byDnsSd |= device.foundBy == DiscoverySource::DNS_SD;
        const std::string address = device.address + ":" + std::to_string(device.port);
        if (!device.identity.networkId.empty()) {
            unreached.erase(std::remove(unreached.begin(), unreached.end(), address), unreached.end());
        }
    }
    std::string note;
    if (!discoveryOn_) {
        note += "Broadcast discovery is off (--discovery-port 0). ";
    } else if (!byBroadcast) {
        note += "Broadcast discovery found no device: if your network drops broadcast, name the other device "
                "with tandrad --peer HOST:PORT. ";
    }
    if (!byDnsSd) {
        note += "DNS-SD found no device (it is used only when an Avahi daemon runs). ";
    }
    for (const std::string& peer : unreached) {
        note += "The configured peer " + peer + " did not answer. ";
    }
    if (!note.empty()) {
        note.pop_back();
    }
    return note;
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

namespace QUEX {
namespace Tandra {

std::string DeviceServiceImpl::Diagnostics()
{
    return diagnostics_ ? diagnostics_() : "{}";
}

}  // namespace Tandra
}  // namespace QUEX
