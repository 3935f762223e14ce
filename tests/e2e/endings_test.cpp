// The whole system under every way a collaboration ends: two daemons, tandra-photo and
// tandra-camera as processes, generated photos. Each row is checked at the requesting
// application (its exit status, its sentence, the photos it kept) and on both daemons
// afterwards (no timed wait, incoming session, connection-manager task or subscription,
// tracked collaboration or child left; descriptors and threads back near where they were).
// The rows that need a real interface (Wi-Fi off, a cut link) run in network namespaces
// joined through a bridge, as root; elsewhere they are reported as skipped. The test prints
// the table of endings it ran.
#include <dirent.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <random>

#include "device_processes.h"

namespace QUEX::Tandra::ProcessTesting {
namespace {

size_t PhotosIn(const std::string& folder)
{
    size_t count = 0;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            count += std::string(entry->d_name).rfind("photo-", 0) == 0 ? 1 : 0;
        }
        closedir(dir);
    }
    return count;
}

Json::Value Diagnostics(Device& device)
{
    Device::Result result = device.Photo({"diagnostics"}, 10s);
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(result.output.substr(result.output.find('{')));
    Json::parseFromStream(builder, in, &value, &errors);
    return value;
}

// What a daemon must be back to once every collaboration has ended.
std::string Leftovers(Device& device)
{
    if (device.Daemon() == nullptr || !device.Daemon()->Running()) {
        return "";
    }
    Json::Value counts = Diagnostics(device);
    std::string left;
    for (const char* key : {"timed_waits", "incoming_sessions", "meshline_tasks", "meshline_subscribers",
                            "tracked_collaborations", "children", "pool_busy"}) {
        if (counts[key].asUInt64() != 0) {
            left += std::string(key) + "=" + std::to_string(counts[key].asUInt64()) + " ";
        }
    }
    return left;
}

// The network namespaces of a row that needs a real interface: A and B each reach a bridge
// in a middle namespace through a veth pair named "wlan0" on their side.
class Namespaces {
public:
    Namespaces()
    {
        const std::string id = std::to_string(getpid());
        a_ = "tde2e-a-" + id;
        b_ = "tde2e-b-" + id;
        m_ = "tde2e-m-" + id;
        ok_ = Run("ip netns add " + a_) && Run("ip netns add " + b_) && Run("ip netns add " + m_) &&
              Run("ip -n " + m_ + " link add br0 type bridge") && Run("ip -n " + m_ + " link set br0 up") &&
              Side(a_, "a", "10.78.0.1") && Side(b_, "b", "10.78.0.2");
    }
    ~Namespaces()
    {
        for (const std::string& ns : {a_, b_, m_}) {
            Run("ip netns del " + ns + " 2>/dev/null");
        }
    }
    bool Ok() const { return ok_; }
    std::string Runner(bool a) const { return "ip netns exec " + (a ? a_ : b_); }
    bool WifiOff(bool a) { return Run("ip -n " + (a ? a_ : b_) + " link set wlan0 down"); }
    bool CutLink() { return Run("ip -n " + m_ + " link set port-b" + " down"); }

private:
    static bool Run(const std::string& command) { return std::system(command.c_str()) == 0; }
    bool Side(const std::string& ns, const std::string& side, const std::string& address)
    {
        const std::string veth = "tde2e" + side + std::to_string(getpid() % 100000);
        return Run("ip link add " + veth + " type veth peer name port-" + side + "x") &&
               Run("ip link set " + veth + " netns " + ns) && Run("ip link set port-" + side + "x netns " + m_) &&
               Run("ip -n " + m_ + " link set port-" + side + "x name port-" + side) &&
               Run("ip -n " + m_ + " link set port-" + side + " master br0 up") &&
               Run("ip -n " + ns + " link set " + veth + " name wlan0") &&
               Run("ip -n " + ns + " addr add " + address + "/24 dev wlan0") &&
               Run("ip -n " + ns + " link set wlan0 up") && Run("ip -n " + ns + " link set lo up");
    }
    std::string a_, b_, m_;
    bool ok_ = false;
};

