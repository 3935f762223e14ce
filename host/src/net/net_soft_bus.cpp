// The device link: connections, peers, sessions and channels, pairing, heartbeats, discovery.
#include "net_soft_bus.h"

#include <openssl/ssl.h>

#include <atomic>
#include <future>
#include <list>
#include <set>

#include "dns_sd_discovery.h"
#include "host_types.h"
#include "interface_watch.h"
#include "link_socket_buffers.h"
#include "net_connection.h"
#include "net_identity.h"
#include "net_trust_store.h"
#include "serial_dispatcher.h"
#include "json_text.h"
#include "net_log.h"

#include <json/json.h>

namespace QUEX {
namespace Tandra {
namespace {

using Clock = std::chrono::steady_clock;
using asio::ip::tcp;
using asio::ip::udp;

constexpr size_t MAX_PEERS = 256;
constexpr size_t MAX_CONNECTIONS = 256;
constexpr int MAX_OPENINGS_PER_PEER = 32;
// Pairings waiting for the users' confirmation at once. Anyone can make a certificate, so
// without a cap a stranger could fill every connection slot with pairings for the whole
// pairing deadline and lock the paired devices out.
constexpr size_t MAX_WAITING_PAIRINGS = 4;
constexpr size_t MAX_SESSIONS_PER_PEER = 4096;
constexpr size_t MAX_PENDING_DELIVERY = 64u << 20;
// PAIR_CONFIRM's b: the sender gave up waiting for its user, so its "no" is not a refusal.
constexpr uint32_t PAIR_TIMED_OUT = 1;
constexpr auto CONNECT_DEADLINE = std::chrono::seconds(3);
constexpr auto PAIRING_CONNECT_WAIT = std::chrono::seconds(5);

std::string Short(const std::string& fp)
{
    return fp.substr(0, 8);
}

bool IsProtocolError(const std::string& reason)
{
    return reason.rfind("bad frame", 0) == 0 || reason.rfind("protocol", 0) == 0 ||
           reason.rfind("TLS handshake failed", 0) == 0 || reason.rfind("the peer stopped reading", 0) == 0;
}

// Opening of a control session this device asked for: the peer's answer.
struct OpenWait {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    int32_t result = 0;
    void Finish(int32_t r)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!done) {
            done = true;
            result = r;
            cv.notify_all();
        }
    }
    int32_t Wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait(lock, [this] { return done; });
        return result;
    }
};

// Threads running OnCtrlSessionOpened, which may block for seconds; joined at Stop.
class OpenThreads {
public:
    void Spawn(std::function<void()> fn)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Reap();
        auto finished = std::make_shared<std::atomic<bool>>(false);
        threads_.emplace_back(std::thread([fn = std::move(fn), finished] {
                                  fn();
                                  finished->store(true);
                              }),
                              finished);
    }
    void JoinAll()
    {
        std::list<std::pair<std::thread, std::shared_ptr<std::atomic<bool>>>> all;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            all.swap(threads_);
        }
        for (auto& t : all) {
            t.first.join();
        }
    }

private:
    void Reap()
    {
        for (auto it = threads_.begin(); it != threads_.end();) {
            if (it->second->load()) {
                it->first.join();
                it = threads_.erase(it);
            } else {
                ++it;
            }
        }
    }
    std::mutex mutex_;
    std::list<std::pair<std::thread, std::shared_ptr<std::atomic<bool>>>> threads_;
};

}  // namespace

const char* DiscoverySourceName(DiscoverySource source)
{
    switch (source) {
        case DiscoverySource::BROADCAST:
            return "broadcast";
        case DiscoverySource::STATIC:
            return "static";
        case DiscoverySource::DNS_SD:
            return "dns-sd";
        case DiscoverySource::INCOMING:
            return "incoming";
    }
    return "?";
}

struct NetSoftBus::Impl {
    enum class ConnState { HANDSHAKE, PAIRING, CONTROL, DATA, PENDING_DATA, REFUSED };

    struct DialPlan {
        std::string host;
        uint16_t port = 0;
        bool dataRole = false;
        bool pairing = false;
        int staticIndex = -1;
        std::string peerFp;  // known peer being dialled, or ""
    };

    struct ConnInfo {
        std::shared_ptr<NetConnection> conn;
        std::shared_ptr<DialPlan> plan;
        bool helloDone = false;
        HelloInfo hello;
        std::string fp;
        ConnState state = ConnState::HANDSHAKE;
    };

    struct Peer {
        std::string fp;
        std::string name;
        uint32_t type = 0;
        std::string address;
        uint16_t port = 0;
        DiscoverySource foundBy = DiscoverySource::INCOMING;
        std::vector<AbilityInfo> abilities;
        bool abilitiesReceived = false;
        bool linked = false;
        std::shared_ptr<NetConnection> ctrl;
        std::shared_ptr<NetConnection> data;
        std::shared_ptr<NetConnection> pendingData;
        std::shared_ptr<SerialDispatcher> dispatcher;
        std::map<uint32_t, int32_t> inChannels;  // peer's channel id -> ours (-1: closed here)
        int openings = 0;
        bool dialing = false;
        Clock::time_point lastDial{};
        Clock::time_point lastHeartbeat{};
        Clock::time_point ctrlSince{};
        // Pairing.
        std::shared_ptr<NetConnection> pairConn;
        int pairLocal = 0;   // 1 accepted, -1 declined
        int pairRemote = 0;
        std::string pairError;
        Clock::time_point pairSince{};
    };

    struct Session {
        CtrlSessionInfo info;
        uint32_t peerId = 0;  // 0 while our opening waits for the answer
        std::shared_ptr<NetConnection> ctrl;
        std::shared_ptr<OpenWait> wait;
    };

    struct Channel {
        std::string fp;
        bool outgoing = true;
        uint32_t peerChannelId = 0;  // incoming: the opener's id
        std::shared_ptr<NetConnection> data;
    };

    struct StaticPeer {
        std::string text;
        std::string host;
        uint16_t port = 0;
        std::string fp;  // learned at the first handshake
        bool dialing = false;
        Clock::time_point lastDial{};
        std::string lastError = "not tried yet";
    };

    explicit Impl(const NetBusConfig& c) : cfg(c), trust(c.stateDir + "/trusted.json")
    {
        limits.maxControlBody = cfg.maxControlMessage;
        limits.maxDataBody = cfg.maxDataMessage;
        limits.shareableDataBodies = cfg.shareableDataBodies;
    }

    // Configuration and identity: fixed after Create.
    NetBusConfig cfg;
    std::unique_ptr<NetIdentity> identity;
    NetTrustStore trust;
    FrameLimits limits;

    // I/O: declared before everything holding sockets, so it is destroyed last.
    asio::io_context io;
    asio::ssl::context ssl{asio::ssl::context::tls};
    tcp::acceptor acceptor{io};
    udp::socket udpSocket{io};
    udp::endpoint udpSender;
    char udpBuffer[2048];
    asio::steady_timer tick{io};
    InterfaceWatch iface{io};
    DnsSdDiscovery dnsSd;  // its handler runs on Avahi's thread and takes mu
    std::thread ioThread;
    std::future<void> ioDone;
    std::atomic<bool> started{false};
    std::atomic<bool> stopped{false};
    uint16_t port = 0;
    Clock::time_point startTime;
    Clock::time_point lastAnnounce{};
    bool reportedNothingFound = false;

    std::atomic<SoftBusListener*> listener{nullptr};
    std::atomic<LinkObserver*> observer{nullptr};
    SerialDispatcher events;
    OpenThreads openThreads;

    std::mutex mu;
    std::condition_variable cv;
    bool stopping = false;
    bool wifiUp = true;
    size_t announcementsHeard = 0;
    std::vector<AbilityInfo> localAbilities;
    std::map<NetConnection*, ConnInfo> conns;
    std::map<std::string, std::shared_ptr<Peer>> peers;
    std::map<int32_t, Session> sessions;
    std::map<int32_t, Channel> channels;
    int32_t nextSessionId = 1;
    int32_t nextChannelId = 1;
    std::vector<StaticPeer> statics;
    struct DialAttempt {
        std::shared_ptr<tcp::resolver> resolver;
        std::shared_ptr<tcp::socket> socket;
        std::shared_ptr<asio::steady_timer> timer;
    };
    std::map<uint64_t, DialAttempt> dials;
    uint64_t nextDial = 1;

    const std::string& MyFp() const { return identity->Fingerprint(); }

    std::chrono::milliseconds TickPeriod() const
    {
        return std::max(std::chrono::milliseconds(20), std::min(std::chrono::milliseconds(250), cfg.heartbeatInterval / 4));
    }

    // ---- helpers under mu ----

