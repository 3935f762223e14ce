// Two device links in their own network namespaces, joined through a bridge in a third, so an
// interface can go down on one side only and the path can be cut with both interfaces up.
// Needs root (ip netns); skipped otherwise.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "host_types.h"
#include "link_test_support.h"

// libdbus (under the Avahi client) takes its own two locks in either order on different paths;
// both are inside the library, which TSan cannot see into, so its report is not ours to fix.
extern "C" const char* __tsan_default_suppressions()
{
    return "deadlock:libdbus-1.so\n";
}

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

using namespace std::chrono_literals;

class LinkNetnsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root to create network namespaces with ip netns; run as root to test Wi-Fi off "
                            "and link cuts";
        }
        if (std::system("ip netns list >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "the ip tool with netns support is missing";
        }
        std::string tag = std::to_string(::getpid() % 100000);
        nsA_ = "tlA" + tag;
        nsB_ = "tlB" + tag;
        nsM_ = "tlM" + tag;
        ifA_ = "va" + tag;
        ifB_ = "vb" + tag;
        portA_ = "pa" + tag;
        portB_ = "pb" + tag;
        created_ = true;
        Cleanup();
        for (const std::string& cmd : {
                 "ip netns add " + nsA_, "ip netns add " + nsB_, "ip netns add " + nsM_,
                 "ip link add " + ifA_ + " type veth peer name " + portA_,
                 "ip link add " + ifB_ + " type veth peer name " + portB_,
                 "ip link set " + ifA_ + " netns " + nsA_, "ip link set " + portA_ + " netns " + nsM_,
                 "ip link set " + ifB_ + " netns " + nsB_, "ip link set " + portB_ + " netns " + nsM_,
                 "ip -n " + nsM_ + " link add br0 type bridge", "ip -n " + nsM_ + " link set " + portA_ + " master br0",
                 "ip -n " + nsM_ + " link set " + portB_ + " master br0", "ip -n " + nsM_ + " link set br0 up",
                 "ip -n " + nsM_ + " link set " + portA_ + " up", "ip -n " + nsM_ + " link set " + portB_ + " up",
                 "ip -n " + nsA_ + " addr add 10.231.7.1/24 dev " + ifA_,
                 "ip -n " + nsB_ + " addr add 10.231.7.2/24 dev " + ifB_, "ip -n " + nsA_ + " link set " + ifA_ + " up",
                 "ip -n " + nsB_ + " link set " + ifB_ + " up", "ip -n " + nsA_ + " link set lo up",
                 "ip -n " + nsB_ + " link set lo up"}) {
            ASSERT_TRUE(Run(cmd)) << cmd;
        }
    }

    void TearDown() override
    {
        if (b_) {
            b_->Stop();
        }
        if (a_) {
            a_->Stop();
        }
        if (created_) {
            Cleanup();
        }
    }

    void Cleanup()
    {
        for (const std::string& ns : {nsA_, nsB_, nsM_}) {
            (void)std::system(("ip netns del " + ns + " 2>/dev/null").c_str());
        }
    }

    static bool Run(const std::string& cmd) { return std::system((cmd + " 2>&1").c_str()) == 0; }

    // Creates and starts a bus from a thread inside the namespace: its sockets and threads
    // (which inherit the namespace) live there.
    std::unique_ptr<NetSoftBus> StartIn(const std::string& ns, NetBusConfig config, LinkRecorder& recorder)
    {
        std::unique_ptr<NetSoftBus> bus;
        std::string error;
        std::thread starter([&] {
            int fd = ::open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || ::setns(fd, CLONE_NEWNET) != 0) {
                error = "cannot enter namespace " + ns;
                return;
            }
            ::close(fd);
            bus = NetSoftBus::Create(config, &error);
            if (bus) {
                bus->SetListener(&recorder);
                bus->SetLinkObserver(&recorder);
                if (bus->Start(&error) != HOST_OK) {
                    bus.reset();
                }
            }
        });
        starter.join();
        EXPECT_NE(bus, nullptr) << error;
        return bus;
    }

    void StartLinked()
    {
        NetBusConfig configA = LoopbackConfig("A", dir_.Path(), true);
        configA.bindAddress = "0.0.0.0";
        configA.interfaceName = ifA_;
        a_ = StartIn(nsA_, configA, recA_);
        ASSERT_NE(a_, nullptr);
        NetBusConfig configB = LoopbackConfig("B", dir_.Path(), true);
        configB.bindAddress = "0.0.0.0";
        configB.interfaceName = ifB_;
        configB.staticPeers = {"10.231.7.1:" + std::to_string(a_->GetPort())};
        b_ = StartIn(nsB_, configB, recB_);
        ASSERT_NE(b_, nullptr);
        idA_ = a_->GetLocalIdentity().networkId;
        idB_ = b_->GetLocalIdentity().networkId;
        ASSERT_TRUE(recA_.Await([&] { return recA_.LinkedLocked(idB_); }));
        ASSERT_TRUE(recB_.Await([&] { return recB_.LinkedLocked(idA_); }));
    }

    TempDir dir_;
    bool created_ = false;
    std::string nsA_, nsB_, nsM_, ifA_, ifB_, portA_, portB_;
    LinkRecorder recA_;
    LinkRecorder recB_;
    std::unique_ptr<NetSoftBus> a_;
    std::unique_ptr<NetSoftBus> b_;
    std::string idA_;
    std::string idB_;
};