bool CanUseNamespaces()
{
    return getuid() == 0 && std::system("ip netns list >/dev/null 2>&1") == 0;
}

struct LinkedDevices {
    std::unique_ptr<Namespaces> namespaces;
    std::unique_ptr<Device> a, b;
};

// Two linked devices: on the loopback, or in namespaces when the row needs them.
bool StartDevices(LinkedDevices& setup, const std::vector<std::string>& cameraArgs, bool inNamespaces,
                  const std::vector<std::string>& daemonArgs, std::string* why)
{
    DeviceOptions a;
    DeviceOptions b;
    a.name = "A";
    b.name = "B";
    b.cameraArgs = cameraArgs;
    a.extraArgs = b.extraArgs = daemonArgs;
    if (inNamespaces) {
        setup.namespaces = std::make_unique<Namespaces>();
        if (!setup.namespaces->Ok()) {
            *why = "could not build the network namespaces";
            return false;
        }
        a.runner = setup.namespaces->Runner(true);
        b.runner = setup.namespaces->Runner(false);
        a.port = b.port = 47820;
        a.bindAddress = "10.78.0.1";
        b.bindAddress = "10.78.0.2";
        a.interfaceName = b.interfaceName = "wlan0";
        a.peers = {"10.78.0.2:47820"};
        b.peers = {"10.78.0.1:47820"};
    } else {
        a.port = FreePort();
        b.port = FreePort();
        a.peers = {"127.0.0.1:" + std::to_string(b.port)};
        b.peers = {"127.0.0.1:" + std::to_string(a.port)};
    }
    setup.a = std::make_unique<Device>(a);
    setup.b = std::make_unique<Device>(b);
    if (!setup.a->Start(why) || !setup.b->Start(why)) {
        return false;
    }
    if (!AwaitCamera(*setup.a, "B")) {
        *why = "A never saw B's camera:\n" + setup.a->Log() + setup.b->Log();
        return false;
    }
    return true;
}

bool CameraSubscribed(Device& b)
{
    return WaitUntil([&]() { return b.Log().find("Photo source:") != std::string::npos; });
}

bool FirstPhotoSaved(ChildProcess& photo)
{
    // A first big photo takes long under the sanitizers.
    return WaitUntil([&]() { return photo.Output().find("Saved photo 1") != std::string::npos; }, 90s);
}

struct Row {
    std::string name;
    std::vector<std::string> cameraArgs;
    std::vector<std::string> takeArgs;
    std::function<void(LinkedDevices&, ChildProcess& photo)> act;  // once the collaboration runs
    int exitStatus;          // of tandra-photo; -1: it was killed, not checked
    std::string sentence;    // in its output
    int photos;              // photos it kept; -1: any
    bool inNamespaces = false;
    std::vector<std::string> daemonArgs = {};
    bool checkA = true, checkB = true;  // a daemon the row kills is not checked
};

const std::vector<std::string> SLOW_CAMERA = {"--countdown", "20", "--source", "generated"};
const std::vector<std::string> QUICK_CAMERA = {"--countdown", "0", "--source", "generated"};
// Large photos keep the transfer going long enough to act in the middle of it.
const std::vector<std::string> BIG_PHOTOS = {"--countdown", "0", "--source", "generated", "--target-size", "48MiB"};