    std::shared_ptr<Peer> PeerFor(const std::string& fp, bool create)
    {
        auto it = peers.find(fp);
        if (it != peers.end()) {
            return it->second;
        }
        if (!create || peers.size() >= MAX_PEERS) {
            return nullptr;
        }
        auto peer = std::make_shared<Peer>();
        peer->fp = fp;
        peer->name = trust.NameOf(fp);
        peers[fp] = peer;
        return peer;
    }

    std::shared_ptr<Peer> FindPeer(const std::string& nameOrId)
    {
        auto it = peers.find(nameOrId);
        if (it != peers.end()) {
            return it->second;
        }
        for (auto& entry : peers) {
            if (!nameOrId.empty() && entry.second->name == nameOrId) {
                return entry.second;
            }
        }
        return nullptr;
    }

    std::string Describe(const Peer& peer) const
    {
        return "'" + peer.name + "' (" + Short(peer.fp) + ")";
    }

    void Post(const std::shared_ptr<Peer>& peer, std::function<void()> call, size_t bytes = 0)
    {
        if (!peer->dispatcher) {
            peer->dispatcher = std::make_shared<SerialDispatcher>();
        }
        peer->dispatcher->Post(std::move(call), bytes);
    }

    KnownDevice KnownOf(const Peer& peer)
    {
        KnownDevice d;
        d.identity.networkId = peer.fp;
        d.identity.udid = peer.fp;
        d.identity.deviceName = peer.name;
        d.identity.deviceType = peer.type;
        d.address = peer.address;
        d.port = peer.port;
        d.trusted = trust.Contains(peer.fp);
        d.linked = peer.linked;
        d.foundBy = peer.foundBy;
        return d;
    }

    void SendHello(const std::shared_ptr<NetConnection>& conn, bool dataRole, bool pairing)
    {
        HelloInfo hello;
        hello.deviceName = cfg.deviceName;
        hello.deviceType = cfg.deviceType;
        hello.port = port;
        hello.dataRole = dataRole;
        hello.pairing = pairing;
        std::string body = EncodeHello(hello);
        FrameHeader h;
        h.type = FrameType::HELLO;
        h.length = static_cast<uint32_t>(body.size());
        conn->SendCopy(h, body.data(), body.size());
    }

    void SendAbilities(const std::shared_ptr<NetConnection>& conn)
    {
        std::string body = EncodeAbilities(localAbilities);
        FrameHeader h;
        h.type = FrameType::ABILITIES;
        h.length = static_cast<uint32_t>(body.size());
        conn->SendCopy(h, body.data(), body.size());
    }

    static void SendEmpty(const std::shared_ptr<NetConnection>& conn, FrameType type, uint32_t a = 0, uint32_t b = 0,
                          uint32_t c = 0)
    {
        FrameHeader h;
        h.type = type;
        h.a = a;
        h.b = b;
        h.c = c;
        conn->SendCopy(h, nullptr, 0);
    }

    // Drops a peer's link: its connections close, its sessions are reported closed and its
    // channels forgotten, and the observer hears of the loss.
    void TearDown(const std::shared_ptr<Peer>& peer, const std::string& reason)
    {
        bool wasLinked = peer->linked;
        peer->linked = false;
        peer->abilitiesReceived = false;
        // The connection at fault has logged its own reason; the others close as a consequence.
        for (auto* conn : {&peer->ctrl, &peer->data, &peer->pendingData}) {
            if (*conn) {
                (*conn)->Close("the link dropped: " + reason);
                conn->reset();
            }
        }
        std::vector<CtrlSessionInfo> closed;
        for (auto it = sessions.begin(); it != sessions.end();) {
            if (it->second.info.peerNetworkId != peer->fp) {
                ++it;
                continue;
            }
            if (it->second.wait) {
                it->second.wait->Finish(HOST_ERR_SEND_FAILED);
            } else {
                closed.push_back(it->second.info);
            }
            it = sessions.erase(it);
        }
        for (auto it = channels.begin(); it != channels.end();) {
            it = it->second.fp == peer->fp ? channels.erase(it) : std::next(it);
        }
        peer->inChannels.clear();
        if (wasLinked || !closed.empty()) {
            TNDR_LINK_LOGI("link to %{public}s lost: %{public}s; %{public}u session(s) closed", Describe(*peer).c_str(),
                           reason.c_str(), static_cast<unsigned>(closed.size()));
            std::string fp = peer->fp;
            Post(peer, [this, closed, fp] {
                for (const CtrlSessionInfo& info : closed) {
                    if (SoftBusListener* l = listener.load()) {
                        l->OnCtrlSessionClosed(info);
                    }
                }
                if (LinkObserver* o = observer.load()) {
                    o->OnPeerLost(fp);
                }
            });
        }
        cv.notify_all();
    }

    void MaybeLinked(const std::shared_ptr<Peer>& peer)
    {
        if (peer->linked || !peer->ctrl || !peer->data || !peer->abilitiesReceived) {
            return;
        }
        peer->linked = true;
        peer->lastHeartbeat = Clock::now();
        TNDR_LINK_LOGI("linked with %{public}s at %{public}s:%{public}u", Describe(*peer).c_str(), peer->address.c_str(),
                       peer->port);
        std::string fp = peer->fp;
        Post(peer, [this, fp] {
            if (LinkObserver* o = observer.load()) {
                o->OnPeerLinked(fp);
            }
        });
        cv.notify_all();
    }

    void FinishPairing(const std::shared_ptr<Peer>& peer, bool trusted, const std::string& why)
    {
        peer->pairConn.reset();
        peer->pairLocal = 0;
        peer->pairRemote = 0;
        peer->pairError = trusted ? "" : why;
        std::string fp = peer->fp;
        events.Post([this, fp, trusted] {
            if (LinkObserver* o = observer.load()) {
                o->OnPairingFinished(fp, trusted);
            }
        });
        cv.notify_all();
    }

    void CompletePairing(const std::shared_ptr<Peer>& peer)
    {
        std::string error;
        if (!trust.Add(peer->fp, peer->name, &error)) {
            TNDR_LINK_LOGE("pairing with %{public}s failed: %{public}s", Describe(*peer).c_str(), error.c_str());
            peer->pairConn->Close("pairing could not be saved");
            FinishPairing(peer, false, error);
            return;
        }
        TNDR_LINK_LOGI("paired with %{public}s", Describe(*peer).c_str());
        std::shared_ptr<NetConnection> conn = peer->pairConn;
        FinishPairing(peer, true, "");
        OnTrustedControl(peer, conn);
    }

    // A trusted peer's control connection is ready. Only the device with the lower
    // fingerprint keeps connections it dialled, so two devices never hold two links.
    void OnTrustedControl(const std::shared_ptr<Peer>& peer, const std::shared_ptr<NetConnection>& conn)
    {
        bool lowerIsMe = MyFp() < peer->fp;
        ConnInfo& info = conns[conn.get()];
        if (conn->Dialed() != lowerIsMe) {
            info.state = ConnState::REFUSED;
            conn->CloseWhenSent("the device with the lower id dials");
            if (lowerIsMe) {
                peer->lastDial = Clock::time_point{};  // dial back at the next tick
            }
            return;
        }
        if (peer->ctrl && peer->ctrl != conn) {
            TearDown(peer, "replaced by a new connection");
        }
        peer->ctrl = conn;
        peer->ctrlSince = Clock::now();
        info.state = ConnState::CONTROL;
        SendAbilities(conn);
        if (peer->pendingData) {
            InstallData(peer, std::move(peer->pendingData));
        }
        if (conn->Dialed()) {
            auto plan = std::make_shared<DialPlan>();
            plan->host = peer->address;
            plan->port = peer->port;
            plan->dataRole = true;
            plan->peerFp = peer->fp;
            Dial(plan);
        }
    }

    void InstallData(const std::shared_ptr<Peer>& peer, std::shared_ptr<NetConnection> conn)
    {
        if (peer->data && peer->data != conn) {
            peer->data->Close("replaced by a new data connection");
        }
        conns[conn.get()].state = ConnState::DATA;
        peer->data = std::move(conn);
        MaybeLinked(peer);
    }

    void LogRefusal(const Peer& peer, const std::string& address)
    {
        std::string sameName;
        for (auto& entry : peers) {
            if (entry.first != peer.fp && !peer.name.empty() && entry.second->name == peer.name &&
                trust.Contains(entry.first)) {
                sameName = entry.first;
            }
        }
        if (!sameName.empty()) {
            TNDR_LINK_LOGE("refused device %{public}s at %{public}s: its certificate changed (paired was %{public}s); "
                           "if it was reinstalled, unpair the old one and pair again",
                           Describe(peer).c_str(), address.c_str(), Short(sameName).c_str());
        } else {
            TNDR_LINK_LOGE("refused device %{public}s at %{public}s: it is not paired with this device; pair it first",
                           Describe(peer).c_str(), address.c_str());
        }
    }

    // ---- connections ----

