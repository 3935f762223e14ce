// Two device links in one process on loopback: pairing, sessions, ordering, big data messages
// next to control messages, a killed peer process, and bad peers.
#include <gtest/gtest.h>

#include <openssl/ssl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "host_types.h"
#include "link_test_support.h"
#include "net_frame.h"
#include "net_identity.h"
#include "vex_log.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

using namespace std::chrono_literals;

class LinkTest : public ::testing::Test {
protected:
    std::unique_ptr<NetSoftBus> Make(const std::string& name, bool tofu, LinkRecorder& recorder,
                                     std::vector<std::string> statics = {}, uint16_t discoveryPort = 0)
    {
        NetBusConfig config = LoopbackConfig(name, dir_.Path(), tofu);
        config.staticPeers = std::move(statics);
        config.discoveryPort = discoveryPort;
        if (tweak_) {
            tweak_(config);
        }
        std::string error;
        std::unique_ptr<NetSoftBus> bus = NetSoftBus::Create(config, &error);
        EXPECT_NE(bus, nullptr) << error;
        if (bus == nullptr) {
            return nullptr;
        }
        bus->SetListener(&recorder);
        bus->SetLinkObserver(&recorder);
        EXPECT_EQ(bus->Start(&error), HOST_OK) << error;
        return bus;
    }

    // A and B trusting on first use, B dialling A as a static peer, both linked.
    void StartLinkedPair()
    {
        a_ = Make("A", true, recA_);
        b_ = Make("B", true, recB_, {"127.0.0.1:" + std::to_string(a_->GetPort())});
        idA_ = a_->GetLocalIdentity().networkId;
        idB_ = b_->GetLocalIdentity().networkId;
        ASSERT_TRUE(recA_.Await([&] { return recA_.LinkedLocked(idB_); }));
        ASSERT_TRUE(recB_.Await([&] { return recB_.LinkedLocked(idA_); }));
    }

    // A session opened by A on B: (A's id, B's id).
    std::pair<int32_t, int32_t> OpenSession(const std::string& text = "{}")
    {
        size_t before = recB_.Count("open");
        auto opened = a_->OpenCtrlSession(idB_, "00000000001-" + idB_, text);
        EXPECT_EQ(opened.first, HOST_OK);
        EXPECT_TRUE(recB_.Await([&] { return recB_.CountLocked("open") > before; }));
        return {opened.second, recB_.EventsOf("open").back().session.sessionId};
    }

    std::function<void(NetBusConfig&)> tweak_;  // applied to every configuration Make builds
    TempDir dir_;
    LinkRecorder recA_;
    LinkRecorder recB_;
    std::unique_ptr<NetSoftBus> a_;
    std::unique_ptr<NetSoftBus> b_;
    std::string idA_;
    std::string idB_;
};

