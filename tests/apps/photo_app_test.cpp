// tandra-photo against two real daemons and a real tandra-camera: photos saved byte for byte as
// the camera application made them, the stages in order, and the endings a user meets (the
// cancel with Ctrl-C, the camera application killed, the foreground rule), each with its
// sentence and exit status and no partial file left.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <set>

#include "device_processes.h"

namespace QUEX::Tandra::ProcessTesting {
namespace {

std::vector<std::string> FilesIn(const std::string& folder)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.' || std::string(entry->d_name).find(".part") != std::string::npos) {
                if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..") {
                    names.push_back(entry->d_name);
                }
            }
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::multiset<std::string> Contents(const std::string& folder)
{
    std::multiset<std::string> contents;
    for (const std::string& name : FilesIn(folder)) {
        contents.insert(ReadFile(folder + "/" + name));
    }
    return contents;
}

TEST(PhotoAppTest, SavesThePhotosByteForByteAndShowsEachStage)
{
    TwoDevices devices;
    std::string why;
    ASSERT_TRUE(devices.Start(&why)) << why;
    TempDir out;

    Device::Result take = devices.A().Photo({"take", "--device", "B", "--count", "3", "--out", out.Path()});

    ASSERT_EQ(take.status, 0) << take.output << devices.A().Log() << devices.B().Log();
    EXPECT_EQ(FilesIn(out.Path()).size(), 3u);
    EXPECT_EQ(Contents(out.Path()), Contents(devices.B().CameraOut())) << "the saved photos differ from the camera's";
    // Stages in the order they happen.
    const std::vector<std::string> stages = {"Asking B", "Link granted", "sending 3 photos", "Saved photo 1/3",
                                             "Saved photo 2/3", "Saved photo 3/3", "Finished: 3 photos saved"};
    size_t at = 0;
    for (const std::string& stage : stages) {
        size_t found = take.output.find(stage, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << stage << "\n" << take.output;
        at = found;
    }
}

TEST(PhotoAppTest, JsonEventsForScripts)
{
    TwoDevices devices;
    std::string why;
    ASSERT_TRUE(devices.Start(&why)) << why;
    TempDir out;

    Device::Result take = devices.A().Photo({"take", "--device", "B", "--count", "2", "--out", out.Path(), "--json"});

    ASSERT_EQ(take.status, 0) << take.output;
    for (const char* event : {"\"event\":\"granted\"", "\"event\":\"photo_count\"", "\"event\":\"photo_saved\"",
                              "\"event\":\"finished\""}) {
        EXPECT_NE(take.output.find(event), std::string::npos) << event << "\n" << take.output;
    }
}

// Endings a user meets, each with its sentence and exit status, and no partial file.
struct EndingRow {
    const char* name;
    std::vector<std::string> cameraArgs;  // B's camera application
    std::vector<std::string> takeArgs;    // beyond --device B --out
    // What the test does once the collaboration runs (null: nothing).
    void (*act)(Device& a, Device& b, ChildProcess& photo);
    int exitStatus;
    const char* sentence;
};

void CancelWithCtrlC(Device&, Device&, ChildProcess& photo)
{
    photo.Signal(SIGINT);
}

void KillTheCameraApp(Device&, Device& b, ChildProcess&)
{
    // Once it has subscribed (it then names its photo source on the output it shares with its
    // daemon): a camera application that dies before subscribing is only noticed when the
    // requester's wait for the peer ends.
    ASSERT_TRUE(WaitUntil([&]() { return b.Log().find("Photo source:") != std::string::npos; })) << b.Log();
    kill(b.CameraPids().back(), SIGKILL);
}

void PrintTo(const EndingRow& row, std::ostream* out)
{
    *out << row.name;
}

class PhotoAppEndingTest : public testing::TestWithParam<EndingRow> {};

TEST_P(PhotoAppEndingTest, EndsWithItsSentenceAndStatus)
{
    const EndingRow& row = GetParam();
    TwoDevices devices(row.cameraArgs);
    std::string why;
    ASSERT_TRUE(devices.Start(&why)) << why;
    TempDir out;
    std::vector<std::string> args = {"take", "--device", "B", "--out", out.Path()};
    args.insert(args.end(), row.takeArgs.begin(), row.takeArgs.end());

    std::unique_ptr<ChildProcess> photo = devices.A().StartPhoto(args);
    if (row.act != nullptr) {
        ASSERT_TRUE(WaitUntil([&]() { return photo->Output().find("Link granted") != std::string::npos; }))
            << photo->Output();
        row.act(devices.A(), devices.B(), *photo);
    }
    std::optional<int> status = photo->Wait(60s);

    ASSERT_TRUE(status.has_value()) << "tandra-photo did not end\n" << photo->Output();
    EXPECT_EQ(*status, row.exitStatus) << photo->Output();
    EXPECT_NE(photo->Output().find(row.sentence), std::string::npos) << photo->Output();
    for (const std::string& name : FilesIn(out.Path())) {
        EXPECT_EQ(name.find(".part"), std::string::npos) << "a partial file was left: " << name;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Endings, PhotoAppEndingTest,
    testing::Values(
        // A long countdown on the camera keeps the collaboration running while the test acts.
        EndingRow{"CtrlC", {"--countdown", "30", "--source", "generated"}, {"--count", "3"}, CancelWithCtrlC, 130,
                  "You cancelled the request"},
        EndingRow{"CameraKilled", {"--countdown", "30", "--source", "generated"}, {"--count", "3"}, KillTheCameraApp,
                  16, "its camera app failed, was closed or crashed"},
        EndingRow{"NotForeground", {"--countdown", "0", "--source", "generated"}, {"--count", "1", "--background"},
                  nullptr, 10, "not the app in the foreground"}),
    [](const testing::TestParamInfo<EndingRow>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace QUEX::Tandra::ProcessTesting