    void StartConnection(tcp::socket socket, bool dialed, std::shared_ptr<DialPlan> plan)
    {
        asio::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        SizeLinkSocketBuffers(socket.native_handle());
        auto conn = std::make_shared<NetConnection>(io, ssl, std::move(socket), dialed, limits, cfg.writeStallTimeout);
        {
            std::lock_guard<std::mutex> lock(mu);
            if (stopping || conns.size() >= MAX_CONNECTIONS) {
                TNDR_LINK_LOGE("dropped a connection: %{public}s", stopping ? "stopping" : "too many connections");
                return;
            }
            ConnInfo& info = conns[conn.get()];
            info.conn = conn;
            info.plan = plan;
        }
        conn->Start(
            cfg.handshakeTimeout,
            [this, plan](const std::shared_ptr<NetConnection>& c) {
                if (c->Dialed()) {
                    std::lock_guard<std::mutex> lock(mu);
                    SendHello(c, plan->dataRole, plan->pairing);
                }
            },
            [this](const std::shared_ptr<NetConnection>& c, const FrameHeader& h, std::shared_ptr<RxBody> body) {
                OnFrame(c, h, std::move(body));
            },
            [this](const std::shared_ptr<NetConnection>& c, const std::string& reason) { OnClosed(c, reason); });
    }

    // Whether a dial to a static peer that is (or may be) this device is under way. Two dials
    // to one device that both succeed make the newer control connection replace the older
    // while the older's data connection is still coming up, and the link drops at once.
    bool StaticDialInFlight(const Peer& peer) const
    {
        for (const StaticPeer& s : statics) {
            if (s.dialing && (s.fp == peer.fp || (s.fp.empty() && s.host == peer.address && s.port == peer.port))) {
                return true;
            }
        }
        return false;
    }

    // Whether a device known at host:port (found by broadcast or DNS-SD before its static entry
    // learnt who it is) is already linked or being dialled: see StaticDialInFlight.
    bool KnownPeerBusyAt(const std::string& host, uint16_t port) const
    {
        for (const auto& entry : peers) {
            const Peer& peer = *entry.second;
            if (peer.address == host && peer.port == port && (peer.dialing || peer.ctrl)) {
                return true;
            }
        }
        return false;
    }

    void ClearDialing(const std::shared_ptr<DialPlan>& plan, const std::string& error)
    {
        if (!plan) {
            return;
        }
        if (plan->staticIndex >= 0) {
            statics[plan->staticIndex].dialing = false;
            if (!error.empty()) {
                statics[plan->staticIndex].lastError = error;
            }
        }
        if (!plan->peerFp.empty() && !plan->dataRole) {
            if (auto peer = PeerFor(plan->peerFp, false)) {
                peer->dialing = false;
                if (plan->pairing && !error.empty()) {
                    peer->pairError = error;
                    cv.notify_all();
                }
            }
        }
    }

    // Dial attempts start on the I/O thread, which owns every socket and resolver.
    void Dial(const std::shared_ptr<DialPlan>& plan)
    {
        asio::post(io, [this, plan] {
            std::lock_guard<std::mutex> lock(mu);
            DialNow(plan);
        });
    }

    void DialNow(const std::shared_ptr<DialPlan>& plan)
    {
        if (stopping) {
            ClearDialing(plan, "this device stops");
            return;
        }
        uint64_t id = nextDial++;
        DialAttempt& attempt = dials[id];
        attempt.resolver = std::make_shared<tcp::resolver>(io);
        attempt.socket = std::make_shared<tcp::socket>(io);
        attempt.timer = std::make_shared<asio::steady_timer>(io);
        auto socket = attempt.socket;
        auto timer = attempt.timer;
        auto fail = [this, id, plan](const std::string& error) {
            std::lock_guard<std::mutex> lock(mu);
            dials.erase(id);
            ClearDialing(plan, error);
        };
        attempt.resolver->async_resolve(
            plan->host, std::to_string(plan->port),
            [this, id, plan, socket, timer, fail](const asio::error_code& ec, tcp::resolver::results_type results) {
                if (ec) {
                    fail("cannot resolve " + plan->host + ": " + ec.message());
                    return;
                }
                timer->expires_after(CONNECT_DEADLINE);
                timer->async_wait([socket](const asio::error_code& e) {
                    if (!e) {
                        asio::error_code ignored;
                        socket->close(ignored);
                    }
                });
                asio::async_connect(*socket, results,
                                    [this, id, plan, socket, timer, fail](const asio::error_code& e, const tcp::endpoint&) {
                                        timer->cancel();
                                        if (e) {
                                            fail("cannot connect to " + plan->host + ":" + std::to_string(plan->port) +
                                                 ": " + e.message());
                                            return;
                                        }
                                        {
                                            std::lock_guard<std::mutex> lock(mu);
                                            dials.erase(id);
                                        }
                                        StartConnection(std::move(*socket), true, plan);
                                    });
            });
    }

    void OnClosed(const std::shared_ptr<NetConnection>& conn, const std::string& reason)
    {
        std::lock_guard<std::mutex> lock(mu);
        auto it = conns.find(conn.get());
        if (it == conns.end()) {
            return;
        }
        ConnInfo info = std::move(it->second);
        conns.erase(it);
        if (!info.helloDone) {
            ClearDialing(info.plan, reason);
        }
        std::shared_ptr<Peer> peer = info.fp.empty() ? nullptr : PeerFor(info.fp, false);
        std::string who = peer ? Describe(*peer) : conn->RemoteAddress();
        if (IsProtocolError(reason)) {
            TNDR_LINK_LOGE("closed the link to %{public}s: %{public}s", who.c_str(), reason.c_str());
        } else if (!stopping) {
            TNDR_LINK_LOGD("connection to %{public}s closed: %{public}s", who.c_str(), reason.c_str());
        }
        if (!peer) {
            return;
        }
        if (peer->ctrl == conn || peer->data == conn) {
            TearDown(peer, reason);
        }
        if (peer->pendingData == conn) {
            peer->pendingData.reset();
        }
        if (peer->pairConn == conn) {
            FinishPairing(peer, false, "the connection closed during pairing: " + reason);
        }
    }

    void Protocol(const std::shared_ptr<NetConnection>& conn, const std::string& what)
    {
        conn->Close("protocol error: " + what);
    }

    void OnFrame(const std::shared_ptr<NetConnection>& conn, const FrameHeader& h, std::shared_ptr<RxBody> body)
    {
        std::unique_lock<std::mutex> lock(mu);
        auto it = conns.find(conn.get());
        if (it == conns.end() || stopping) {
            return;
        }
        ConnInfo& info = it->second;
        if (h.type == FrameType::HELLO) {
            OnHello(conn, info, *body);
            return;
        }
        std::shared_ptr<Peer> peer = PeerFor(info.fp, false);
        if (!peer) {
            return;
        }
        switch (info.state) {
            case ConnState::PAIRING:
                OnPairingFrame(peer, conn, h);
                return;
            case ConnState::CONTROL:
                if (peer->ctrl == conn) {
                    OnControlFrame(peer, conn, h, std::move(body));
                }
                return;
            case ConnState::DATA:
                if (peer->data == conn) {
                    OnDataFrame(peer, conn, h, std::move(body));
                }
                return;
            case ConnState::PENDING_DATA:
                if (h.type != FrameType::HEARTBEAT) {
                    Protocol(conn, "data before the control link was up");
                }
                return;
            case ConnState::HANDSHAKE:
            case ConnState::REFUSED:
                return;
        }
    }