std::vector<Row> Rows()
{
    auto waitSubscribed = [](LinkedDevices& setup, ChildProcess&) { ASSERT_TRUE(CameraSubscribed(*setup.b)); };
    std::vector<Row> rows = {
        {"finish, 1 photo", QUICK_CAMERA, {"--count", "1"}, nullptr, 0, "Finished: 1 photo saved", 1},
        {"finish, 5 photos", QUICK_CAMERA, {"--count", "5"}, nullptr, 0, "Finished: 5 photos saved", 5},
        {"finish, 30 photos", QUICK_CAMERA, {"--count", "30"}, nullptr, 0, "Finished: 30 photos saved", 30},
        {"cancel from the requesting app", SLOW_CAMERA, {"--count", "3"},
         [=](LinkedDevices& s, ChildProcess& p) { waitSubscribed(s, p); p.Signal(SIGINT); }, 130, "You cancelled", 0},
        {"cancel from the camera app", {"--source", "generated", "--cancel"}, {"--count", "3"}, nullptr, 15,
         "ended the collaboration before sending any photo", 0},
        {"requesting app killed mid-transfer", BIG_PHOTOS, {"--count", "4"},
         [](LinkedDevices&, ChildProcess& p) { ASSERT_TRUE(FirstPhotoSaved(p)); p.Signal(SIGKILL); }, -1, "", -1},
        {"camera app killed", SLOW_CAMERA, {"--count", "3"},
         [=](LinkedDevices& s, ChildProcess& p) { waitSubscribed(s, p); kill(s.b->CameraPids().back(), SIGKILL); }, 16,
         "camera app failed", 0},
        {"serving daemon killed mid-transfer", BIG_PHOTOS, {"--count", "4"},
         [](LinkedDevices& s, ChildProcess& p) { ASSERT_TRUE(FirstPhotoSaved(p)); s.b->Kill(); }, 19,
         "connection to the other device was lost", -1, false, {}, true, false},
        {"requesting daemon killed", SLOW_CAMERA, {"--count", "3"},
         [=](LinkedDevices& s, ChildProcess& p) { waitSubscribed(s, p); s.a->Kill(); }, 21, "service on this device", 0,
         false, {}, false, true},
        {"second request for the same peer while one runs", SLOW_CAMERA, {"--count", "3"},
         [=](LinkedDevices& s, ChildProcess& p) {
             waitSubscribed(s, p);
             // The second request joins the running collaboration: it is told so at once and
             // the first one carries on (then it is cancelled, to end the row quickly).
             TempDir out;
             Device::Result second = s.a->Photo({"take", "--device", "B", "--count", "1", "--out", out.Path()});
             EXPECT_EQ(second.status, 26) << second.output;
             EXPECT_NE(second.output.find("already taking photos"), std::string::npos) << second.output;
             EXPECT_EQ(PhotosIn(out.Path()), 0u);
             EXPECT_TRUE(p.Running()) << p.Output();
             p.Signal(SIGINT);
         },
         130, "You cancelled", 0},
        {"peer never answers (camera never subscribes)", {"--never-subscribe"}, {"--count", "1"}, nullptr, 14,
         "did not answer", 0, false, {"--clock-speedup", "60"}},
        {"link cut mid-photo", BIG_PHOTOS, {"--count", "4"},
         [](LinkedDevices& s, ChildProcess& p) { ASSERT_TRUE(FirstPhotoSaved(p)); ASSERT_TRUE(s.namespaces->CutLink()); },
         19, "connection to the other device was lost", -1, true},
        {"Wi-Fi off on the requesting side", SLOW_CAMERA, {"--count", "3"},
         [=](LinkedDevices& s, ChildProcess& p) { waitSubscribed(s, p); ASSERT_TRUE(s.namespaces->WifiOff(true)); }, 11,
         "Wi-Fi is off on this device", 0, true},
        {"Wi-Fi off on the serving side", SLOW_CAMERA, {"--count", "3"},
         [=](LinkedDevices& s, ChildProcess& p) { waitSubscribed(s, p); ASSERT_TRUE(s.namespaces->WifiOff(false)); }, 19,
         "", 0, true},
    };
    return rows;
}

struct Outcome {
    std::string status;
    std::string photos;
    std::string leftovers;
    bool passed = false;
};

