// The manifest launcher: manifests read and refused with the file named, programs started with
// their parameters and reaped with their exit seen, children ended on shutdown, and callers'
// executables matched to bundles.
#include <gtest/gtest.h>
#include <signal.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "host_types.h"
#include "manifest_ability_launcher.h"

namespace QUEX::Tandra {
namespace {

namespace fs = std::filesystem;

class ManifestLauncherTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/tandra-launcher-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        fs::create_directories(root_ / "bin");
        fs::create_directories(root_ / "abilities");
    }
    void TearDown() override { fs::remove_all(root_); }

    std::string Write(const fs::path& path, const std::string& text, bool executable = false)
    {
        std::ofstream(path) << text;
        if (executable) {
            chmod(path.c_str(), 0755);
        }
        return path.string();
    }
    std::string Manifest(const std::string& name, const std::string& bundle, const std::string& program,
                         const std::string& args = R"(["--out", "${root}/out"])")
    {
        return Write(root_ / "abilities" / (name + ".json"),
                     R"({"bundle": ")" + bundle + R"(", "ability": "CameraAbility", "action": "take",
                         "type": "tandra.CameraAbility.TakePhoto",
                         "exec": {"path": "${bindir}/)" + program + R"(", "args": )" + args + "}}");
    }
    std::unique_ptr<ManifestAbilityLauncher> Load(std::string* error = nullptr, std::string readyFd = "-1")
    {
        std::string ignored;
        return ManifestAbilityLauncher::Load(
            (root_ / "abilities").string(),
            {{"bindir", (root_ / "bin").string()}, {"root", root_.string()}, {"ready", readyFd}},
            error != nullptr ? error : &ignored);
    }
    std::string Read(const fs::path& path)
    {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    fs::path root_;
};

StartAbilityParam Param()
{
    StartAbilityParam param;
    param.bundleName = "com.tandra.camera";
    param.abilityName = "CameraAbility";
    param.action = "take";
    param.abilityType = "tandra.CameraAbility.TakePhoto";
    param.localDeviceId = "requester-udid";
    param.localBundleName = "com.tandra.photo";
    param.localDeviceType = 14;
    return param;
}

TEST_F(ManifestLauncherTest, StartsTheProgramWithItsParametersAndSeesItsExit)
{
    Write(root_ / "bin" / "camera",
          "#!/bin/sh\n"
          "echo \"$1 $2 $TANDRA_COLLABORATION_SESSION_ID $TANDRA_BUNDLE_NAME $TANDRA_ABILITY_NAME $TANDRA_ACTION "
          "$TANDRA_ABILITY_TYPE $TANDRA_REQUESTER_DEVICE_ID $TANDRA_REQUESTER_DEVICE_TYPE "
          "$TANDRA_REQUESTER_BUNDLE_NAME\" > \"$2\"\n"
          "exit 7\n",
          true);
    Manifest("camera", "com.tandra.camera", "camera");
    auto launcher = Load();
    ASSERT_NE(launcher, nullptr);
    std::mutex mutex;
    std::vector<ChildExit> exits;
    launcher->SetExitObserver([&](const ChildExit& exit) {
        std::lock_guard<std::mutex> lock(mutex);
        exits.push_back(exit);
    });

    StartAbilityParam byAction = Param();
    byAction.abilityName.clear();  // the bundle's ability of that action
    for (const StartAbilityParam& param : {Param(), byAction}) {
        ASSERT_EQ(launcher->StartAbility(42, param), 0);
        ASSERT_TRUE(launcher->WaitForNoChildren(std::chrono::seconds(5)));
        EXPECT_EQ(Read(root_ / "out"), "--out " + (root_ / "out").string() +
                                           " 42 com.tandra.camera CameraAbility take tandra.CameraAbility.TakePhoto "
                                           "requester-udid 14 com.tandra.photo\n");
    }
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(exits.size(), 2u);
    EXPECT_TRUE(exits[0].exited);
    EXPECT_EQ(exits[0].exitCode, 7);
    EXPECT_EQ(exits[0].collaborationSessionId, 42);
    EXPECT_EQ(exits[0].bundleName, "com.tandra.camera");
    EXPECT_EQ(waitpid(exits[0].pid, nullptr, WNOHANG), -1);  // reaped: no zombie left

    StartAbilityParam unknown = Param();
    unknown.bundleName = "com.example.other";
    EXPECT_EQ(launcher->StartAbility(43, unknown), HOST_ERR_START_ABILITY);
}