    void OnHello(const std::shared_ptr<NetConnection>& conn, ConnInfo& info, const RxBody& body)
    {
        HelloInfo hello;
        std::string error;
        if (info.helloDone) {
            Protocol(conn, "a second hello");
            return;
        }
        if (!ParseHello(body.data(), body.size(), &hello, &error)) {
            Protocol(conn, "bad hello: " + error);
            return;
        }
        const std::string& fp = conn->PeerFingerprint();
        if (fp == MyFp()) {
            info.state = ConnState::REFUSED;
            ClearDialing(info.plan, "it is this device itself");
            conn->Close("connected to itself (a static peer names this device?)");
            return;
        }
        info.helloDone = true;
        info.hello = hello;
        info.fp = fp;
        ClearDialing(info.plan, "");
        conn->SetRole(hello.dataRole ? FrameRole::DATA : FrameRole::CONTROL);
        if (!conn->Dialed()) {
            SendHello(conn, hello.dataRole, false);
        }
        std::shared_ptr<Peer> peer = PeerFor(fp, true);
        if (!peer) {
            conn->Close("too many known devices");
            return;
        }
        peer->name = hello.deviceName;
        peer->type = hello.deviceType;
        peer->address = conn->RemoteAddress();
        peer->port = hello.port;
        if (info.plan && info.plan->staticIndex >= 0) {
            statics[info.plan->staticIndex].fp = fp;
            statics[info.plan->staticIndex].lastError.clear();
            peer->foundBy = DiscoverySource::STATIC;
        }
        bool trusted = trust.Contains(fp);
        if (hello.dataRole) {
            if (!trusted) {
                info.state = ConnState::REFUSED;
                conn->Close("refused: data connection from a device that is not paired");
                return;
            }
            if (peer->ctrl) {
                InstallData(peer, conn);
            } else {
                if (peer->pendingData) {
                    peer->pendingData->Close("replaced by a newer data connection");
                }
                peer->pendingData = conn;
                info.state = ConnState::PENDING_DATA;
            }
            return;
        }
        // A peer that asks to pair wants both users to compare a code: trusting it on first use
        // would turn its pairing connection into a control one, which the device with the
        // higher id then refuses ("the lower id dials"), and the pairing fails half the time.
        if (!trusted && cfg.trustOnFirstUse && !hello.pairing) {
            if (trust.Add(fp, peer->name, &error)) {
                TNDR_LINK_LOGI("trusted %{public}s on first use", Describe(*peer).c_str());
                trusted = true;
            } else {
                TNDR_LINK_LOGE("could not trust %{public}s: %{public}s", Describe(*peer).c_str(), error.c_str());
            }
        }
        if (!trusted) {
            bool wePair = info.plan && info.plan->pairing;
            if (!wePair && hello.pairing && !peer->pairConn && WaitingPairings() >= MAX_WAITING_PAIRINGS) {
                info.state = ConnState::REFUSED;
                TNDR_LINK_LOGE("refused pairing with %{public}s: %{public}zu pairings already wait for "
                               "confirmation; confirm or decline them (or let them time out), then pair again",
                               Describe(*peer).c_str(), MAX_WAITING_PAIRINGS);
                conn->Close("refused: too many pairings waiting");
                return;
            }
            if (wePair || hello.pairing) {
                if (peer->pairConn && peer->pairConn != conn) {
                    peer->pairConn->Close("replaced by a newer pairing");
                }
                peer->pairConn = conn;
                peer->pairLocal = 0;
                peer->pairRemote = 0;
                peer->pairError.clear();
                peer->pairSince = Clock::now();
                info.state = ConnState::PAIRING;
                if (wePair) {
                    SendEmpty(conn, FrameType::PAIR_REQUEST);
                }
                cv.notify_all();
                return;
            }
            info.state = ConnState::REFUSED;
            LogRefusal(*peer, conn->RemoteAddress());
            conn->Close("refused: not paired");
            return;
        }
        OnTrustedControl(peer, conn);
    }

    size_t WaitingPairings() const
    {
        size_t waiting = 0;
        for (const auto& entry : peers) {
            waiting += entry.second->pairConn ? 1 : 0;
        }
        return waiting;
    }

    void OnPairingFrame(const std::shared_ptr<Peer>& peer, const std::shared_ptr<NetConnection>& conn,
                        const FrameHeader& h)
    {
        if (peer->pairConn != conn) {
            return;
        }
        if (h.type == FrameType::PAIR_REQUEST) {
            std::string code = NetIdentity::PairingCode(MyFp(), peer->fp);
            TNDR_LINK_LOGI("device %{public}s at %{public}s asks to pair; code %{public}s", Describe(*peer).c_str(),
                           peer->address.c_str(), code.c_str());
            KnownDevice device = KnownOf(*peer);
            events.Post([this, device, code] {
                if (LinkObserver* o = observer.load()) {
                    o->OnPairingRequested(device, code);
                }
            });
        } else if (h.type == FrameType::PAIR_CONFIRM) {
            peer->pairRemote = h.c != 0 ? 1 : -1;
            if (peer->pairRemote < 0 && h.b == PAIR_TIMED_OUT) {
                TNDR_LINK_LOGI("pairing with %{public}s ended: the other device's user did not confirm in time",
                               Describe(*peer).c_str());
                conn->Close("pairing timed out on the other device");
                FinishPairing(peer, false, "the code was not confirmed in time on the other device; pair again");
            } else if (peer->pairRemote < 0) {
                TNDR_LINK_LOGI("device %{public}s declined to pair", Describe(*peer).c_str());
                conn->Close("pairing declined");
                FinishPairing(peer, false, "the other device declined");
            } else if (peer->pairLocal > 0) {
                CompletePairing(peer);
            }
        } else if (h.type != FrameType::HEARTBEAT) {
            TNDR_LINK_LOGE("refused device %{public}s: it sent traffic before pairing finished", Describe(*peer).c_str());
            Protocol(conn, "traffic from a device that is not paired");
        }
    }

    // An id the peer names for one of our sessions: the session, or null. *bad when no such id
    // was ever given to it (ids closed here meanwhile are dropped quietly).
    Session* PeerSession(const std::shared_ptr<Peer>& peer, uint32_t id, bool* bad)
    {
        *bad = false;
        if (id == 0 || id >= static_cast<uint32_t>(nextSessionId)) {
            *bad = true;
            return nullptr;
        }
        auto it = sessions.find(static_cast<int32_t>(id));
        if (it == sessions.end()) {
            return nullptr;
        }
        if (it->second.info.peerNetworkId != peer->fp) {
            *bad = true;
            return nullptr;
        }
        return &it->second;
    }

    void OnControlFrame(const std::shared_ptr<Peer>& peer, const std::shared_ptr<NetConnection>& conn,
                        const FrameHeader& h, std::shared_ptr<RxBody> body)
    {
        bool bad = false;
        switch (h.type) {
            case FrameType::HEARTBEAT:
            case FrameType::PAIR_REQUEST:
            case FrameType::PAIR_CONFIRM:
                return;
            case FrameType::ABILITIES: {
                std::string error;
                std::vector<AbilityInfo> abilities;
                if (!ParseAbilities(body->data(), body->size(), &abilities, &error)) {
                    Protocol(conn, "bad ability list: " + error);
                    return;
                }
                peer->abilities = std::move(abilities);
                peer->abilitiesReceived = true;
                MaybeLinked(peer);
                return;
            }
            case FrameType::OPEN_SESSION:
                OnOpenSession(peer, conn, h, *body);
                return;
            case FrameType::OPEN_RESULT: {
                Session* s = PeerSession(peer, h.a, &bad);
                if (bad || (s != nullptr && (!s->wait || s->info.openedByPeer))) {
                    Protocol(conn, "an answer to no opening of ours");
                    return;
                }
                if (s == nullptr) {
                    return;
                }
                int32_t result = static_cast<int32_t>(h.c);
                std::shared_ptr<OpenWait> wait = std::move(s->wait);
                if (result == 0 && h.b != 0 && h.b <= INT32_MAX) {
                    s->peerId = h.b;
                } else {
                    sessions.erase(static_cast<int32_t>(h.a));
                    result = result == 0 ? HOST_ERR_SEND_FAILED : result;
                }
                wait->Finish(result);
                return;
            }
            case FrameType::CLOSE_SESSION: {
                Session* s = PeerSession(peer, h.a, &bad);
                if (bad) {
                    Protocol(conn, "closing an unknown session " + std::to_string(h.a));
                    return;
                }
                if (s == nullptr) {
                    return;
                }
                CtrlSessionInfo info = s->info;
                if (s->wait) {
                    s->wait->Finish(HOST_ERR_NO_SESSION);
                }
                sessions.erase(info.sessionId);
                Post(peer, [this, info] {
                    if (SoftBusListener* l = listener.load()) {
                        l->OnCtrlSessionClosed(info);
                    }
                });
                return;
            }
            case FrameType::CTRL_MESSAGE: {
                Session* s = PeerSession(peer, h.a, &bad);
                if (bad) {
                    Protocol(conn, "a message on an unknown session " + std::to_string(h.a));
                    return;
                }
                if (s == nullptr) {
                    return;
                }
                if (peer->dispatcher && peer->dispatcher->PendingBytes() > MAX_PENDING_DELIVERY) {
                    Protocol(conn, "messages arrive faster than this device delivers them");
                    return;
                }
                CtrlSessionInfo info = s->info;
                size_t bytes = body->size();
                uint32_t type = h.c;
                Post(
                    peer,
                    [this, info, body, type] {
                        if (SoftBusListener* l = listener.load()) {
                            l->OnCtrlMessage(info, body->data(), static_cast<uint32_t>(body->size()), type);
                        }
                    },
                    bytes);
                return;
            }
            default:
                Protocol(conn, "unexpected frame on the control connection");
                return;
        }
    }

