// NetSoftBus: the SoftBus between daemons on different devices, over TCP with TLS 1.3 and
// mutual certificate authentication (identity: NetIdentity; peers accepted only when paired,
// NetTrustStore). Devices are found by UDP broadcast, by static host:port entries and by DNS-SD
// (_tandra._tcp, where an Avahi daemon runs); whatever finds a device, TLS proves who it is.
//
// Links: per peer, one control connection (sessions, control messages, pairing, heartbeats)
// and one data connection (data channels and their messages), both dialled by the device with
// the lower fingerprint so that two devices never hold two links. Data has its own connection
// instead of interleaved chunks: a control message (a cancel) never queues behind photo bytes,
// neither in our send queue nor in TCP's buffers, and a data message can go out from the
// caller's buffer and come in straight into one buffer without chunk reassembly.
// Heartbeats on the control connection detect a silent peer within the link timeout; a dropped
// link closes its sessions (OnCtrlSessionClosed) and channels and tells the LinkObserver; the
// lower side redials. The interface named in the configuration is watched with rtnetlink: down
// is Wi-Fi off (links dropped, no dialling), up again re-establishes links.
//
// Copies per hop: a control message is copied once into the send queue (SendCtrlMessage returns
// at once); a data message is encrypted straight from the caller's buffer, or from a file read
// a piece at a time into a reused buffer (SendDataMessage[FromFile] returns once it is all
// written to the socket, or fails when the peer takes no byte for writeStallTimeout, which
// drops the link as a lost link does). A received message is decrypted
// once into one buffer (reused for the next message of its connection) and the listener gets a
// pointer into it.
// Each connection has one I/O owner (an asio strand) and a send queue; one thread runs all I/O.
// Listener calls of one peer come in order on that peer's delivery thread; an opening runs on
// its own thread. Bounded memory: bodies are allocated only after their header is checked
// against the limits; deliveries waiting on a slow listener stop the peer's data reads.
// Thread-safety: every operation may be called from any thread, also inside listener calls.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "device_context.h"
#include "net_link_types.h"
#include "soft_bus.h"

namespace QUEX {
namespace Tandra {

struct FrameHeader;
class NetConnection;

struct NetBusConfig {
    std::string stateDir;            // identity and paired devices
    std::string deviceName;
    uint32_t deviceType = 0;
    std::string bindAddress = "0.0.0.0";
    uint16_t port = 0;               // TLS port; 0 = ephemeral (GetPort tells)
    uint16_t discoveryPort = 0;      // UDP broadcast announcements; 0 = none
    std::string broadcastAddress = "255.255.255.255";
    std::vector<std::string> staticPeers;  // "host:port"
    bool dnsSd = true;               // publish and browse _tandra._tcp where an Avahi daemon runs
    std::string interfaceName;       // watched as the Wi-Fi state; "" = always on
    bool trustOnFirstUse = false;    // demos and tests only: trust any certificate first seen
    std::chrono::milliseconds heartbeatInterval{1000};
    std::chrono::milliseconds linkTimeout{3000};
    // A peer whose connection takes no byte for this long (it stopped reading, while its
    // heartbeats may still come) is dropped and the pending send fails. As long as the plugin's
    // wait for one photo: a send never waits longer than the photo's own deadline.
    std::chrono::milliseconds writeStallTimeout{10000};
    // A connection must finish TLS and its hello within this, so silent connects cannot pile up.
    std::chrono::milliseconds handshakeTimeout{10000};
    // Both users must confirm the pairing code within this; then the pairing ends on both sides.
    std::chrono::milliseconds pairingTimeout{120000};
    uint32_t maxControlMessage = 4u << 20;
    uint32_t maxDataMessage = 1u << 30;
    // Large data messages are received into memfds sealed in place, for a listener that passes
    // them on to another process as raw data (no copy there, and not resident here once sealed);
    // a fresh memfd per message costs more than the reused heap buffer a local reader needs.
    bool shareableDataBodies = false;
};

class NetSoftBus : public SoftBus {
public:
    // Loads or creates the identity and the trust store; nothing listens yet.
    static std::unique_ptr<NetSoftBus> Create(const NetBusConfig& config, std::string* error);
    ~NetSoftBus() override;

    // Listens, announces, dials static peers, watches the interface. 0 or HOST_ERR_* and *error.
    int32_t Start(std::string* error);
    // Drops every link (peers see them close), joins the bus's threads. Idempotent; the
    // destructor calls it. REQUIRES: not called from a listener or observer call.
    void Stop();

    DeviceIdentity GetLocalIdentity();
    uint16_t GetPort();
    // Sent to linked peers now and to every peer after its handshake.
    void SetLocalAbilities(std::vector<AbilityInfo> abilities);
    std::vector<PeerDevice> GetPeerDevices();
    std::vector<KnownDevice> GetKnownDevices();
    bool IsWifiActive();
    // Asks the named device (name or network id, as discovered) to pair; *shortCode is the code
    // both devices show. Trust follows when both sides ConfirmPairing. 0 or HOST_ERR_* and *error.
    int32_t RequestPairing(const std::string& nameOrId, std::string* shortCode, std::string* error);
    int32_t ConfirmPairing(const std::string& nameOrId, bool accept, std::string* error);
    // Forgets the device's certificate and drops its link.
    int32_t Unpair(const std::string& nameOrId, std::string* error);
    // Null stops the notices. The observer must outlive its registration.
    void SetLinkObserver(LinkObserver* observer);
    // Traffic of the link to a peer (zeros when none); for tests and benchmarks.
    NetLinkStats GetLinkStats(const std::string& networkId);
    uint64_t DataBytesReceived(const std::string& peerNetworkId) override
    {
        return GetLinkStats(peerNetworkId).dataBytesIn;
    }

    // SoftBus
    void SetListener(SoftBusListener* listener) override;
    std::pair<int32_t, int32_t> OpenCtrlSession(const std::string& peerNetworkId, const std::string& sessionName,
                                                const std::string& commandText) override;
    int32_t CloseCtrlSession(int32_t sessionId, bool notifyPeer) override;
    bool HasCtrlSession(int32_t sessionId) override;
    int32_t SendCtrlMessage(int32_t sessionId, const char* data, uint32_t len, uint32_t type) override;
    std::pair<int32_t, int32_t> OpenDataChannel(const std::string& peerDeviceId,
                                                const SessionAttribute& attr) override;
    int32_t CloseDataChannel(int32_t channelId) override;
    int32_t SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len, uint32_t type,
                            bool isFirst) override;
    int32_t SendDataMessageFromFile(int32_t channelId, int32_t ctrlSessionId, const char* head, uint32_t headLen,
                                    int fd, uint32_t len, uint32_t type, bool isFirst) override;

    struct Impl;

private:
    explicit NetSoftBus(std::unique_ptr<Impl> impl);
    // The frame header of a data message of len bytes on the channel and its connection; an
    // error when the channel is gone or the message is over the limit.
    int32_t PrepareDataMessage(int32_t channelId, int32_t ctrlSessionId, uint64_t len, uint32_t type, bool isFirst,
                               FrameHeader* h, std::shared_ptr<NetConnection>* conn);
    std::unique_ptr<Impl> impl_;
};

}  // namespace Tandra
}  // namespace QUEX