TEST_F(LinkNetnsTest, InterfaceDownIsWifiOffAndUpAgainRelinks)
{
    StartLinked();
    EXPECT_TRUE(a_->IsWifiActive());
    ASSERT_TRUE(Run("ip -n " + nsA_ + " link set " + ifA_ + " down"));
    ASSERT_TRUE(recA_.Await([&] { return !recA_.WifiLocked().empty(); }));
    EXPECT_EQ(recA_.WifiStates(), std::vector<bool>{false});
    EXPECT_FALSE(a_->IsWifiActive());
    EXPECT_TRUE(b_->IsWifiActive()) << "the bridge keeps B's carrier";
    ASSERT_TRUE(recA_.Await([&] { return recA_.LostLocked(idB_) == 1; }));
    // B hears nothing more: its heartbeats tell it.
    ASSERT_TRUE(recB_.Await([&] { return recB_.LostLocked(idA_) == 1; }, 8s));
    EXPECT_TRUE(recB_.WifiStates().empty());

    ASSERT_TRUE(Run("ip -n " + nsA_ + " link set " + ifA_ + " up"));
    ASSERT_TRUE(recA_.Await([&] { return recA_.WifiLocked().size() == 2; }));
    EXPECT_TRUE(a_->IsWifiActive());
    ASSERT_TRUE(recA_.Await([&] { return recA_.LinkedLocked(idB_); }, 15s));
    ASSERT_TRUE(recB_.Await([&] { return recB_.LinkedLocked(idA_); }, 15s));
}