    void OnOpenSession(const std::shared_ptr<Peer>& peer, const std::shared_ptr<NetConnection>& conn,
                       const FrameHeader& h, const RxBody& body)
    {
        std::string name;
        std::string text;
        std::string error;
        if (h.a == 0 || h.a > INT32_MAX || !ParseOpenSession(body.data(), body.size(), &name, &text, &error)) {
            Protocol(conn, "bad session opening: " + error);
            return;
        }
        size_t live = 0;
        for (auto& entry : sessions) {
            live += entry.second.info.peerNetworkId == peer->fp ? 1 : 0;
        }
        if (peer->openings >= MAX_OPENINGS_PER_PEER || live >= MAX_SESSIONS_PER_PEER) {
            Protocol(conn, "too many session openings at once");
            return;
        }
        int32_t id = nextSessionId++;
        Session& s = sessions[id];
        s.info.sessionId = id;
        s.info.sessionName = name;
        s.info.peerNetworkId = peer->fp;
        s.info.openedByPeer = true;
        s.peerId = h.a;
        s.ctrl = conn;
        peer->openings++;
        CtrlSessionInfo info = s.info;
        uint32_t openerId = h.a;
        openThreads.Spawn([this, peer, conn, info, text, openerId] {
            SoftBusListener* l = listener.load();
            int32_t result = l != nullptr ? l->OnCtrlSessionOpened(info, text) : HOST_ERR_NO_SESSION;
            std::lock_guard<std::mutex> lock(mu);
            peer->openings--;
            auto it = sessions.find(info.sessionId);
            if (result != 0 && it != sessions.end()) {
                sessions.erase(it);
            }
            SendEmpty(conn, FrameType::OPEN_RESULT, openerId, result == 0 ? static_cast<uint32_t>(info.sessionId) : 0,
                      static_cast<uint32_t>(result));
        });
    }

    void OnDataFrame(const std::shared_ptr<Peer>& peer, const std::shared_ptr<NetConnection>& conn,
                     const FrameHeader& h, std::shared_ptr<RxBody> body)
    {
        switch (h.type) {
            case FrameType::HEARTBEAT:
                return;
            case FrameType::OPEN_CHANNEL: {
                if (h.a == 0 || h.a > INT32_MAX || peer->inChannels.count(h.a) != 0 ||
                    peer->inChannels.size() >= MAX_SESSIONS_PER_PEER) {
                    Protocol(conn, "bad or too many channel openings");
                    return;
                }
                int32_t id = nextChannelId++;
                Channel& c = channels[id];
                c.fp = peer->fp;
                c.outgoing = false;
                c.peerChannelId = h.a;
                c.data = conn;
                peer->inChannels[h.a] = id;
                return;
            }
            case FrameType::CLOSE_CHANNEL: {
                auto it = peer->inChannels.find(h.a);
                if (it == peer->inChannels.end()) {
                    Protocol(conn, "closing an unknown channel " + std::to_string(h.a));
                    return;
                }
                if (it->second > 0) {
                    channels.erase(it->second);
                }
                peer->inChannels.erase(it);
                return;
            }
            case FrameType::DATA_MESSAGE: {
                int32_t local = -1;
                if ((h.flags & FRAME_FLAG_RECEIVER_CHANNEL) != 0) {
                    auto it = channels.find(static_cast<int32_t>(h.a));
                    bool known = it != channels.end() && it->second.outgoing && it->second.fp == peer->fp;
                    if (!known && (h.a == 0 || h.a >= static_cast<uint32_t>(nextChannelId) ||
                                   (it != channels.end() && it->second.fp != peer->fp))) {
                        Protocol(conn, "data on an unknown channel " + std::to_string(h.a));
                        return;
                    }
                    local = known ? static_cast<int32_t>(h.a) : -1;
                } else {
                    auto it = peer->inChannels.find(h.a);
                    if (it == peer->inChannels.end()) {
                        Protocol(conn, "data on an unknown channel " + std::to_string(h.a));
                        return;
                    }
                    local = it->second;
                }
                if (local <= 0) {
                    return;  // closed here meanwhile
                }
                bool bad = false;
                Session* s = h.b == 0 ? nullptr : PeerSession(peer, h.b, &bad);
                bool hasSession = s != nullptr;
                CtrlSessionInfo info = hasSession ? s->info : CtrlSessionInfo();
                uint32_t type = h.c;
                Post(
                    peer,
                    [this, local, hasSession, info, body, type] {
                        if (SoftBusListener* l = listener.load()) {
                            l->OnDataMessage(local, hasSession ? &info : nullptr, body->data(),
                                             static_cast<uint32_t>(body->size()), type);
                        }
                    },
                    0);
                return;
            }
            default:
                Protocol(conn, "unexpected frame on the data connection");
                return;
        }
    }

    // ---- periodic work: heartbeats, silence, redial, announcements ----

    void ArmTick()
    {
        tick.expires_after(TickPeriod());
        tick.async_wait([this](const asio::error_code& ec) {
            if (ec || stopped.load()) {
                return;
            }
            OnTick();
            ArmTick();
        });
    }