Outcome RunRow(const Row& row)
{
    Outcome outcome;
    LinkedDevices setup;
    std::string why;
    if (!StartDevices(setup, row.cameraArgs, row.inNamespaces, row.daemonArgs, &why)) {
        ADD_FAILURE() << row.name << ": " << why;
        outcome.status = "no start";
        return outcome;
    }
    TempDir out;
    std::vector<std::string> args = {"take", "--device", "B", "--out", out.Path()};
    args.insert(args.end(), row.takeArgs.begin(), row.takeArgs.end());
    std::unique_ptr<ChildProcess> photo = setup.a->StartPhoto(args);
    if (row.act) {
        row.act(setup, *photo);
    }
    std::optional<int> status = photo->Wait(90s);
    const std::string output = photo->Output();
    outcome.status = status ? std::to_string(*status) : "hung";
    outcome.photos = std::to_string(PhotosIn(out.Path()));
    bool ok = status.has_value();
    if (row.exitStatus >= 0) {
        ok = ok && *status == row.exitStatus && output.find(row.sentence) != std::string::npos;
    }
    ok = ok && (row.photos < 0 || PhotosIn(out.Path()) == static_cast<size_t>(row.photos));
    EXPECT_TRUE(ok) << row.name << ": exit " << outcome.status << ", " << outcome.photos << " photos\n"
                    << output << "\n--- A\n" << setup.a->Log() << "\n--- B\n" << setup.b->Log();
    // Both daemons settle back to nothing held for the collaboration.
    std::string left;
    WaitUntil([&]() {
        left = (row.checkA ? Leftovers(*setup.a) : "") + (row.checkB ? Leftovers(*setup.b) : "");
        return left.empty();
    }, 30s);
    outcome.leftovers = left.empty() ? "none" : left;
    EXPECT_TRUE(left.empty()) << row.name << ": left behind: " << left << "\n--- A\n"
                              << setup.a->Log() << "\n--- B\n" << setup.b->Log();
    outcome.passed = ok && left.empty();
    return outcome;
}

TEST(EndToEnd, EndingsTable)
{
    const bool namespaces = CanUseNamespaces();
    std::string table = "\n| ending | exit | photos kept | left on the daemons | result |\n|---|---|---|---|---|\n";
    // TANDRA_E2E_ROW=<part of a name> runs only the matching rows (to chase one ending).
    const char* only = std::getenv("TANDRA_E2E_ROW");
    for (const Row& row : Rows()) {
        if (only != nullptr && row.name.find(only) == std::string::npos) {
            continue;
        }
        if (row.inNamespaces && !namespaces) {
            table += "| " + row.name + " | - | - | - | skipped: needs root and `ip netns` |\n";
            continue;
        }
        Outcome outcome = RunRow(row);
        table += "| " + row.name + " | " + outcome.status + " | " + outcome.photos + " | " + outcome.leftovers +
                 " | " + (outcome.passed ? "ok" : "FAILED") + " |\n";
    }
    std::printf("%s\n", table.c_str());
    std::fflush(stdout);
}

// Two requesting apps at once: the one in the foreground is served, the other (another
// installed app, not in the foreground) is refused.
TEST(EndToEnd, TwoRequestingAppsOnlyTheForegroundOneIsServed)
{
    TempDir apps;
    const std::string other = apps.Path() + "/other-photo-app";
    ASSERT_EQ(std::system(("cp " + PhotoPath() + " " + other).c_str()), 0);
    DeviceOptions a;
    DeviceOptions b;
    a.name = "A";
    b.name = "B";
    a.port = FreePort();
    b.port = FreePort();
    a.peers = {"127.0.0.1:" + std::to_string(b.port)};
    b.peers = {"127.0.0.1:" + std::to_string(a.port)};
    a.extraApps = {{"com.example.other", other}};
    b.cameraArgs = {"--countdown", "2", "--source", "generated"};
    Device deviceA(a);
    Device deviceB(b);
    std::string why;
    ASSERT_TRUE(deviceA.Start(&why) && deviceB.Start(&why)) << why;
    ASSERT_TRUE(AwaitCamera(deviceA, "B"));
    TempDir out1;
    TempDir out2;
    std::unique_ptr<ChildProcess> foreground =
        deviceA.StartPhoto({"take", "--device", "B", "--count", "2", "--out", out1.Path()});
    ASSERT_TRUE(WaitUntil([&]() { return foreground->Output().find("Link granted") != std::string::npos; }))
        << foreground->Output() << deviceA.Log();
    ChildProcess background({other, "--socket", deviceA.Socket(), "take", "--device", "B", "--count", "2", "--out",
                             out2.Path(), "--background"},
                            apps.Path() + "/background.out");

    EXPECT_EQ(background.Wait(30s), 10) << background.Output();
    EXPECT_NE(background.Output().find("not the app in the foreground"), std::string::npos) << background.Output();
    EXPECT_EQ(foreground->Wait(60s), 0) << foreground->Output();
    EXPECT_EQ(PhotosIn(out1.Path()), 2u);
    EXPECT_EQ(PhotosIn(out2.Path()), 0u);
}