// Children that end on SIGTERM and one that ignores it: all are gone when TerminateAll returns.
TEST_F(ManifestLauncherTest, TerminateAllEndsEveryChild)
{
    // Each child says on the pipe when its signal disposition is in place.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    Write(root_ / "bin" / "polite", "#!/bin/sh\necho polite >&$1\nexec sleep 60 $1>&-\n", true);
    Write(root_ / "bin" / "stubborn", "#!/bin/sh\ntrap '' TERM\necho stubborn >&$1\nexec sleep 60 $1>&-\n", true);
    Manifest("polite", "com.tandra.polite", "polite", R"(["${ready}"])");
    Manifest("stubborn", "com.tandra.stubborn", "stubborn", R"(["${ready}"])");
    auto launcher = Load(nullptr, std::to_string(ready[1]));
    ASSERT_NE(launcher, nullptr);
    std::mutex mutex;
    std::vector<int> signals;
    launcher->SetExitObserver([&](const ChildExit& exit) {
        std::lock_guard<std::mutex> lock(mutex);
        signals.push_back(exit.signal);
    });
    for (const char* bundle : {"com.tandra.polite", "com.tandra.stubborn"}) {
        StartAbilityParam param = Param();
        param.bundleName = bundle;
        ASSERT_EQ(launcher->StartAbility(1, param), 0);
    }
    close(ready[1]);
    std::string said;
    while (said.size() < std::string("polite\nstubborn\n").size()) {
        pollfd readable{ready[0], POLLIN, 0};
        ASSERT_EQ(poll(&readable, 1, 5000), 1) << said;
        char buffer[64];
        ssize_t got = read(ready[0], buffer, sizeof(buffer));
        ASSERT_GT(got, 0);
        said.append(buffer, static_cast<size_t>(got));
    }
    close(ready[0]);
    std::vector<pid_t> children = launcher->RunningChildren();
    ASSERT_EQ(children.size(), 2u);

    launcher->TerminateAll(std::chrono::milliseconds(300));
    EXPECT_TRUE(launcher->RunningChildren().empty());
    for (pid_t pid : children) {
        EXPECT_EQ(kill(pid, 0), -1) << pid;
    }
    std::lock_guard<std::mutex> lock(mutex);
    std::sort(signals.begin(), signals.end());
    EXPECT_EQ(signals, (std::vector<int>{SIGKILL, SIGTERM}));
    EXPECT_EQ(launcher->StartAbility(2, Param()), HOST_ERR_START_ABILITY);
}