TEST_F(LinkNetnsTest, ALinkCutMidTransferIsLinkLossOnBothSides)
{
    StartLinked();
    auto opened = a_->OpenCtrlSession(idB_, "00000000001-" + idB_, "{}");
    ASSERT_EQ(opened.first, HOST_OK);
    SessionAttribute attr{};
    auto channel = a_->OpenDataChannel(idB_, attr);
    ASSERT_EQ(channel.first, HOST_OK);
    // A slow receiver: deliveries wait, so B stops reading and the last message stays in flight.
    recB_.SetDataGate(false);
    const size_t size = 32u << 20;
    std::unique_ptr<char[]> photo(new char[size]);
    FillPattern(photo.get(), size, 7);
    std::vector<int32_t> results;
    std::thread sender([&] {
        for (int i = 0; i < 4 && (results.empty() || results.back() == HOST_OK); ++i) {
            results.push_back(a_->SendDataMessage(channel.second, opened.first, photo.get(), size, 2, i == 0));
        }
    });
    struct Join {
        std::thread& t;
        LinkRecorder& rec;
        std::unique_ptr<NetSoftBus>& bus;
        ~Join()
        {
            if (t.joinable()) {
                rec.SetDataGate(true);
                bus->Stop();  // fails the send in flight
                t.join();
            }
        }
    } join{sender, recB_, a_};
    // Two messages are in and waiting for delivery, so B reads no more: the third is in flight.
    ASSERT_TRUE(recB_.Await([&] { return b_->GetLinkStats(idA_).dataBytesIn >= 2 * size; }, 30s))
        << b_->GetLinkStats(idA_).dataBytesIn << " in, " << recB_.Count("data") << " delivered";
    auto cutAt = std::chrono::steady_clock::now();
    ASSERT_TRUE(Run("ip -n " + nsM_ + " link set " + portB_ + " down"));
    recB_.SetDataGate(true);
    ASSERT_TRUE(recA_.Await([&] { return recA_.LostLocked(idB_) == 1; }, 8s));
    ASSERT_TRUE(recB_.Await([&] { return recB_.LostLocked(idA_) == 1; }, 8s));
    auto took = std::chrono::steady_clock::now() - cutAt;
    EXPECT_LT(took, 5s);
    sender.join();
    EXPECT_EQ(results, (std::vector<int32_t>{HOST_OK, HOST_OK, HOST_ERR_SEND_FAILED})) << "the message in flight fails";
    EXPECT_EQ(recA_.Count("closed"), 1u) << "A's session is reported closed";
    EXPECT_EQ(recB_.Count("closed"), 1u);
    EXPECT_TRUE(a_->IsWifiActive());
    EXPECT_TRUE(b_->IsWifiActive());
}

// A private system bus and an Avahi daemon for one namespace, ended by pid.
class AvahiIn {
public:
    ~AvahiIn()
    {
        for (pid_t pid : {avahi_, dbus_}) {
            if (pid > 0) {
                ::kill(pid, SIGTERM);
                ::waitpid(pid, nullptr, 0);
            }
        }
    }