TEST_F(LinkTest, IdentityIsTheCertificateFingerprintKeptPrivateAndStable)
{
    LinkRecorder rec;
    std::string first;
    for (int round = 0; round < 2; ++round) {
        auto bus = Make("A", false, rec);
        DeviceIdentity id = bus->GetLocalIdentity();
        EXPECT_EQ(id.networkId.size(), 64u);
        EXPECT_EQ(id.udid, id.networkId);
        EXPECT_EQ(id.deviceName, "A");
        if (round == 0) {
            first = id.networkId;
        }
        EXPECT_EQ(id.networkId, first) << "the identity is created once and then loaded";
        struct stat st;
        ASSERT_EQ(::stat((dir_.Path() + "/A/device.key").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
    }
    EXPECT_EQ(NetIdentity::PairingCode("AA", "BB"), NetIdentity::PairingCode("BB", "AA"));
    EXPECT_NE(NetIdentity::PairingCode("AA", "BB"), NetIdentity::PairingCode("AA", "BC"));
}

struct PairingRow {
    const char* name;
    bool bAccepts;
};

void PrintTo(const PairingRow& row, std::ostream* os)
{
    *os << row.name;
}


class PairingTest : public LinkTest, public ::testing::WithParamInterface<PairingRow> {};

TEST_P(PairingTest, UntrustedPeersAreRefusedUntilBothSidesConfirmTheSameCode)
{
    uint16_t discovery = FreeUdpPort();
    ASSERT_NE(discovery, 0);
    a_ = Make("A", false, recA_, {}, discovery);
    b_ = Make("B", false, recB_, {}, discovery);
    idA_ = a_->GetLocalIdentity().networkId;
    idB_ = b_->GetLocalIdentity().networkId;

    // Broadcast finds B, but it is not trusted: no link, no session.
    auto known = [&](NetSoftBus& bus, const std::string& id) {
        for (const KnownDevice& d : bus.GetKnownDevices()) {
            if (d.identity.networkId == id) {
                return d;
            }
        }
        return KnownDevice();
    };
    for (int i = 0; i < 200 && known(*a_, idB_).identity.networkId.empty(); ++i) {
        recA_.Await([] { return false; }, 50ms);
    }
    KnownDevice seen = known(*a_, idB_);
    ASSERT_EQ(seen.identity.deviceName, "B");
    EXPECT_EQ(seen.foundBy, DiscoverySource::BROADCAST);
    EXPECT_FALSE(seen.trusted);
    EXPECT_EQ(a_->OpenCtrlSession(idB_, "00000000001-" + idB_, "{}").first, HOST_ERR_NO_DEVICE);
    EXPECT_TRUE(a_->GetPeerDevices().empty());

    std::string code;
    std::string error;
    ASSERT_EQ(a_->RequestPairing("B", &code, &error), HOST_OK) << error;
    EXPECT_EQ(code.size(), 6u);
    ASSERT_TRUE(recB_.Await([&] { return recB_.CodesLocked().count(idA_) != 0; }));
    EXPECT_EQ(recB_.PairingCodes()[idA_], code) << "both devices show the same code";

    ASSERT_EQ(a_->ConfirmPairing("B", true, &error), HOST_OK) << error;
    ASSERT_EQ(b_->ConfirmPairing("A", GetParam().bAccepts, &error), HOST_OK) << error;
    ASSERT_TRUE(recA_.Await([&] { return recA_.PairResultsLocked().count(idB_) != 0; }));
    EXPECT_EQ(recA_.PairingResults()[idB_], GetParam().bAccepts);

    if (GetParam().bAccepts) {
        ASSERT_TRUE(recA_.Await([&] { return recA_.LinkedLocked(idB_); }));
        ASSERT_TRUE(recB_.Await([&] { return recB_.LinkedLocked(idA_); }));
        EXPECT_EQ(a_->OpenCtrlSession(idB_, "00000000001-" + idB_, "{}").first, HOST_OK);
        struct stat st;
        ASSERT_EQ(::stat((dir_.Path() + "/A/trusted.json").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
    } else {
        EXPECT_FALSE(known(*a_, idB_).trusted);
        EXPECT_FALSE(known(*b_, idA_).trusted);
        EXPECT_TRUE(a_->GetPeerDevices().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, PairingTest,
                         ::testing::Values(PairingRow{"BothConfirm", true}, PairingRow{"PeerDeclines", false}),
                         [](const ::testing::TestParamInfo<PairingRow>& info) { return info.param.name; });

struct PairingTimeoutRow {
    const char* name;
    bool requesterConfirms;
};

void PrintTo(const PairingTimeoutRow& row, std::ostream* os)
{
    *os << row.name;
}

class PairingTimeoutTest : public LinkTest, public ::testing::WithParamInterface<PairingTimeoutRow> {};

TEST_P(PairingTimeoutTest, AnUnconfirmedCodeEndsThePairingOnBothSides)
{
    tweak_ = [](NetBusConfig& config) { config.pairingTimeout = 500ms; };
    a_ = Make("A", false, recA_);
    b_ = Make("B", false, recB_, {"127.0.0.1:" + std::to_string(a_->GetPort())});
    idA_ = a_->GetLocalIdentity().networkId;
    idB_ = b_->GetLocalIdentity().networkId;
    // B's static dial makes it known to A (and is refused: not paired).
    std::string code;
    std::string error;
    int32_t asked = HOST_ERR_NO_DEVICE;
    for (int i = 0; i < 100 && asked != HOST_OK; ++i) {
        asked = a_->RequestPairing("B", &code, &error);
        if (asked != HOST_OK) {
            recA_.Await([] { return false; }, 50ms);
        }
    }
    ASSERT_EQ(asked, HOST_OK) << error;
    ASSERT_TRUE(recB_.Await([&] { return recB_.CodesLocked().count(idA_) != 0; }));
    if (GetParam().requesterConfirms) {
        ASSERT_EQ(a_->ConfirmPairing("B", true, &error), HOST_OK) << error;
    }

    ASSERT_TRUE(recA_.Await([&] { return recA_.PairResultsLocked().count(idB_) != 0; }, 5s));
    ASSERT_TRUE(recB_.Await([&] { return recB_.PairResultsLocked().count(idA_) != 0; }, 5s));
    EXPECT_FALSE(recA_.PairingResults()[idB_]);
    EXPECT_FALSE(recB_.PairingResults()[idA_]);
    // A confirmation that comes too late says why and what to do.
    for (NetSoftBus* bus : {a_.get(), b_.get()}) {
        std::string late;
        EXPECT_EQ(bus->ConfirmPairing(bus == a_.get() ? "B" : "A", true, &late), HOST_ERR_NO_DEVICE);
        EXPECT_NE(late.find("not confirmed"), std::string::npos) << late;
        EXPECT_NE(late.find("pair again"), std::string::npos) << late;
    }
    EXPECT_TRUE(a_->GetPeerDevices().empty());
    EXPECT_TRUE(b_->GetPeerDevices().empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, PairingTimeoutTest,
                         ::testing::Values(PairingTimeoutRow{"NobodyConfirms", false},
                                           PairingTimeoutRow{"OnlyTheRequesterConfirms", true}),
                         [](const ::testing::TestParamInfo<PairingTimeoutRow>& info) { return info.param.name; });

// Anyone can make a certificate and ask to pair: only a few pairings wait for the users at
// once, so strangers cannot hold every connection slot for the whole pairing deadline.
TEST_F(LinkTest, OnlyAFewPairingsWaitForConfirmationAtOnce)
{
    a_ = Make("A", false, recA_);
    idA_ = a_->GetLocalIdentity().networkId;
    const std::string at = "127.0.0.1:" + std::to_string(a_->GetPort());
    constexpr int STRANGERS = 5;
    std::vector<std::unique_ptr<LinkRecorder>> recorders;
    std::vector<std::unique_ptr<NetSoftBus>> strangers;
    auto ask = [&](int i) {
        std::string code;
        std::string error;
        int32_t asked = HOST_ERR_NO_DEVICE;
        for (int tries = 0; tries < 100 && asked != HOST_OK; ++tries) {
            asked = strangers[i]->RequestPairing("A", &code, &error);
            if (asked != HOST_OK) {
                recA_.Await([] { return false; }, 50ms);
            }
        }
        return asked;
    };
    for (int i = 0; i < STRANGERS; ++i) {
        recorders.push_back(std::make_unique<LinkRecorder>());
        strangers.push_back(Make("S" + std::to_string(i), false, *recorders.back(), {at}));
    }
    for (int i = 0; i < STRANGERS - 1; ++i) {
        ASSERT_EQ(ask(i), HOST_OK) << i;
        ASSERT_TRUE(recA_.Await([&] { return recA_.CodesLocked().size() == static_cast<size_t>(i + 1); })) << i;
    }
    const std::string last = strangers.back()->GetLocalIdentity().networkId;
    auto knowsA = [&] {
        for (const KnownDevice& d : strangers.back()->GetKnownDevices()) {
            if (d.identity.networkId == idA_) {
                return true;
            }
        }
        return false;
    };
    ASSERT_TRUE(recA_.Await([&] { return knowsA(); }));
    // A closes the fifth at its hello: the asker hears a failure, or a pairing that ends unconfirmed.
    std::string code;
    std::string refused;
    if (strangers.back()->RequestPairing("A", &code, &refused) == HOST_OK) {
        ASSERT_TRUE(recorders.back()->Await([&] { return recorders.back()->PairResultsLocked().count(idA_) != 0; }));
        EXPECT_FALSE(recorders.back()->PairingResults()[idA_]);
    }
    recA_.Await([] { return false; }, 300ms);
    EXPECT_EQ(recA_.PairingCodes().count(last), 0u) << "a fifth pairing was put to the user";

    // Declining one frees its place.
    std::string error;
    ASSERT_EQ(a_->ConfirmPairing("S0", false, &error), HOST_OK) << error;
    ASSERT_EQ(ask(STRANGERS - 1), HOST_OK);
    EXPECT_TRUE(recA_.Await([&] { return recA_.CodesLocked().count(last) != 0; }));
}

TEST_F(LinkTest, HostileAnnouncementsAreIgnoredAndDiscoveryGoesOn)
{
    uint16_t discovery = FreeUdpPort();
    ASSERT_NE(discovery, 0);
    a_ = Make("A", false, recA_, {}, discovery);
    idA_ = a_->GetLocalIdentity().networkId;

    // Anyone on the LAN can send these: nesting past the reader's limit, truncated JSON, a
    // port out of range, an identity of the wrong length.
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    struct sockaddr_in to;
    std::memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(discovery);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (const std::string& hostile :
         {std::string(2000, '['), "{\"id\":" + std::string(500, '{'), std::string("{\"id\":\"x\""),
          std::string("{\"id\":\"") + std::string(64, 'A') + "\",\"port\":70000,\"name\":\"X\",\"type\":1}",
          std::string("{\"id\":\"AB\",\"port\":1,\"name\":\"X\",\"type\":1}")}) {
        ASSERT_EQ(::sendto(fd, hostile.data(), hostile.size(), 0, reinterpret_cast<struct sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(hostile.size()));
    }
    ::close(fd);

    b_ = Make("B", false, recB_, {}, discovery);
    idB_ = b_->GetLocalIdentity().networkId;
    bool found = false;
    for (int i = 0; i < 200 && !found; ++i) {
        for (const KnownDevice& d : a_->GetKnownDevices()) {
            found = found || d.identity.networkId == idB_;
            EXPECT_EQ(d.identity.networkId.size(), 64u) << "no device made up from a hostile announcement";
        }
        recA_.Await([] { return false; }, 50ms);
    }
    EXPECT_TRUE(found) << "A still hears real announcements";
}

TEST_F(LinkTest, AnUnpairedDeviceDiallingInIsRefusedWithALogLine)
{
    Vex::LogCapture log;
    a_ = Make("A", false, recA_);
    b_ = Make("B", true, recB_, {"127.0.0.1:" + std::to_string(a_->GetPort())});
    ASSERT_TRUE(recA_.Await([&] { return false; }, 1500ms) || log.Contains("refused device 'B'"));
    EXPECT_TRUE(log.Contains("not paired with this device"));
    EXPECT_TRUE(a_->GetPeerDevices().empty());
    EXPECT_TRUE(b_->GetPeerDevices().empty());
    std::string error;
    std::string code;
    EXPECT_EQ(a_->RequestPairing("nobody", &code, &error), HOST_ERR_NO_DEVICE);
    EXPECT_NE(error.find("broadcast discovery is off"), std::string::npos) << error;
    EXPECT_NE(error.find("static peer"), std::string::npos) << error;
}

TEST_F(LinkTest, ControlSessionCarriesTheCommandTextAndThePeersResult)
{
    StartLinkedPair();
    ASSERT_EQ(a_->GetPeerDevices().size(), 1u);
    EXPECT_EQ(a_->GetPeerDevices()[0].identity.deviceName, "B");

    auto ids = OpenSession("{\"command\":\"take\"}");
    LinkRecorder::Event opened = recB_.EventsOf("open").back();
    EXPECT_EQ(opened.bytes, "{\"command\":\"take\"}");
    EXPECT_EQ(opened.session.peerNetworkId, idA_);
    EXPECT_TRUE(opened.session.openedByPeer);
    EXPECT_TRUE(a_->HasCtrlSession(ids.first));

    // The peer's refusal is the opener's result.
    recB_.SetOpenResult(1234);
    EXPECT_EQ(a_->OpenCtrlSession(idB_, "00000000002-" + idB_, "{}"), std::make_pair(1234, -1));
    recB_.SetOpenResult(0);

    // Messages both ways, each side naming the session by its own id.
    ASSERT_EQ(a_->SendCtrlMessage(ids.first, "ping", 4, 7), HOST_OK);
    ASSERT_TRUE(recB_.Await([&] { return recB_.CountLocked("ctrl") == 1; }));
    EXPECT_EQ(recB_.EventsOf("ctrl")[0].session.sessionId, ids.second);
    EXPECT_EQ(recB_.EventsOf("ctrl")[0].type, 7u);
    ASSERT_EQ(b_->SendCtrlMessage(ids.second, "pong", 4, 8), HOST_OK);
    ASSERT_TRUE(recA_.Await([&] { return recA_.CountLocked("ctrl") == 1; }));
    EXPECT_EQ(recA_.EventsOf("ctrl")[0].bytes, "pong");
    EXPECT_EQ(recA_.EventsOf("ctrl")[0].session.sessionId, ids.first);

    // Closing with notice reaches the peer only; a local close is not reported.
    ASSERT_EQ(a_->CloseCtrlSession(ids.first, true), HOST_OK);
    ASSERT_TRUE(recB_.Await([&] { return recB_.CountLocked("closed") == 1; }));
    EXPECT_EQ(recB_.EventsOf("closed")[0].session.sessionId, ids.second);
    EXPECT_EQ(recA_.Count("closed"), 0u);
    EXPECT_EQ(a_->CloseCtrlSession(ids.first, true), HOST_ERR_NO_SESSION);
}

TEST_F(LinkTest, AThousandMessagesArriveInOrderOnSessionsAndChannels)
{
    StartLinkedPair();
    auto ids = OpenSession();
    SessionAttribute attr{};
    auto channel = a_->OpenDataChannel(idB_, attr);
    ASSERT_EQ(channel.first, HOST_OK);
    constexpr int COUNT = 1000;
    for (int i = 0; i < COUNT; ++i) {
        std::string text = std::to_string(i);
        ASSERT_EQ(a_->SendCtrlMessage(ids.first, text.data(), static_cast<uint32_t>(text.size()), 1), HOST_OK);
        ASSERT_EQ(a_->SendDataMessage(channel.second, ids.first, text.data(), static_cast<uint32_t>(text.size()), 2,
                                      i == 0),
                  HOST_OK);
    }
    ASSERT_TRUE(recB_.Await([&] { return recB_.CountLocked("ctrl") == COUNT && recB_.CountLocked("data") == COUNT; }));
    auto ctrl = recB_.EventsOf("ctrl");
    auto data = recB_.EventsOf("data");
    for (int i = 0; i < COUNT; ++i) {
        ASSERT_EQ(ctrl[i].bytes, std::to_string(i));
        ASSERT_EQ(data[i].bytes, std::to_string(i));
        ASSERT_TRUE(data[i].hasSession);
        ASSERT_EQ(data[i].session.sessionId, ids.second) << "data names the session by the receiver's id";
    }
    // The receiver answers on the channel it was sent on.
    int32_t theirChannel = data[0].channelId;
    ASSERT_EQ(b_->SendDataMessage(theirChannel, ids.second, "back", 4, 2, true), HOST_OK);
    ASSERT_TRUE(recA_.Await([&] { return recA_.CountLocked("data") == 1; }));
    EXPECT_EQ(recA_.EventsOf("data")[0].channelId, channel.second);
    EXPECT_EQ(recA_.EventsOf("data")[0].session.sessionId, ids.first);
}

TEST_F(LinkTest, ABigDataMessageArrivesWholeAndDoesNotHoldBackAControlMessage)
{
    StartLinkedPair();
    auto ids = OpenSession();
    SessionAttribute attr{};
    auto channel = a_->OpenDataChannel(idB_, attr);
    ASSERT_EQ(channel.first, HOST_OK);
    const size_t size = 256u << 20;
    std::unique_ptr<char[]> photo(new char[size]);
    FillPattern(photo.get(), size, 42);
    uint64_t sum = Checksum(photo.get(), size);

    int32_t sent = -1;
    std::thread sender([&] { sent = a_->SendDataMessage(channel.second, ids.first, photo.get(), size, 2, true); });
    // Once part of the photo has arrived, a control message is sent; it must overtake the rest.
    ASSERT_TRUE(recB_.Await([&] { return b_->GetLinkStats(idA_).dataBytesIn > (16u << 20); }, 60s));
    bool photoDone = recB_.Count("data") != 0;
    EXPECT_FALSE(photoDone) << "the photo arrived before the check could send the control message";
    ASSERT_EQ(a_->SendCtrlMessage(ids.first, "cancel", 6, 3), HOST_OK);
    ASSERT_TRUE(recB_.Await([&] { return recB_.CountLocked("data") == 1; }, 120s));
    sender.join();
    EXPECT_EQ(sent, HOST_OK);

    std::vector<LinkRecorder::Event> events = recB_.Events();
    std::vector<std::string> order;
    for (const auto& e : events) {
        if (e.kind == "ctrl" || e.kind == "data") {
            order.push_back(e.kind);
        }
    }
    EXPECT_EQ(order, (std::vector<std::string>{"ctrl", "data"})) << "the cancel arrived after the photo";
    LinkRecorder::Event photoEvent = recB_.EventsOf("data")[0];
    EXPECT_EQ(photoEvent.len, size);
    EXPECT_EQ(photoEvent.sum, sum);
    EXPECT_EQ(photoEvent.session.sessionId, ids.second);
}

// A data message sent from a file arrives as the same message sent from memory would: the head,
// the file's bytes, zeros where the file ends early, whether it is received into the heap or,
// when large, into shared memory a piece at a time. An unreadable file sends nothing and leaves
// the link as it was.
TEST_F(LinkTest, ADataMessageSentFromAFileArrivesAsTheSameBytesFromMemoryWould)
{
    tweak_ = [](NetBusConfig& config) { config.shareableDataBodies = true; };
    StartLinkedPair();
    auto ids = OpenSession();
    SessionAttribute attr{};
    auto channel = a_->OpenDataChannel(idB_, attr);
    ASSERT_EQ(channel.first, HOST_OK);
    const std::string head = "HEAD1234";
    const std::string path = dir_.Path() + "/photo.bin";
    struct Case {
        const char* name;
        size_t fileSize;
        uint32_t len;  // announced
    };
    const Case cases[] = {
        {"small, into the heap", 10, 10},
        {"many pieces, into shared memory", (3u << 20) + 5, (3u << 20) + 5},
        {"the file ends early", 1000, 300u << 10},
    };
    size_t received = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string content(c.fileSize, '\0');
        FillPattern(&content[0], content.size(), static_cast<uint32_t>(c.fileSize));
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        std::string expected = head + content.substr(0, std::min<size_t>(c.fileSize, c.len));
        expected.resize(head.size() + c.len, '\0');
        int32_t sent = a_->SendDataMessageFromFile(channel.second, ids.first, head.data(),
                                                   static_cast<uint32_t>(head.size()), fd, c.len, 2, received == 0);
        close(fd);
        ASSERT_EQ(sent, HOST_OK);
        ++received;
        ASSERT_TRUE(recB_.Await([&] { return recB_.CountLocked("data") == received; }, 60s));
        LinkRecorder::Event event = recB_.EventsOf("data").back();
        EXPECT_EQ(event.len, expected.size());
        EXPECT_EQ(event.sum, Checksum(expected.data(), expected.size()));
        EXPECT_EQ(event.session.sessionId, ids.second);
    }
    int writeOnly = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(writeOnly, 0);
    EXPECT_EQ(a_->SendDataMessageFromFile(channel.second, ids.first, head.data(), static_cast<uint32_t>(head.size()),
                                          writeOnly, 100, 2, false),
              HOST_ERR_SEND_FAILED);
    close(writeOnly);
    ASSERT_EQ(a_->SendDataMessage(channel.second, ids.first, "after", 5, 2, false), HOST_OK);
    ASSERT_TRUE(recB_.Await([&] { return recB_.CountLocked("data") == received + 1; }));
    EXPECT_EQ(recB_.EventsOf("data").back().bytes, "after") << "the unreadable file's message left a trace";
    EXPECT_EQ(recA_.LostCount(idB_), 0u);
}

// The receiver goes away under a photo that is still being written: the sender's wait ends in
// an error and the link is reported lost, rather than the write waiting on a dead socket.
TEST_F(LinkTest, APeerThatGoesAwayMidPhotoFailsTheSendAndOnlyThat)
{
    StartLinkedPair();
    auto ids = OpenSession();
    SessionAttribute attr{};
    auto channel = a_->OpenDataChannel(idB_, attr);
    ASSERT_EQ(channel.first, HOST_OK);
    const size_t size = 128u << 20;
    std::unique_ptr<char[]> photo(new char[size]);
    FillPattern(photo.get(), size, 7);

    int32_t sent = HOST_OK;
    std::thread sender([&] { sent = a_->SendDataMessage(channel.second, ids.first, photo.get(), size, 2, true); });
    ASSERT_TRUE(recB_.Await([&] { return b_->GetLinkStats(idA_).dataBytesIn > (4u << 20); }, 60s));
    b_->Stop();  // closes with unread bytes queued: the kernel answers A's next segment with a reset
    sender.join();
    EXPECT_NE(sent, HOST_OK) << "the photo cannot have arrived whole";
    EXPECT_TRUE(recA_.Await([&] { return recA_.LostLocked(idB_) == 1; }));
    EXPECT_EQ(recB_.Count("data"), 0u);
}

TEST_F(LinkTest, AKilledPeerProcessIsSeenAsLinkLossAtOnce)
{
    a_ = Make("A", true, recA_);
    idA_ = a_->GetLocalIdentity().networkId;
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    std::string state = dir_.Path() + "/peer";
    std::string target = "127.0.0.1:" + std::to_string(a_->GetPort());
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::dup2(out[1], 1);
        ::close(out[0]);
        ::execl(TANDRA_LINK_PEER_PATH, TANDRA_LINK_PEER_PATH, state.c_str(), target.c_str(), nullptr);
        ::_exit(127);
    }
    ::close(out[1]);
    struct Reap {
        pid_t pid;
        ~Reap()
        {
            if (pid > 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        }
    } reap{pid};
    char line[256] = {};
    ssize_t n = ::read(out[0], line, sizeof line - 1);
    ::close(out[0]);
    ASSERT_GT(n, 0) << "the helper did not start";
    std::string peerId = std::string(line, n).substr(0, 64);
    ASSERT_TRUE(recA_.Await([&] { return recA_.LinkedLocked(peerId); }));
    auto opened = a_->OpenCtrlSession(peerId, "00000000001-" + peerId, "{}");
    ASSERT_EQ(opened.first, HOST_OK);

    auto killedAt = std::chrono::steady_clock::now();
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    ::waitpid(pid, nullptr, 0);
    reap.pid = 0;
    ASSERT_TRUE(recA_.Await([&] { return recA_.LostLocked(peerId) == 1 && recA_.CountLocked("closed") == 1; }));
    auto took = std::chrono::steady_clock::now() - killedAt;
    EXPECT_LT(took, 2s) << "seen by the closed socket, before the heartbeat time-out";
    EXPECT_EQ(recA_.EventsOf("closed")[0].session.sessionId, opened.second);
    EXPECT_FALSE(a_->HasCtrlSession(opened.second));
    EXPECT_TRUE(a_->GetPeerDevices().empty());
}

TEST_F(LinkTest, APeerThatStopsReadingFailsTheSendAfterTheStallDeadlineAndOnlyItsLinkDrops)
{
    constexpr auto STALL = 400ms;
    tweak_ = [&](NetBusConfig& config) { config.writeStallTimeout = STALL; };
    StartLinkedPair();
    LinkRecorder recC;
    std::unique_ptr<NetSoftBus> c = Make("C", true, recC, {"127.0.0.1:" + std::to_string(a_->GetPort())});
    std::string idC = c->GetLocalIdentity().networkId;
    ASSERT_TRUE(recA_.Await([&] { return recA_.LinkedLocked(idC); }));
    auto toB = a_->OpenDataChannel(idB_, SessionAttribute{});
    ASSERT_EQ(toB.first, HOST_OK);

    // B's listener holds its deliveries: after two messages B reads no more from its data
    // connection, while its control connection still answers heartbeats.
    recB_.SetDataGate(false);
    struct OpenGate {
        LinkRecorder& rec;
        ~OpenGate() { rec.SetDataGate(true); }
    } openGate{recB_};
    ASSERT_EQ(a_->SendDataMessage(toB.second, -1, "1", 1, 2, true), HOST_OK);
    ASSERT_EQ(a_->SendDataMessage(toB.second, -1, "2", 1, 2, false), HOST_OK);

    Vex::LogCapture log;
    const size_t size = 64u << 20;  // far more than the sockets' buffers hold
    std::unique_ptr<char[]> photo(new char[size]());
    auto began = std::chrono::steady_clock::now();
    int32_t sent = a_->SendDataMessage(toB.second, -1, photo.get(), size, 2, false);
    auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(sent, HOST_ERR_SEND_FAILED);
    EXPECT_GE(took, STALL);
    EXPECT_LT(took, STALL + 5s);
    ASSERT_TRUE(recA_.Await([&] { return recA_.LostLocked(idB_) == 1; }));
    std::vector<std::string> errors;
    for (const Vex::LogRecord& r : log.Records()) {
        if (r.level == Vex::LOG_ERROR) {
            errors.push_back(r.message);
        }
    }
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("'B'"), std::string::npos) << errors[0];
    EXPECT_NE(errors[0].find("stopped reading"), std::string::npos) << errors[0];
    EXPECT_EQ(a_->SendDataMessage(toB.second, -1, "3", 1, 2, false), HOST_ERR_NO_SESSION) << "its channels are gone";

    // C's link carries on.
    auto toC = a_->OpenDataChannel(idC, SessionAttribute{});
    ASSERT_EQ(toC.first, HOST_OK);
    ASSERT_EQ(a_->SendDataMessage(toC.second, -1, "c", 1, 2, true), HOST_OK);
    ASSERT_TRUE(recC.Await([&] { return recC.CountLocked("data") == 1; }));
    EXPECT_EQ(recA_.LostCount(idC), 0u);
}

// A TLS client with its own certificate, speaking raw frames to a bus.
class RawClient {
public:
    RawClient(const std::string& stateDir, const std::string& lowerThan)
    {
        // The bus keeps only connections dialled by the lower id: pick an identity that is.
        for (int i = 0; i < 64; ++i) {
            std::string error;
            std::string dir = stateDir + "/raw" + std::to_string(i);
            identity_ = NetIdentity::LoadOrCreate(dir, "raw", &error);
            if (identity_ && identity_->Fingerprint() < lowerThan) {
                break;
            }
        }
        ctx_ = SSL_CTX_new(TLS_client_method());
        SSL_CTX_use_certificate(ctx_, identity_->Certificate());
        SSL_CTX_use_PrivateKey(ctx_, identity_->Key());
    }
    ~RawClient()
    {
        if (ssl_ != nullptr) {
            SSL_free(ssl_);
        }
        if (fd_ >= 0) {
            ::close(fd_);
        }
        SSL_CTX_free(ctx_);
    }
    bool Connect(uint16_t port, bool tls)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct timeval tv = {10, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        struct sockaddr_in addr;
        std::memset(&addr, 0, sizeof addr);
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
            return false;
        }
        if (!tls) {
            return true;
        }
        ssl_ = SSL_new(ctx_);
        SSL_set_fd(ssl_, fd_);
        return SSL_connect(ssl_) == 1;
    }
    void Write(const std::string& bytes)
    {
        if (ssl_ != nullptr) {
            SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()));
        } else {
            (void)::write(fd_, bytes.data(), bytes.size());
        }
    }
    // True when the bus closed the connection (reads end) before the receive time-out.
    bool ClosedByPeer()
    {
        char buffer[4096];
        for (;;) {
            int n = ssl_ != nullptr ? SSL_read(ssl_, buffer, sizeof buffer)
                                    : static_cast<int>(::read(fd_, buffer, sizeof buffer));
            if (n > 0) {
                continue;
            }
            if (ssl_ != nullptr && n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                return false;
            }
            return ssl_ != nullptr || n == 0;
        }
    }
    static std::string Frame(FrameType type, uint32_t a, uint32_t length, const std::string& body = "")
    {
        FrameHeader h;
        h.type = type;
        h.a = a;
        h.length = length;
        std::string out(FRAME_HEADER_SIZE, '\0');
        EncodeFrameHeader(h, reinterpret_cast<uint8_t*>(&out[0]));
        return out + body;
    }
    static std::string Hello()
    {
        HelloInfo hello;
        hello.deviceName = "raw";
        hello.port = 1;
        std::string body = EncodeHello(hello);
        return Frame(FrameType::HELLO, 0, static_cast<uint32_t>(body.size()), body);
    }

private:
    std::unique_ptr<NetIdentity> identity_;
    SSL_CTX* ctx_ = nullptr;
    SSL* ssl_ = nullptr;
    int fd_ = -1;
};

TEST_F(LinkTest, ConnectionsThatSayNothingAreDroppedAtTheHandshakeDeadline)
{
    tweak_ = [](NetBusConfig& config) { config.handshakeTimeout = 300ms; };
    a_ = Make("A", true, recA_);
    idA_ = a_->GetLocalIdentity().networkId;

    // A flood of silent connects, more than the bus keeps at once, and one that finishes TLS but
    // sends no hello: all are closed, none is held.
    struct sockaddr_in addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(a_->GetPort());
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    RawClient tlsOnly(dir_.Path(), idA_);
    ASSERT_TRUE(tlsOnly.Connect(a_->GetPort(), true));
    std::vector<int> silent;
    for (int i = 0; i < 300; ++i) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
        struct timeval tv = {10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        ASSERT_EQ(::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr), 0);
        silent.push_back(fd);
    }
    for (int fd : silent) {
        char byte;
        EXPECT_LE(::read(fd, &byte, 1), 0) << "the bus closed the silent connection";
        ::close(fd);
    }
    EXPECT_TRUE(tlsOnly.ClosedByPeer());

    // The flood is gone: a real device links. A server that accepts and never answers is given
    // up on the dialling side too, and the reason shows in what discovery reports.
    int mute = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in muteAddr = addr;
    muteAddr.sin_port = 0;
    ASSERT_EQ(::bind(mute, reinterpret_cast<struct sockaddr*>(&muteAddr), sizeof muteAddr), 0);
    ASSERT_EQ(::listen(mute, 8), 0);
    socklen_t len = sizeof muteAddr;
    ::getsockname(mute, reinterpret_cast<struct sockaddr*>(&muteAddr), &len);
    std::string muteText = "127.0.0.1:" + std::to_string(ntohs(muteAddr.sin_port));
    b_ = Make("B", true, recB_, {"127.0.0.1:" + std::to_string(a_->GetPort()), muteText});
    idB_ = b_->GetLocalIdentity().networkId;
    EXPECT_TRUE(recA_.Await([&] { return recA_.LinkedLocked(idB_); }));
    std::string error;
    std::string code;
    for (int i = 0; i < 100 && error.find("within the deadline") == std::string::npos; ++i) {
        recB_.Await([] { return false; }, 50ms);
        b_->RequestPairing("nobody", &code, &error);
    }
    EXPECT_NE(error.find("static peer " + muteText + ": no TLS handshake and hello within the deadline"),
              std::string::npos)
        << error;
    ::close(mute);
}

struct BadPeerRow {
    const char* name;
    bool tls;
    bool hello;
    std::string bytes;
    const char* logged;
};

void PrintTo(const BadPeerRow& row, std::ostream* os)
{
    *os << row.name;
}


class BadPeerTest : public LinkTest, public ::testing::WithParamInterface<BadPeerRow> {};

TEST_P(BadPeerTest, ClosesOnlyThatLinkWithOneErrorLine)
{
    StartLinkedPair();
    auto ids = OpenSession();
    Vex::LogCapture log;
    {
        RawClient client(dir_.Path(), idA_);
        ASSERT_TRUE(client.Connect(a_->GetPort(), GetParam().tls));
        if (GetParam().hello) {
            client.Write(RawClient::Hello());
        }
        client.Write(GetParam().bytes);
        EXPECT_TRUE(client.ClosedByPeer());
    }
    std::string lines;
    for (const Vex::LogRecord& r : log.Records()) {
        lines += r.message + "\n";
    }
    EXPECT_EQ(log.Count(GetParam().logged), 1u) << lines;
    // The link between A and B is untouched.
    ASSERT_EQ(b_->SendCtrlMessage(ids.second, "still", 5, 1), HOST_OK);
    ASSERT_TRUE(recA_.Await([&] { return recA_.CountLocked("ctrl") == 1; }));
    EXPECT_TRUE(recA_.Linked(idB_));
    EXPECT_EQ(recA_.LostCount(idB_), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BadPeerTest,
    ::testing::Values(
        BadPeerRow{"GarbageBeforeHandshake", false, false, std::string(300, 'x'), "TLS handshake failed"},
        BadPeerRow{"GarbageAfterHandshake", true, false, std::string(64, '\x7f'), "bad magic"},
        BadPeerRow{"OversizedControlMessage", true, true, RawClient::Frame(FrameType::CTRL_MESSAGE, 1, (4u << 20) + 1),
                   "exceeds the limit"},
        BadPeerRow{"OversizedHello", true, false, RawClient::Frame(FrameType::HELLO, 0, 1u << 30), "exceeds the limit"},
        BadPeerRow{"UnknownSession", true, true, RawClient::Frame(FrameType::CTRL_MESSAGE, 99999, 1, "x"),
                   "unknown session"},
        BadPeerRow{"DataFrameOnControl", true, true, RawClient::Frame(FrameType::DATA_MESSAGE, 1, 1, "x"),
                   "not allowed on this connection"}),
    [](const ::testing::TestParamInfo<BadPeerRow>& info) { return info.param.name; });

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