// The registries of a daemon that must come back to where they were: IPC handles and
// connections, apps, and everything Leftovers checks for zero.
std::string RegistryFigures(Device& device)
{
    Json::Value counts = Diagnostics(device);
    std::string text;
    for (const char* key : {"ipc_connections", "ipc_exported_handles", "ipc_proxy_handles", "apps",
                            "meshline_callbacks", "timed_waits", "incoming_sessions", "meshline_tasks",
                            "meshline_subscribers", "tracked_collaborations", "children"}) {
        text += std::string(text.empty() ? "" : " ") + key + "=" + std::to_string(counts[key].asUInt64());
    }
    return text;
}

// One soak round ending as a row of the table does; only the endings that leave both daemons
// running and need no other camera application (the soak watches the same two processes).
struct SoakEnding {
    const char* name;
    int exitStatus;
    std::function<void(LinkedDevices&, ChildProcess&)> act;  // once a first photo was saved
};

std::vector<SoakEnding> SoakEndings()
{
    return {
        {"finish", 0, nullptr},
        {"cancel from the requesting app", 130, [](LinkedDevices&, ChildProcess& p) { p.Signal(SIGINT); }},
        {"requesting app killed", -1, [](LinkedDevices&, ChildProcess& p) { p.Signal(SIGKILL); }},
        {"camera app killed", -1,
         [](LinkedDevices& s, ChildProcess&) {
             std::vector<pid_t> cameras = s.b->CameraPids();
             ASSERT_FALSE(cameras.empty());
             kill(cameras.back(), SIGKILL);
         }},
        {"second request while one runs", 0,
         [](LinkedDevices& s, ChildProcess&) {
             TempDir out;
             Device::Result second = s.a->Photo({"take", "--device", "B", "--count", "1", "--out", out.Path()});
             EXPECT_EQ(second.status, 26) << second.output;
         }},
    };
}

