// tandrad as a process: applications known by what the socket says they are, the manifest's
// program started and reaped, the link's loss reaching the requesting application, a clean
// SIGTERM, and start-up errors that name their fix.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <netinet/in.h>
#include <unistd.h>

#include <map>

#include "device_processes.h"

namespace QUEX::Tandra::ProcessTesting {
namespace {

TEST(DaemonTest, KnowsAnAppByItsRealPidUidAndExecutable)
{
    DeviceOptions options;
    options.name = "solo";
    Device device(options);
    std::string why;
    ASSERT_TRUE(device.Start(&why)) << why;

    std::unique_ptr<ChildProcess> app = device.StartPhoto({"devices"});
    ASSERT_EQ(app->Wait(), 0) << app->Output();
    const std::string expected = "app connected: pid " + std::to_string(app->Pid()) + " uid " +
                                 std::to_string(getuid()) + " exe " + PhotoPath() + " bundle com.tandra.photo";
    EXPECT_NE(device.Log().find(expected), std::string::npos) << device.Log();

    // The same program under another path is no installed app: no bundle, never the foreground.
    TempDir elsewhere;
    const std::string copy = elsewhere.Path() + "/tandra-photo";
    ASSERT_EQ(std::system(("cp " + PhotoPath() + " " + copy).c_str()), 0);
    ChildProcess impostor({copy, "--socket", device.Socket(), "take", "--device", "nobody", "--out", elsewhere.Path()},
                          elsewhere.Path() + "/out");
    EXPECT_EQ(impostor.Wait(), 10) << impostor.Output();
    EXPECT_NE(impostor.Output().find("does not know this program as an installed app"), std::string::npos)
        << impostor.Output();
    EXPECT_NE(device.Log().find("exe " + copy + " bundle (none)"), std::string::npos);
}

TEST(DaemonTest, StartsTheManifestsProgramWithItsParametersAndSeesItEnd)
{
    TwoDevices devices;
    std::string why;
    ASSERT_TRUE(devices.Start(&why)) << why;
    TempDir out;

    Device::Result take = devices.A().Photo({"take", "--device", "B", "--count", "2", "--out", out.Path()});

    ASSERT_EQ(take.status, 0) << take.output;
    ASSERT_EQ(devices.B().CameraPids().size(), 1u) << devices.B().Log();
    const std::string pid = std::to_string(devices.B().CameraPids().front());
    // The camera application read its start parameters: the count the requester asked for.
    EXPECT_NE(devices.B().Log().find("Asked for 2 photos"), std::string::npos) << devices.B().Log();
    EXPECT_TRUE(WaitUntil([&]() {
        return devices.B().Log().find("com.tandra.camera (pid " + pid + ") ended: exit code 0") != std::string::npos;
    })) << devices.B().Log();
}

TEST(DaemonTest, APeerDaemonKilledEndsTheCollaborationAsLinkLost)
{
    TwoDevices devices({"--countdown", "30", "--source", "generated"});
    std::string why;
    ASSERT_TRUE(devices.Start(&why)) << why;
    TempDir out;
    std::unique_ptr<ChildProcess> photo =
        devices.A().StartPhoto({"take", "--device", "B", "--count", "2", "--out", out.Path()});
    ASSERT_TRUE(WaitUntil([&]() { return devices.B().Log().find("Photo source:") != std::string::npos; }))
        << devices.B().Log();

    devices.B().Kill();

    std::optional<int> status = photo->Wait(30s);
    ASSERT_TRUE(status.has_value()) << photo->Output();
    EXPECT_EQ(*status, 19) << photo->Output();
    EXPECT_NE(photo->Output().find("connection to the other device was lost"), std::string::npos) << photo->Output();
}

TEST(DaemonTest, SigtermEndsCollaborationsAndLeavesNothing)
{
    TwoDevices devices({"--countdown", "30", "--source", "generated"});
    std::string why;
    ASSERT_TRUE(devices.Start(&why)) << why;
    TempDir out;
    std::unique_ptr<ChildProcess> photo =
        devices.A().StartPhoto({"take", "--device", "B", "--count", "2", "--out", out.Path()});
    ASSERT_TRUE(WaitUntil([&]() { return devices.B().Log().find("Photo source:") != std::string::npos; }));
    const pid_t camera = devices.B().CameraPids().front();

    EXPECT_EQ(devices.B().Stop(), 0) << devices.B().Log();

    struct stat info {};
    EXPECT_NE(stat(devices.B().Socket().c_str(), &info), 0) << "the socket file was left";
    EXPECT_NE(kill(camera, 0), 0) << "the camera application outlived its daemon";
    std::optional<int> status = photo->Wait(30s);
    ASSERT_TRUE(status.has_value()) << photo->Output();
    EXPECT_NE(*status, 0) << photo->Output();
    // The requesting daemon stops as cleanly while its app's collaboration runs.
    EXPECT_EQ(devices.A().Stop(), 0) << devices.A().Log();
}

struct StartErrorRow {
    const char* name;
    std::vector<std::string> args;
    const char* message;
};

void PrintTo(const StartErrorRow& row, std::ostream* out)
{
    *out << row.name;
}

class DaemonStartErrorTest : public testing::TestWithParam<StartErrorRow> {};

TEST_P(DaemonStartErrorTest, NamesTheFix)
{
    const StartErrorRow& row = GetParam();
    TempDir dir;
    // A port that is taken for as long as the test runs.
    int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string takenPort = std::to_string(ntohs(address.sin_port));

    // The row's options replace the defaults of the same name.
    std::map<std::string, std::string> options = {
        {"--state-dir", dir.Path() + "/state"}, {"--socket", dir.Path() + "/s.sock"}, {"--abilities", dir.Path()},
        {"--plugin", PluginPath()}, {"--bind", "127.0.0.1"}, {"--discovery-port", "0"}, {"--port", "0"}};
    for (size_t i = 0; i + 1 < row.args.size(); i += 2) {
        std::string value = row.args[i + 1];
        for (size_t at = value.find("@DIR@"); at != std::string::npos; at = value.find("@DIR@")) {
            value.replace(at, 5, dir.Path());
        }
        for (size_t at = value.find("@TAKEN@"); at != std::string::npos; at = value.find("@TAKEN@")) {
            value.replace(at, 7, takenPort);
        }
        options[row.args[i]] = value;
    }
    std::vector<std::string> argv = {TandradPath()};
    for (const auto& [name, value] : options) {
        argv.insert(argv.end(), {name, value});
    }
    // A file where the socket's folder should be: no folder can be made there, even by root.
    std::fclose(std::fopen((dir.Path() + "/afile").c_str(), "w"));
    ChildProcess daemon(argv, dir.Path() + "/out");
    std::optional<int> status = daemon.Wait();
    close(taken);

    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 1) << daemon.Output();
    EXPECT_NE(daemon.Output().find(row.message), std::string::npos) << daemon.Output();
}

INSTANTIATE_TEST_SUITE_P(
    Errors, DaemonStartErrorTest,
    testing::Values(StartErrorRow{"PortInUse", {"--port", "@TAKEN@"}, "in use"},
                    StartErrorRow{"PluginMissing", {"--plugin", "@DIR@/nope.so"}, "pass --plugin PATH"},
                    StartErrorRow{"NoSuchInterface", {"--interface", "tandra-nope0"}, "tandra-nope0"},
                    StartErrorRow{"SocketFolderNotWritable", {"--socket", "@DIR@/afile/sub/s.sock"},
                                  "or pass --socket"}),
    [](const testing::TestParamInfo<StartErrorRow>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace QUEX::Tandra::ProcessTesting