TEST_F(ManifestLauncherTest, BadManifestsAreRefusedNamingTheFile)
{
    Write(root_ / "bin" / "camera", "#!/bin/sh\n", true);
    Write(root_ / "bin" / "plain", "not a program");
    struct Row {
        const char* name;
        std::string text;
        std::string fault;
    };
    const std::string exec = R"("exec": {"path": "${bindir}/camera"})";
    const Row rows[] = {
        {"NotJson", "{ bundle", "is not valid JSON"},
        {"NotAnObject", "[1, 2]", "must hold one JSON object"},
        {"NoBundle", R"({"ability": "A", )" + exec + "}", "\"bundle\" must be a non-empty string"},
        {"AbilityNotAString", R"({"bundle": "b", "ability": 3, )" + exec + "}", "\"ability\" must be a non-empty"},
        {"ActionNotAString", R"({"bundle": "b", "ability": "A", "action": [], )" + exec + "}",
         "\"action\" must be a string"},
        {"NoExec", R"({"bundle": "b", "ability": "A"})", "\"exec\" must be an object"},
        {"UnknownPlaceholder", R"({"bundle": "b", "ability": "A", "exec": {"path": "${libdir}/camera"}})",
         "unknown placeholder \"libdir\""},
        {"RelativePath", R"({"bundle": "b", "ability": "A", "exec": {"path": "camera"}})", "must be absolute"},
        {"NotExecutable", R"({"bundle": "b", "ability": "A", "exec": {"path": "${bindir}/plain"}})",
         "missing or not executable"},
        {"ArgsNotStrings", R"({"bundle": "b", "ability": "A", "exec": {"path": "${bindir}/camera", "args": [1]}})",
         "must be an array of strings"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(root_ / "abilities");
        fs::create_directories(root_ / "abilities");
        Manifest("a-good", "com.tandra.good", "camera");
        std::string file = Write(root_ / "abilities" / (std::string(row.name) + ".json"), row.text);
        std::string error;
        EXPECT_EQ(Load(&error), nullptr);
        EXPECT_NE(error.find(file), std::string::npos) << error;
        EXPECT_NE(error.find(row.fault), std::string::npos) << error;
    }

    fs::remove_all(root_ / "abilities");
    fs::create_directories(root_ / "abilities");
    std::string first = Manifest("first", "com.tandra.camera", "camera");
    std::string second = Manifest("second", "com.tandra.camera", "camera");
    std::string error;
    EXPECT_EQ(Load(&error), nullptr);
    EXPECT_NE(error.find(second), std::string::npos) << error;
    EXPECT_NE(error.find("already named by " + first), std::string::npos) << error;

    EXPECT_EQ(ManifestAbilityLauncher::Load((root_ / "missing").string(), {}, &error), nullptr);
    EXPECT_NE(error.find((root_ / "missing").string()), std::string::npos) << error;
}

TEST_F(ManifestLauncherTest, ExecutablesAreMatchedToTheirBundleThroughLinks)
{
    Write(root_ / "bin" / "camera", "#!/bin/sh\n", true);
    Write(root_ / "bin" / "stranger", "#!/bin/sh\n", true);
    fs::create_symlink(root_ / "bin" / "camera", root_ / "camera-link");
    Manifest("camera", "com.tandra.camera", "camera");
    auto launcher = Load();
    ASSERT_NE(launcher, nullptr);
    EXPECT_EQ(launcher->BundleForExecutable((root_ / "bin" / "camera").string()), "com.tandra.camera");
    EXPECT_EQ(launcher->BundleForExecutable((root_ / "camera-link").string()), "com.tandra.camera");
    EXPECT_EQ(launcher->BundleForExecutable((root_ / "bin" / "stranger").string()), "");
    EXPECT_EQ(launcher->BundleForExecutable((root_ / "nothing").string()), "");
}

// The manifests the project ships name the two applications.
TEST_F(ManifestLauncherTest, ShippedManifestsLoad)
{
    for (const char* program : {"tandra-camera", "tandra-photo"}) {
        Write(root_ / "bin" / program, "#!/bin/sh\n", true);
    }
    std::string error;
    auto launcher = ManifestAbilityLauncher::Load(TANDRA_MANIFEST_DIR, {{"bindir", (root_ / "bin").string()}}, &error);
    ASSERT_NE(launcher, nullptr) << error;
    std::vector<AbilityInfo> abilities = launcher->GetAbilities();
    ASSERT_EQ(abilities.size(), 2u);
    EXPECT_EQ(abilities[0].bundleName, "com.tandra.camera");
    EXPECT_EQ(abilities[0].abilityType, "tandra.CameraAbility.TakePhoto");
    EXPECT_EQ(abilities[0].action, "tandra.CameraAbility.TakePhoto");
    EXPECT_EQ(abilities[1].bundleName, "com.tandra.photo");
    EXPECT_EQ(launcher->BundleForExecutable((root_ / "bin" / "tandra-photo").string()), "com.tandra.photo");
}

}  // namespace
}  // namespace QUEX::Tandra
