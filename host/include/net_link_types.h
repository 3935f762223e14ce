// Values the device link reports about other devices: what discovery found (KnownDevice),
// traffic counters of a link (NetLinkStats), and the observer of link events (LinkObserver).
// Thread-safety: plain values; LinkObserver calls come from the bus's own threads without a bus
// lock held, one at a time.
#pragma once

#include <cstdint>
#include <string>

#include "device_context.h"

namespace QUEX {
namespace Tandra {

enum class DiscoverySource : int32_t {
    BROADCAST = 0,  // a UDP announcement
    STATIC = 1,     // named in the configuration (host:port)
    DNS_SD = 2,     // _tandra._tcp through Avahi
    INCOMING = 3,   // it connected to this device
};
const char* DiscoverySourceName(DiscoverySource source);

struct KnownDevice {
    DeviceIdentity identity;  // network id empty while a static peer was never reached
    std::string address;      // where its TLS port listens
    uint16_t port = 0;
    bool trusted = false;     // paired (or trusted on first use)
    bool linked = false;      // control and data connections up
    DiscoverySource foundBy = DiscoverySource::INCOMING;
};

struct NetLinkStats {
    uint64_t controlBytesIn = 0;
    uint64_t controlBytesOut = 0;
    uint64_t dataBytesIn = 0;  // counts the body of a data message while it arrives
    uint64_t dataBytesOut = 0;
};

class LinkObserver {
public:
    LinkObserver() = default;
    virtual ~LinkObserver() = default;
    LinkObserver(const LinkObserver&) = delete;
    LinkObserver& operator=(const LinkObserver&) = delete;

    // A trusted peer's link is up (its abilities are known).
    virtual void OnPeerLinked(const std::string& networkId) { (void)networkId; }
    // The link dropped: its sessions were reported closed, its channels are gone.
    virtual void OnPeerLost(const std::string& networkId) { (void)networkId; }
    virtual void OnWifiStateChanged(bool active) { (void)active; }
    // A device asks to pair; show the code and ask the user (then ConfirmPairing).
    virtual void OnPairingRequested(const KnownDevice& device, const std::string& code)
    {
        (void)device;
        (void)code;
    }
    // Pairing ended: both confirmed (trusted) or one side declined or the connection dropped.
    virtual void OnPairingFinished(const std::string& networkId, bool trusted)
    {
        (void)networkId;
        (void)trusted;
    }
};

}  // namespace Tandra
}  // namespace QUEX