    void OnTick()
    {
        std::lock_guard<std::mutex> lock(mu);
        if (stopping) {
            return;
        }
        Clock::time_point now = Clock::now();
        auto silenceLimit = cfg.linkTimeout - TickPeriod();
        std::vector<std::shared_ptr<Peer>> all;
        for (auto& entry : peers) {
            all.push_back(entry.second);
        }
        for (auto& peer : all) {
            if (peer->pairConn && now - peer->pairSince >= cfg.pairingTimeout) {
                ExpirePairing(peer);
            }
            if (peer->ctrl) {
                if (now - peer->lastHeartbeat >= cfg.heartbeatInterval) {
                    SendEmpty(peer->ctrl, FrameType::HEARTBEAT);
                    peer->lastHeartbeat = now;
                }
                Clock::time_point last = peer->ctrl->LastReceived();
                if (peer->data) {
                    last = std::max(last, peer->data->LastReceived());
                }
                if (now - last >= silenceLimit) {
                    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - last).count();
                    TearDown(peer, "nothing heard for " + std::to_string(ms) + " ms");
                } else if (!peer->linked && now - peer->ctrlSince >= 2 * cfg.linkTimeout) {
                    // The data connection never came: start over rather than stay half linked.
                    TearDown(peer, "the data connection did not come up");
                }
            }
            if (wifiUp && !peer->ctrl && !peer->dialing && !StaticDialInFlight(*peer) && !peer->address.empty() &&
                peer->port != 0 && MyFp() < peer->fp && trust.Contains(peer->fp) &&
                now - peer->lastDial >= std::chrono::seconds(1)) {
                peer->dialing = true;
                peer->lastDial = now;
                auto plan = std::make_shared<DialPlan>();
                plan->host = peer->address;
                plan->port = peer->port;
                plan->peerFp = peer->fp;
                Dial(plan);
            }
        }
        for (size_t i = 0; i < statics.size(); ++i) {
            StaticPeer& s = statics[i];
            std::shared_ptr<Peer> peer = s.fp.empty() ? nullptr : PeerFor(s.fp, false);
            bool wanted = s.fp.empty() ? !KnownPeerBusyAt(s.host, s.port)
                                       : peer && !peer->ctrl && !peer->dialing &&
                                             (trust.Contains(s.fp) || cfg.trustOnFirstUse);
            if (wifiUp && wanted && !s.dialing && now - s.lastDial >= std::chrono::seconds(1)) {
                s.dialing = true;
                s.lastDial = now;
                auto plan = std::make_shared<DialPlan>();
                plan->host = s.host;
                plan->port = s.port;
                plan->staticIndex = static_cast<int>(i);
                Dial(plan);
            }
        }
        if (udpSocket.is_open() && wifiUp && now - lastAnnounce >= cfg.heartbeatInterval) {
            lastAnnounce = now;
            Announce();
        }
        if (!reportedNothingFound && now - startTime >= std::chrono::seconds(10) && peers.empty()) {
            reportedNothingFound = true;
            TNDR_LINK_LOGI("no device found yet: %{public}s", DiscoveryReport().c_str());
        }
    }

    // Nobody confirmed the code in time: the pairing ends on both sides, and the peer learns
    // why, so neither user is left looking at a code that no longer means anything.
    void ExpirePairing(const std::shared_ptr<Peer>& peer)
    {
        auto secs = std::chrono::duration_cast<std::chrono::seconds>(cfg.pairingTimeout).count();
        std::string why = "the code was not confirmed within " + std::to_string(secs) + " s; pair again";
        TNDR_LINK_LOGI("pairing with %{public}s ended: %{public}s", Describe(*peer).c_str(), why.c_str());
        SendEmpty(peer->pairConn, FrameType::PAIR_CONFIRM, 0, PAIR_TIMED_OUT, 0);
        peer->pairConn->CloseWhenSent("pairing timed out");
        FinishPairing(peer, false, why);
    }

    std::string DiscoveryReport()
    {
        std::string out;
        if (cfg.discoveryPort == 0) {
            out += "broadcast discovery is off";
        } else if (announcementsHeard == 0) {
            out += "broadcast discovery on UDP port " + std::to_string(cfg.discoveryPort) + " heard no device";
        } else {
            out += "broadcast discovery heard " + std::to_string(announcementsHeard) + " announcement(s)";
        }
        if (statics.empty()) {
            out += "; no static peers configured";
        }
        for (const StaticPeer& s : statics) {
            out += "; static peer " + s.text + (s.fp.empty() ? ": " + s.lastError : ": reached");
        }
        out += "; " + (cfg.dnsSd ? dnsSd.Describe() : std::string("DNS-SD is off in the configuration"));
        out += ". If your network drops broadcast, name the peer as a static peer (host:port)";
        return out;
    }

    // ---- discovery ----

    void Announce()
    {
        Json::Value root;
        root["tandra"] = 1;
        root["id"] = MyFp();
        root["name"] = cfg.deviceName;
        root["type"] = cfg.deviceType;
        root["port"] = port;
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        auto text = std::make_shared<std::string>(Json::writeString(builder, root));
        asio::error_code ec;
        udp::endpoint to(asio::ip::make_address(cfg.broadcastAddress, ec), cfg.discoveryPort);
        if (ec) {
            return;
        }
        udpSocket.async_send_to(asio::buffer(*text), to, [text](const asio::error_code&, size_t) {});
    }

    void ReadAnnouncements()
    {
        udpSocket.async_receive_from(asio::buffer(udpBuffer), udpSender, [this](const asio::error_code& ec, size_t n) {
            if (ec == asio::error::operation_aborted || stopped.load()) {
                return;
            }
            if (!ec) {
                OnAnnouncement(n);
            }
            ReadAnnouncements();
        });
    }

    void OnAnnouncement(size_t n)
    {
        Json::Value root;
        Vex::JsonRules rules;
        rules.depthLimit = 8;
        std::string errs;
        if (!Vex::ParseJsonText(udpBuffer, n, &root, &errs, rules) || !root.isObject() || !root["id"].isString() ||
            !root["port"].isUInt() || root["port"].asUInt() == 0 || root["port"].asUInt() > 65535 ||
            !root["name"].isString() || !root["type"].isUInt()) {
            return;  // not ours: broadcast ports are shared
        }
        std::string fp = root["id"].asString();
        if (fp == MyFp() || fp.size() != 64) {
            return;
        }
        std::lock_guard<std::mutex> lock(mu);
        announcementsHeard++;
        Discovered(fp, root["name"].asString(), root["type"].asUInt(), udpSender.address().to_string(),
                   static_cast<uint16_t>(root["port"].asUInt()), DiscoverySource::BROADCAST);
    }

    // Where a device says it listens. Only a hint: the handshake checks its certificate.
    void Discovered(const std::string& fp, const std::string& name, uint32_t type, const std::string& address,
                    uint16_t devicePort, DiscoverySource source)
    {
        std::shared_ptr<Peer> peer = PeerFor(fp, true);
        if (!peer) {
            return;
        }
        bool fresh = peer->address.empty();
        if (!peer->ctrl) {
            peer->address = address;
            peer->port = devicePort;
        }
        peer->name = name.substr(0, 256);
        peer->type = type;
        if (fresh) {
            peer->foundBy = source;
            TNDR_LINK_LOGI("found %{public}s at %{public}s:%{public}u by %{public}s", Describe(*peer).c_str(),
                           peer->address.c_str(), peer->port, DiscoverySourceName(source));
        }
    }

    void OnDnsSdFound(const DnsSdFound& found)
    {
        std::lock_guard<std::mutex> lock(mu);
        if (stopping || found.networkId == MyFp()) {
            return;
        }
        Discovered(found.networkId, found.name, found.deviceType, found.address, found.port, DiscoverySource::DNS_SD);
    }

    void OnWifiChanged(bool up)
    {
        {
            std::lock_guard<std::mutex> lock(mu);
            if (stopping || wifiUp == up) {
                return;
            }
            wifiUp = up;
            TNDR_LINK_LOGI("interface %{public}s is %{public}s", cfg.interfaceName.c_str(), up ? "up" : "down");
        }
        // Listeners hear "Wi-Fi off" before the links it takes down report their sessions
        // closed, so a collaboration ends as Wi-Fi off, not as a lost link.
        events.Post([this, up] {
            if (LinkObserver* o = observer.load()) {
                o->OnWifiStateChanged(up);
            }
            if (up) {
                return;
            }
            std::lock_guard<std::mutex> lock(mu);
            if (stopping || wifiUp) {
                return;
            }
            for (auto& entry : peers) {
                TearDown(entry.second, "Wi-Fi is off");
                if (entry.second->pairConn) {
                    entry.second->pairConn->Close("Wi-Fi is off");
                }
            }
        });
    }

    void Accept()
    {
        acceptor.async_accept([this](const asio::error_code& ec, tcp::socket socket) {
            if (ec == asio::error::operation_aborted || stopped.load() || !acceptor.is_open()) {
                return;
            }
            if (!ec) {
                StartConnection(std::move(socket), false, nullptr);
            }
            Accept();
        });
    }
};

// ---------------------------------------------------------------------------------------------

std::unique_ptr<NetSoftBus> NetSoftBus::Create(const NetBusConfig& config, std::string* error)
{
    auto impl = std::make_unique<Impl>(config);
    impl->identity = NetIdentity::LoadOrCreate(config.stateDir, config.deviceName, error);
    if (!impl->identity || !impl->trust.Load(error)) {
        return nullptr;
    }
    for (const std::string& text : config.staticPeers) {
        size_t colon = text.rfind(':');
        int port = colon == std::string::npos ? 0 : std::atoi(text.c_str() + colon + 1);
        if (colon == 0 || port <= 0 || port > 65535) {
            *error = "static peer '" + text + "' is not host:port";
            return nullptr;
        }
        Impl::StaticPeer s;
        s.text = text;
        s.host = text.substr(0, colon);
        if (s.host.size() > 2 && s.host.front() == '[' && s.host.back() == ']') {
            s.host = s.host.substr(1, s.host.size() - 2);
        }
        s.port = static_cast<uint16_t>(port);
        impl->statics.push_back(s);
    }
    SSL_CTX* ctx = impl->ssl.native_handle();
    SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
    SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION);
    // Self-signed certificates: the chain is not what is checked but the fingerprint, once the
    // handshake proves the peer holds the certificate's key.
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                       [](int, X509_STORE_CTX*) { return 1; });
    if (SSL_CTX_use_certificate(ctx, impl->identity->Certificate()) != 1 ||
        SSL_CTX_use_PrivateKey(ctx, impl->identity->Key()) != 1) {
        *error = "OpenSSL refused the device certificate";
        return nullptr;
    }
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(ctx, 0);
    return std::unique_ptr<NetSoftBus>(new NetSoftBus(std::move(impl)));
}