    // Starts dbus-daemon (its socket in dir) and avahi-daemon inside ns; *address is the bus.
    bool Start(const std::string& dir, const std::string& ns, const std::string& iface, const std::string& host,
               std::string* error)
    {
        address_ = "unix:path=" + dir + "/bus";
        std::ofstream(dir + "/bus.conf")
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>system</type><listen>" << address_ << "</listen><auth>EXTERNAL</auth>"
               "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\"/>"
               "<allow receive_sender=\"*\"/></policy></busconfig>\n";
        std::ofstream(dir + "/avahi.conf") << "[server]\nhost-name=" << host << "\nuse-ipv4=yes\nuse-ipv6=no\n"
                                           << "allow-interfaces=" << iface << "\nenable-dbus=yes\n"
                                           << "[wide-area]\nenable-wide-area=no\n[publish]\npublish-hinfo=no\n"
                                           << "publish-workstation=no\n";
        int out[2];
        if (::pipe(out) != 0) {
            return false;
        }
        std::string conf = "--config-file=" + dir + "/bus.conf";
        std::string print = "--print-address=" + std::to_string(out[1]);
        dbus_ = ::fork();
        if (dbus_ == 0) {
            ::close(out[0]);
            ::execlp("dbus-daemon", "dbus-daemon", conf.c_str(), "--nofork", "--nopidfile", print.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(out[1]);
        char line[512];
        ssize_t n = dbus_ > 0 ? ::read(out[0], line, sizeof line) : -1;
        ::close(out[0]);
        if (n <= 0) {
            *error = "dbus-daemon did not start";
            return false;
        }
        // Avahi keeps its pid file and socket in a fixed folder: a private one per daemon.
        std::string script = "mkdir -p /run/avahi-daemon && mount -t tmpfs tmpfs /run/avahi-daemon && exec "
                             "avahi-daemon --no-drop-root --no-chroot --no-rlimits -f " + dir + "/avahi.conf";
        avahi_ = ::fork();
        if (avahi_ == 0) {
            ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
            ::execlp("ip", "ip", "netns", "exec", ns.c_str(), "unshare", "-m", "sh", "-c", script.c_str(), nullptr);
            ::_exit(127);
        }
        // Ready once the daemon owns its name on the bus.
        std::string probe = "dbus-send --bus=" + address_ +
                            " --print-reply --dest=org.freedesktop.Avahi / org.freedesktop.Avahi.Server.GetVersionString"
                            " >/dev/null 2>&1";
        LinkRecorder waiter;
        for (int i = 0; i < 100; ++i) {
            if (std::system(probe.c_str()) == 0) {
                return true;
            }
            if (::waitpid(avahi_, nullptr, WNOHANG) == avahi_) {
                avahi_ = 0;
                break;
            }
            waiter.Await([] { return false; }, std::chrono::milliseconds(100));
        }
        *error = "avahi-daemon did not come up in " + ns;
        return false;
    }
    const std::string& Address() const { return address_; }

private:
    pid_t dbus_ = 0;
    pid_t avahi_ = 0;
    std::string address_;
};

// libdbus reads the system bus address once per process, so the second device is a helper
// process in B's namespace with B's bus.
TEST_F(LinkNetnsTest, ADeviceIsFoundByDnsSdAloneAndReachedOverTls)
{
    if (std::system("command -v avahi-daemon >/dev/null 2>&1 && command -v dbus-daemon >/dev/null 2>&1 && "
                    "command -v dbus-send >/dev/null 2>&1 && command -v unshare >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "avahi-daemon, dbus-daemon, dbus-send or unshare is not installed; install avahi-daemon "
                        "to test DNS-SD discovery";
    }
    TempDir busDirA;
    TempDir busDirB;
    std::string error;
    AvahiIn avahiA;
    AvahiIn avahiB;
    struct Helper {
        pid_t pid = 0;
        ~Helper()
        {
            if (pid > 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        }
    } helper;
    struct StopFirst {
        std::unique_ptr<NetSoftBus>& bus;
        ~StopFirst()
        {
            if (bus) {
                bus->Stop();
            }
        }
    } stopFirst{a_};  // the bus ends before its daemon
    ASSERT_TRUE(avahiA.Start(busDirA.Path(), nsA_, ifA_, "tandra-a", &error)) << error;
    ASSERT_TRUE(avahiB.Start(busDirB.Path(), nsB_, ifB_, "tandra-b", &error)) << error;

    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    std::string state = dir_.Path() + "/helper";
    std::string env = "DBUS_SYSTEM_BUS_ADDRESS=" + avahiB.Address();
    helper.pid = ::fork();
    ASSERT_GE(helper.pid, 0);
    if (helper.pid == 0) {
        ::dup2(out[1], 1);
        ::close(out[0]);
        ::execlp("ip", "ip", "netns", "exec", nsB_.c_str(), "env", env.c_str(), TANDRA_LINK_PEER_PATH, state.c_str(),
                 "-", "dns-sd", nullptr);
        ::_exit(127);
    }
    ::close(out[1]);
    char line[256] = {};
    ssize_t n = ::read(out[0], line, sizeof line - 1);
    ::close(out[0]);
    ASSERT_GT(n, 0) << "the helper did not start";
    std::string helperId = std::string(line, n).substr(0, 64);

    // No broadcast, no static peers: only DNS-SD can find the other device.
    NetBusConfig config = LoopbackConfig("A", dir_.Path(), false);
    config.bindAddress = "0.0.0.0";
    config.dnsSd = true;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", avahiA.Address().c_str(), 1);
    a_ = StartIn(nsA_, config, recA_);
    ASSERT_NE(a_, nullptr);
    auto found = [&] {
        for (const KnownDevice& d : a_->GetKnownDevices()) {
            if (d.identity.networkId == helperId) {
                return d;
            }
        }
        return KnownDevice();
    };
    for (int i = 0; i < 200 && found().port == 0; ++i) {
        recA_.Await([] { return false; }, 50ms);
    }
    KnownDevice seen = found();
    EXPECT_EQ(seen.foundBy, DiscoverySource::DNS_SD);
    EXPECT_EQ(seen.identity.deviceName, "helper");
    EXPECT_EQ(seen.address, "10.231.7.2");
    EXPECT_NE(seen.port, 0);
    // What DNS-SD found is reached like any device: a pairing connection comes up over TLS.
    std::string code;
    EXPECT_EQ(a_->RequestPairing("helper", &code, &error), HOST_OK) << error;
}

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