// Soak: 100 collaborations back to back, then 20 with random endings, leave the daemons'
// descriptors, threads, memory and registries where they were after the first.
TEST(EndToEnd, SoakLeavesTheDaemonsWhereTheyStarted)
{
    LinkedDevices setup;
    std::string why;
    // Photos big enough that a round's ending lands while its photos are still crossing.
    const std::vector<std::string> camera = {"--countdown", "0", "--source", "generated", "--target-size", "2MiB"};
    ASSERT_TRUE(StartDevices(setup, camera, false, {}, &why)) << why;
    TempDir out;
    ASSERT_EQ(setup.a->Photo({"take", "--device", "B", "--count", "2", "--out", out.Path()}).status, 0);
    auto settled = [&]() { return Leftovers(*setup.a).empty() && Leftovers(*setup.b).empty(); };
    ASSERT_TRUE(WaitUntil(settled));
    const ProcessFigures startA = FiguresOf(setup.a->Pid());
    const ProcessFigures startB = FiguresOf(setup.b->Pid());
    const std::string registriesA = RegistryFigures(*setup.a);
    const std::string registriesB = RegistryFigures(*setup.b);

    const char* roundsText = std::getenv("TANDRA_SOAK_ROUNDS");
    const int rounds = roundsText != nullptr ? std::atoi(roundsText) : 100;
    for (int i = 0; i < rounds; ++i) {
        Device::Result take = setup.a->Photo({"take", "--device", "B", "--count", "2", "--out", out.Path()});
        ASSERT_EQ(take.status, 0) << "round " << i << "\n" << take.output;
    }
    const ProcessFigures midA = FiguresOf(setup.a->Pid());
    const ProcessFigures midB = FiguresOf(setup.b->Pid());

    const char* seedText = std::getenv("TANDRA_SOAK_SEED");
    const unsigned seed = seedText != nullptr ? static_cast<unsigned>(std::atoi(seedText)) : std::random_device()();
    std::mt19937 random(seed);
    const std::vector<SoakEnding> endings = SoakEndings();
    std::map<std::string, int> tally;
    for (int i = 0; i < 20; ++i) {
        const SoakEnding& ending = endings[random() % endings.size()];
        SCOPED_TRACE(std::string("random round ") + std::to_string(i) + " (" + ending.name + "), TANDRA_SOAK_SEED=" +
                     std::to_string(seed));
        std::unique_ptr<ChildProcess> photo =
            setup.a->StartPhoto({"take", "--device", "B", "--count", "30", "--out", out.Path()});
        if (ending.act) {
            ASSERT_TRUE(FirstPhotoSaved(*photo)) << photo->Output();
            ending.act(setup, *photo);
        }
        std::optional<int> status = photo->Wait(90s);
        ASSERT_TRUE(status.has_value()) << photo->Output();
        if (ending.exitStatus >= 0) {
            EXPECT_EQ(*status, ending.exitStatus) << photo->Output();
        }
        // The next round starts on daemons that have let go of this one.
        ASSERT_TRUE(WaitUntil(settled, 30s)) << Leftovers(*setup.a) << Leftovers(*setup.b);
        tally[ending.name]++;
    }

    const ProcessFigures endA = FiguresOf(setup.a->Pid());
    const ProcessFigures endB = FiguresOf(setup.b->Pid());
    std::string mix;
    for (const auto& [name, count] : tally) {
        mix += std::string(mix.empty() ? "" : ", ") + name + " " + std::to_string(count);
    }
    std::printf("\nSoak: %d collaborations back to back, then 20 random endings (seed %u: %s)\n"
                "| daemon | fds | threads | RSS KiB | registries |\n|---|---|---|---|---|\n"
                "| A before | %zu | %zu | %zu | %s |\n| A after %d | %zu | %zu | %zu | |\n"
                "| A after all | %zu | %zu | %zu | %s |\n"
                "| B before | %zu | %zu | %zu | %s |\n| B after %d | %zu | %zu | %zu | |\n"
                "| B after all | %zu | %zu | %zu | %s |\n",
                rounds, seed, mix.c_str(), startA.fds, startA.threads, startA.rssKiB, registriesA.c_str(), rounds,
                midA.fds, midA.threads, midA.rssKiB, endA.fds, endA.threads, endA.rssKiB,
                RegistryFigures(*setup.a).c_str(), startB.fds, startB.threads, startB.rssKiB, registriesB.c_str(),
                rounds, midB.fds, midB.threads, midB.rssKiB, endB.fds, endB.threads, endB.rssKiB,
                RegistryFigures(*setup.b).c_str());
    std::fflush(stdout);
    EXPECT_LE(endA.fds, startA.fds + 2);
    EXPECT_LE(endB.fds, startB.fds + 2);
    EXPECT_LE(endA.threads, startA.threads + 8);
    EXPECT_LE(endB.threads, startB.threads + 8);
    EXPECT_EQ(RegistryFigures(*setup.a), registriesA);
    EXPECT_EQ(RegistryFigures(*setup.b), registriesB);
#if defined(__SANITIZE_ADDRESS__)
    // AddressSanitizer keeps freed memory in its quarantine (256 MiB) and its allocator keeps
    // what it freed, so resident memory climbs for a while without a leak. Once the first 100
    // rounds have filled both, it must stay level; its leak checker sees leaks at exit too.
    const ProcessFigures& baseA = midA;
    const ProcessFigures& baseB = midB;
    const size_t rssMarginKiB = 64 * 1024;
#else
    const ProcessFigures& baseA = startA;
    const ProcessFigures& baseB = startB;
    const size_t rssMarginKiB = 16 * 1024;
#endif
    EXPECT_LE(endA.rssKiB, baseA.rssKiB + rssMarginKiB);
    EXPECT_LE(endB.rssKiB, baseB.rssKiB + rssMarginKiB);
    EXPECT_EQ(endB.children, 0u);
}

}  // namespace
}  // namespace QUEX::Tandra::ProcessTesting