NetSoftBus::NetSoftBus(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

NetSoftBus::~NetSoftBus()
{
    Stop();
}

int32_t NetSoftBus::Start(std::string* error)
{
    Impl& d = *impl_;
    if (d.started.exchange(true)) {
        *error = "the device link is already started";
        return HOST_ERR_INVALID_PARAM;
    }
    asio::error_code ec;
    tcp::endpoint endpoint(asio::ip::make_address(d.cfg.bindAddress, ec), d.cfg.port);
    if (ec) {
        *error = "bad bind address '" + d.cfg.bindAddress + "'";
        return HOST_ERR_INVALID_PARAM;
    }
    d.acceptor.open(endpoint.protocol(), ec);
    if (!ec) {
        d.acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
        d.acceptor.bind(endpoint, ec);
    }
    if (!ec) {
        d.acceptor.listen(asio::socket_base::max_listen_connections, ec);
    }
    if (ec) {
        *error = "cannot listen on " + d.cfg.bindAddress + ":" + std::to_string(d.cfg.port) + ": " + ec.message() +
                 "; choose another port";
        return HOST_ERR_INVALID_PARAM;
    }
    d.port = d.acceptor.local_endpoint().port();
    if (d.cfg.discoveryPort != 0) {
        d.udpSocket.open(udp::v4(), ec);
        if (!ec) {
            d.udpSocket.set_option(asio::socket_base::reuse_address(true), ec);
            d.udpSocket.set_option(asio::socket_base::broadcast(true), ec);
            d.udpSocket.bind(udp::endpoint(asio::ip::address_v4::any(), d.cfg.discoveryPort), ec);
        }
        if (ec) {
            *error = "cannot listen for announcements on UDP port " + std::to_string(d.cfg.discoveryPort) + ": " +
                     ec.message();
            return HOST_ERR_INVALID_PARAM;
        }
        d.ReadAnnouncements();
    }
    if (!d.cfg.interfaceName.empty()) {
        if (!d.iface.Start(d.cfg.interfaceName, [&d](bool up) { d.OnWifiChanged(up); }, error)) {
            return HOST_ERR_INVALID_PARAM;
        }
        d.wifiUp = d.iface.IsUp();
        if (!d.wifiUp) {
            TNDR_LINK_LOGI("interface %{public}s is down or missing: Wi-Fi off", d.cfg.interfaceName.c_str());
        }
    }
    d.startTime = Clock::now();
    d.Accept();
    d.ArmTick();
    TNDR_LINK_LOGI("device link of '%{public}s' (%{public}s) listens on port %{public}u", d.cfg.deviceName.c_str(),
                   Short(d.MyFp()).c_str(), d.port);
    std::promise<void> done;
    d.ioDone = done.get_future();
    d.ioThread = std::thread([&d, done = std::move(done)]() mutable {
        d.io.run();
        done.set_value();
    });
    if (d.cfg.dnsSd) {
        std::string why;
        d.dnsSd.Start(d.cfg.deviceName, d.cfg.deviceType, d.MyFp(), d.port,
                      [&d](const DnsSdFound& found) { d.OnDnsSdFound(found); }, &why);
    }
    return HOST_OK;
}

void NetSoftBus::Stop()
{
    Impl& d = *impl_;
    // A start that failed before its loop ran has nothing to stop.
    if (!d.started.load() || !d.ioThread.joinable() || d.stopped.exchange(true)) {
        return;
    }
    // First, and without mu: its thread may be waiting for mu in the found handler.
    d.dnsSd.Stop();
    {
        std::lock_guard<std::mutex> lock(d.mu);
        d.stopping = true;
        for (auto& entry : d.peers) {
            d.TearDown(entry.second, "this device stops");
        }
        for (auto& entry : d.conns) {
            entry.second.conn->Close("this device stops");
        }
    }
    // Sockets, resolvers and timers belong to the I/O thread: closed there.
    asio::post(d.io, [&d] {
        asio::error_code ignored;
        {
            std::lock_guard<std::mutex> lock(d.mu);
            for (auto& entry : d.dials) {
                entry.second.resolver->cancel();
                entry.second.socket->close(ignored);
                entry.second.timer->cancel();
            }
        }
        d.acceptor.close(ignored);
        d.udpSocket.close(ignored);
        d.tick.cancel();
        d.iface.Stop();
    });
    // Every socket is closed, so the loop runs out of work; a stuck handler must not hang Stop.
    if (d.ioDone.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        d.io.stop();
    }
    d.ioThread.join();
    d.openThreads.JoinAll();
    std::vector<std::shared_ptr<SerialDispatcher>> dispatchers;
    {
        std::lock_guard<std::mutex> lock(d.mu);
        for (auto& entry : d.sessions) {
            if (entry.second.wait) {
                entry.second.wait->Finish(HOST_ERR_SEND_FAILED);
            }
        }
        d.sessions.clear();
        d.channels.clear();
        for (auto& entry : d.peers) {
            if (entry.second->dispatcher) {
                dispatchers.push_back(entry.second->dispatcher);
            }
        }
    }
    for (auto& dispatcher : dispatchers) {
        dispatcher->Stop();
    }
    d.events.Stop();
    std::lock_guard<std::mutex> lock(d.mu);
    d.conns.clear();
    d.peers.clear();
    d.dials.clear();
}

DeviceIdentity NetSoftBus::GetLocalIdentity()
{
    DeviceIdentity id;
    id.networkId = impl_->MyFp();
    id.udid = impl_->MyFp();
    id.deviceName = impl_->cfg.deviceName;
    id.deviceType = impl_->cfg.deviceType;
    return id;
}

uint16_t NetSoftBus::GetPort()
{
    return impl_->port;
}

void NetSoftBus::SetLocalAbilities(std::vector<AbilityInfo> abilities)
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    impl_->localAbilities = std::move(abilities);
    for (auto& entry : impl_->peers) {
        if (entry.second->ctrl) {
            impl_->SendAbilities(entry.second->ctrl);
        }
    }
}

std::vector<PeerDevice> NetSoftBus::GetPeerDevices()
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    std::vector<PeerDevice> out;
    for (auto& entry : impl_->peers) {
        if (entry.second->linked) {
            PeerDevice p;
            p.identity = impl_->KnownOf(*entry.second).identity;
            p.abilities = entry.second->abilities;
            out.push_back(std::move(p));
        }
    }
    return out;
}

std::vector<KnownDevice> NetSoftBus::GetKnownDevices()
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    std::vector<KnownDevice> out;
    for (auto& entry : impl_->peers) {
        out.push_back(impl_->KnownOf(*entry.second));
    }
    for (const Impl::StaticPeer& s : impl_->statics) {
        if (s.fp.empty()) {
            KnownDevice d;
            d.address = s.host;
            d.port = s.port;
            d.foundBy = DiscoverySource::STATIC;
            out.push_back(d);
        }
    }
    return out;
}

bool NetSoftBus::IsWifiActive()
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    return impl_->wifiUp;
}

int32_t NetSoftBus::RequestPairing(const std::string& nameOrId, std::string* shortCode, std::string* error)
{
    Impl& d = *impl_;
    std::unique_lock<std::mutex> lock(d.mu);
    std::shared_ptr<Impl::Peer> peer = d.FindPeer(nameOrId);
    if (!peer || peer->address.empty()) {
        *error = "no device named '" + nameOrId + "' was found: " + d.DiscoveryReport();
        TNDR_LINK_LOGE("pairing: %{public}s", error->c_str());
        return HOST_ERR_NO_DEVICE;
    }
    if (d.trust.Contains(peer->fp)) {
        *error = "device " + d.Describe(*peer) + " is already paired";
        return HOST_ERR_INVALID_PARAM;
    }
    if (!d.wifiUp) {
        *error = "Wi-Fi is off: cannot reach " + d.Describe(*peer);
        return HOST_ERR_NO_DEVICE;
    }
    if (!peer->pairConn) {
        peer->pairError.clear();
        peer->dialing = true;
        auto plan = std::make_shared<Impl::DialPlan>();
        plan->host = peer->address;
        plan->port = peer->port;
        plan->pairing = true;
        plan->peerFp = peer->fp;
        d.Dial(plan);
        bool ready = d.cv.wait_for(lock, PAIRING_CONNECT_WAIT,
                                   [&] { return d.stopping || peer->pairConn || !peer->pairError.empty(); });
        if (!ready || !peer->pairConn) {
            *error = "cannot reach " + d.Describe(*peer) + " at " + peer->address + ":" + std::to_string(peer->port) +
                     " to pair: " + (peer->pairError.empty() ? "no answer" : peer->pairError);
            TNDR_LINK_LOGE("pairing: %{public}s", error->c_str());
            return HOST_ERR_NO_DEVICE;
        }
    }
    *shortCode = NetIdentity::PairingCode(d.MyFp(), peer->fp);
    TNDR_LINK_LOGI("asked %{public}s to pair; code %{public}s", d.Describe(*peer).c_str(), shortCode->c_str());
    return HOST_OK;
}

int32_t NetSoftBus::ConfirmPairing(const std::string& nameOrId, bool accept, std::string* error)
{
    Impl& d = *impl_;
    std::lock_guard<std::mutex> lock(d.mu);
    std::shared_ptr<Impl::Peer> peer = d.FindPeer(nameOrId);
    if (peer && !peer->pairConn && !peer->pairError.empty()) {
        *error = "the pairing with " + d.Describe(*peer) + " has ended: " + peer->pairError;
        return HOST_ERR_NO_DEVICE;
    }
    if (!peer || !peer->pairConn) {
        *error = "no pairing with '" + nameOrId + "' is in progress: ask for it first (pair " + nameOrId + ")";
        return HOST_ERR_NO_DEVICE;
    }
    peer->pairLocal = accept ? 1 : -1;
    Impl::SendEmpty(peer->pairConn, FrameType::PAIR_CONFIRM, 0, 0, accept ? 1 : 0);
    if (!accept) {
        TNDR_LINK_LOGI("declined to pair with %{public}s", d.Describe(*peer).c_str());
        peer->pairConn->CloseWhenSent("pairing declined here");
        d.FinishPairing(peer, false, "declined here");
    } else if (peer->pairRemote > 0) {
        d.CompletePairing(peer);
    }
    return HOST_OK;
}

int32_t NetSoftBus::Unpair(const std::string& nameOrId, std::string* error)
{
    Impl& d = *impl_;
    std::lock_guard<std::mutex> lock(d.mu);
    std::shared_ptr<Impl::Peer> peer = d.FindPeer(nameOrId);
    if (!peer || !d.trust.Contains(peer->fp)) {
        *error = "no paired device '" + nameOrId + "'";
        return HOST_ERR_NO_DEVICE;
    }
    if (!d.trust.Remove(peer->fp, error)) {
        return HOST_ERR_INVALID_PARAM;
    }
    TNDR_LINK_LOGI("unpaired %{public}s", d.Describe(*peer).c_str());
    d.TearDown(peer, "unpaired");
    return HOST_OK;
}

void NetSoftBus::SetLinkObserver(LinkObserver* observer)
{
    impl_->observer.store(observer);
}

NetLinkStats NetSoftBus::GetLinkStats(const std::string& networkId)
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    NetLinkStats stats;
    std::shared_ptr<Impl::Peer> peer = impl_->PeerFor(networkId, false);
    if (peer && peer->ctrl) {
        stats.controlBytesIn = peer->ctrl->BytesIn();
        stats.controlBytesOut = peer->ctrl->BytesOut();
    }
    if (peer && peer->data) {
        stats.dataBytesIn = peer->data->BytesIn();
        stats.dataBytesOut = peer->data->BytesOut();
    }
    return stats;
}

void NetSoftBus::SetListener(SoftBusListener* listener)
{
    impl_->listener.store(listener);
}

std::pair<int32_t, int32_t> NetSoftBus::OpenCtrlSession(const std::string& peerNetworkId,
                                                        const std::string& sessionName,
                                                        const std::string& commandText)
{
    Impl& d = *impl_;
    std::shared_ptr<OpenWait> wait = std::make_shared<OpenWait>();
    int32_t id = 0;
    std::shared_ptr<NetConnection> conn;
    std::string body = EncodeOpenSession(sessionName, commandText);
    {
        std::lock_guard<std::mutex> lock(d.mu);
        std::shared_ptr<Impl::Peer> peer = d.PeerFor(peerNetworkId, false);
        if (!peer || !peer->linked || d.stopping) {
            TNDR_LINK_LOGE("cannot open a session to %{public}s: %{public}s", Short(peerNetworkId).c_str(),
                           !peer ? "unknown device" : !d.trust.Contains(peerNetworkId) ? "not paired" : "no link");
            return {HOST_ERR_NO_DEVICE, -1};
        }
        if (sessionName.empty() || sessionName.size() > 256 || body.size() > d.cfg.maxControlMessage) {
            return {HOST_ERR_INVALID_PARAM, -1};
        }
        id = d.nextSessionId++;
        Impl::Session& s = d.sessions[id];
        s.info.sessionId = id;
        s.info.sessionName = sessionName;
        s.info.peerNetworkId = peerNetworkId;
        s.info.openedByPeer = false;
        s.ctrl = peer->ctrl;
        s.wait = wait;
        conn = peer->ctrl;
    }
    FrameHeader h;
    h.type = FrameType::OPEN_SESSION;
    h.a = static_cast<uint32_t>(id);
    h.length = static_cast<uint32_t>(body.size());
    conn->SendCopy(h, body.data(), body.size());
    int32_t result = wait->Wait();
    if (result != 0) {
        std::lock_guard<std::mutex> lock(d.mu);
        d.sessions.erase(id);
        return {result, -1};
    }
    return {HOST_OK, id};
}

int32_t NetSoftBus::CloseCtrlSession(int32_t sessionId, bool notifyPeer)
{
    Impl& d = *impl_;
    std::lock_guard<std::mutex> lock(d.mu);
    auto it = d.sessions.find(sessionId);
    if (it == d.sessions.end()) {
        return HOST_ERR_NO_SESSION;
    }
    if (notifyPeer && it->second.peerId != 0) {
        Impl::SendEmpty(it->second.ctrl, FrameType::CLOSE_SESSION, it->second.peerId);
    }
    if (it->second.wait) {
        it->second.wait->Finish(HOST_ERR_NO_SESSION);
    }
    d.sessions.erase(it);
    return HOST_OK;
}

bool NetSoftBus::HasCtrlSession(int32_t sessionId)
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    auto it = impl_->sessions.find(sessionId);
    return it != impl_->sessions.end() && !it->second.wait;
}

int32_t NetSoftBus::SendCtrlMessage(int32_t sessionId, const char* data, uint32_t len, uint32_t type)
{
    Impl& d = *impl_;
    std::shared_ptr<NetConnection> conn;
    FrameHeader h;
    {
        std::lock_guard<std::mutex> lock(d.mu);
        auto it = d.sessions.find(sessionId);
        if (it == d.sessions.end() || it->second.peerId == 0) {
            return HOST_ERR_NO_SESSION;
        }
        if (len > d.cfg.maxControlMessage || (data == nullptr && len > 0)) {
            TNDR_LINK_LOGE("control message of %{public}u bytes exceeds the limit of %{public}u", len,
                           d.cfg.maxControlMessage);
            return HOST_ERR_INVALID_PARAM;
        }
        conn = it->second.ctrl;
        h.type = FrameType::CTRL_MESSAGE;
        h.a = it->second.peerId;
        h.c = type;
        h.length = len;
    }
    conn->SendCopy(h, data, len);
    return HOST_OK;
}

std::pair<int32_t, int32_t> NetSoftBus::OpenDataChannel(const std::string& peerDeviceId, const SessionAttribute&)
{
    Impl& d = *impl_;
    std::lock_guard<std::mutex> lock(d.mu);
    std::shared_ptr<Impl::Peer> peer = d.PeerFor(peerDeviceId, false);
    if (!peer || !peer->linked || d.stopping) {
        TNDR_LINK_LOGE("cannot open a data channel to %{public}s: no link", Short(peerDeviceId).c_str());
        return {HOST_ERR_NO_DEVICE, -1};
    }
    int32_t id = d.nextChannelId++;
    Impl::Channel& c = d.channels[id];
    c.fp = peer->fp;
    c.outgoing = true;
    c.data = peer->data;
    Impl::SendEmpty(peer->data, FrameType::OPEN_CHANNEL, static_cast<uint32_t>(id));
    return {HOST_OK, id};
}

int32_t NetSoftBus::CloseDataChannel(int32_t channelId)
{
    Impl& d = *impl_;
    std::lock_guard<std::mutex> lock(d.mu);
    auto it = d.channels.find(channelId);
    if (it == d.channels.end()) {
        return HOST_ERR_NO_SESSION;
    }
    if (it->second.outgoing) {
        Impl::SendEmpty(it->second.data, FrameType::CLOSE_CHANNEL, static_cast<uint32_t>(channelId));
    } else if (auto peer = d.PeerFor(it->second.fp, false)) {
        peer->inChannels[it->second.peerChannelId] = -1;
    }
    d.channels.erase(it);
    return HOST_OK;
}

int32_t NetSoftBus::PrepareDataMessage(int32_t channelId, int32_t ctrlSessionId, uint64_t len, uint32_t type,
                                       bool isFirst, FrameHeader* h, std::shared_ptr<NetConnection>* conn)
{
    Impl& d = *impl_;
    std::lock_guard<std::mutex> lock(d.mu);
    auto it = d.channels.find(channelId);
    if (it == d.channels.end()) {
        return HOST_ERR_NO_SESSION;
    }
    if (len > d.cfg.maxDataMessage) {
        TNDR_LINK_LOGE("data message of %{public}llu bytes exceeds the limit of %{public}u",
                       static_cast<unsigned long long>(len), d.cfg.maxDataMessage);
        return HOST_ERR_INVALID_PARAM;
    }
    auto s = d.sessions.find(ctrlSessionId);
    h->type = FrameType::DATA_MESSAGE;
    h->flags = (isFirst ? FRAME_FLAG_FIRST : 0) | (it->second.outgoing ? 0 : FRAME_FLAG_RECEIVER_CHANNEL);
    h->a = it->second.outgoing ? static_cast<uint32_t>(channelId) : it->second.peerChannelId;
    h->b = s != d.sessions.end() && s->second.info.peerNetworkId == it->second.fp ? s->second.peerId : 0;
    h->c = type;
    h->length = static_cast<uint32_t>(len);
    *conn = it->second.data;
    return HOST_OK;
}

int32_t NetSoftBus::SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len,
                                    uint32_t type, bool isFirst)
{
    if (data == nullptr && len > 0) {
        return HOST_ERR_INVALID_PARAM;
    }
    FrameHeader h;
    std::shared_ptr<NetConnection> conn;
    int32_t result = PrepareDataMessage(channelId, ctrlSessionId, len, type, isFirst, &h, &conn);
    if (result != HOST_OK) {
        return result;
    }
    auto done = std::make_shared<SendCompletion>();
    conn->SendBorrowed(h, data, len, done);
    return done->Wait() ? HOST_OK : HOST_ERR_SEND_FAILED;
}

int32_t NetSoftBus::SendDataMessageFromFile(int32_t channelId, int32_t ctrlSessionId, const char* head,
                                            uint32_t headLen, int fd, uint32_t len, uint32_t type, bool isFirst)
{
    if ((head == nullptr && headLen > 0) || fd < 0) {
        return HOST_ERR_INVALID_PARAM;
    }
    FrameHeader h;
    std::shared_ptr<NetConnection> conn;
    int32_t result =
        PrepareDataMessage(channelId, ctrlSessionId, uint64_t{headLen} + len, type, isFirst, &h, &conn);
    if (result != HOST_OK) {
        return result;
    }
    auto done = std::make_shared<SendCompletion>();
    conn->SendFile(h, head, headLen, fd, len, done);
    return done->Wait() ? HOST_OK : HOST_ERR_SEND_FAILED;
}

}  // namespace Tandra
}  // namespace QUEX
