// Whole take-photo collaborations on the serving device against the scripted peer: the
// requester opens a control session with the command text its plugin writes, the device runs
// the command (resources, data channel, camera ability), the camera application subscribes and
// puts its photos, and the collaboration ends however it comes. Afterwards the command is
// released, nothing of it stays registered, no wait runs and no descriptor is left open.
// Time is simulated, so a wait left behind shows up among the clock's waiters.
#include <functional>
#include <set>

#include "cancel_fixture.h"
#include "collaboration_sessions.h"
#include "put_photo_context.h"
#include "serving_test_support.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

const std::string SESSION_NAME = "00000000007-" + TestDevice::DefaultIdentity().networkId;
const std::string TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";
constexpr uint32_t APP_FAILURE = 1001201903;

AbilityInfo CameraAbility()
{
    AbilityInfo info;
    info.bundleName = CAMERA_BUNDLE;
    info.abilityName = "CameraAbility";
    info.moduleName = "entry";
    info.action = TAKE_PHOTO_TYPE;
    info.abilityType = TAKE_PHOTO_TYPE;
    return info;
}

class ServingCollaborationTest : public ServingDeviceTest {
public:
    ServingCollaborationTest() { Vex::Clock::UseSimulatedTime(); }

    void SetUp() override
    {
        commandText_ = RequesterCommandText();
        device_.AddLocalAbility(CameraAbility());
        ServingDeviceTest::SetUp();
        meshline_->AnswerApplyResource(320001);
        descriptors_ = OpenDescriptors();
    }

    // The command text exactly as the requesting device's plugin writes it, for a peer (this
    // device) whose camera ability it knows: written in a short-lived view of the requester.
    static std::string RequesterCommandText()
    {
        DeviceIdentity requester = TestDevice::PeerIdentity();
        TestDevice view(requester);
        view.AddPeerDevice(TestDevice::DefaultIdentity(), {CameraAbility()});
        std::string servingUdid = TestDevice::DefaultIdentity().udid;
        return CameraAbilityProcess::GetInstance()->GenerateTakePhotoReqCommand(
            servingUdid, new AbilityFilter(TAKE_PHOTO_TYPE),
            new LocalInfo("com.example.photo", "MainAbility", "entry", requester.udid, requester.deviceType));
    }

    // Steps 3 and 4: the command runs, the camera application starts and subscribes, and the
    // requester hears that the camera is up.
    void Begin()
    {
        sessionId_ = device_.Peer().OpenSessionToDevice(RequesterNetworkId(), SESSION_NAME, commandText_);
        int32_t result = -1;
        ASSERT_TRUE(device_.Peer().AwaitOpenResult(sessionId_, result));
        ASSERT_EQ(result, 0);
        ASSERT_EQ(device_.Launcher().StartCount(), 1u);
        StartRecord start = device_.Launcher().Starts()[0];
        EXPECT_EQ(start.collaborationSessionId, sessionId_);
        EXPECT_EQ(start.param.bundleName, CAMERA_BUNDLE);
        EXPECT_EQ(start.param.localBundleName, "com.example.photo");

        ASSERT_TRUE(meshline_->WaitForRequest(APPLY_ADVANCED_RESOURCE).has_value());
        ASSERT_TRUE(device_.Peer().AwaitChannelsOpened(1));
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        channelId_ = CameraAbilityProcess::GetInstance()->QueryDataChannelId(sessionId_);
        ASSERT_NE(channelId_, -1);

        ASSERT_EQ(camera_.Subscribe(EVENT_IMAGE_PROCESS_COMPLETE), 0);
        ASSERT_EQ(camera_.Subscribe(EVENT_IMAGE_PREVIEW_CANCEL), 0);
        EXPECT_EQ(ControlCodes(), (std::vector<uint32_t>{CODE_CAMERA_STARTED}));
    }

    // Step 5: the camera application puts its photos; returns the put-image result once the
    // sending is over.
    int32_t PutPhotos(const std::vector<std::string>& contents, const std::function<void()>& whileSending = nullptr)
    {
        int32_t result = -1;
        {
            std::vector<PhotoFile> files;
            std::vector<int> fds;
            for (const auto& content : contents) {
                files.emplace_back(content);
                fds.push_back(files.back().Fd());
            }
            result = camera_.PutImage(sessionId_, 0, static_cast<uint32_t>(contents.size()), fds);
        }
        if (whileSending) {
            whileSending();
        }
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        return result;
    }

    // The requester ends the collaboration: its plugin closes the control session.
    void RequesterCloses() { ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().CloseSession(sessionId_))); }

    // The command is released and nothing of the collaboration is left. The data channel is
    // closed by the release, unless the link already took it down.
    void ExpectReleased(bool linkDropped = false)
    {
        ASSERT_TRUE(device_.Peer().AwaitIdle());
        ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        auto process = CameraAbilityProcess::GetInstance();
        EXPECT_EQ(DeviceContext::Get().Sessions().ActiveIncomingCount(), 0u);
        EXPECT_EQ(process->QueryPutPhotoContext(sessionId_), nullptr);
        EXPECT_TRUE(process->GetAllPutPhotoContexts().empty());
        EXPECT_EQ(process->QueryDataChannelId(sessionId_), -1);
        EXPECT_EQ(process->GetCollaborationDataInfo(), (std::pair<int32_t, std::string>{0, ""}));
        std::vector<int32_t> closedChannels = device_.Peer().ChannelsClosedByDevice();
        EXPECT_EQ(closedChannels, linkDropped ? std::vector<int32_t>{} : std::vector<int32_t>{channelId_});

        // The connection manager hears that the service is free, once, and last.
        std::vector<RecordedRequest> published = meshline_->Requests(PUBLISH_SERVICE_STATE);
        size_t freed = 0;
        for (const auto& request : published) {
            EXPECT_EQ(request.strings.at(0), TestDevice::PeerIdentity().udid);
            EXPECT_EQ(request.strings.at(1), "Tandra");
            freed += request.ints.at(0) == 1 ? 1 : 0;
        }
        EXPECT_EQ(freed, 1u);
        ASSERT_FALSE(published.empty());
        EXPECT_EQ(published.back().ints.at(0), 1);
        EXPECT_EQ(meshline_->RequestCount(UNSUBSCRIBE_NOTIFY_DISCONNECT), 1u);

        EXPECT_EQ(Vex::Clock::WaitingCount(), 0u);
        EXPECT_EQ(OpenDescriptors(), descriptors_);
    }

    TestDevice& Device() { return device_; }
    std::vector<uint32_t> ControlCodes() { return Codes(device_.Peer().SentOnSession(sessionId_)); }

    // The cancel notices the camera application got ("imagePreviewCancel").
    std::vector<uint32_t> CancelNotices()
    {
        std::vector<uint32_t> codes;
        for (const auto& event : camera_.Callback()->Events()) {
            if (event.subService == CALLBACK_CANCEL) {
                codes.push_back(event.code);
            }
        }
        return codes;
    }

    int32_t RemoteCancel(uint32_t errCode)
    {
        Vex::MessageParcel data;
        CancelTesting::WriteRemoteCancelRequest(data, &sessionId_, errCode);
        return camera_.Send(data);
    }

    std::string commandText_;
    std::set<int> descriptors_;
    CameraApp camera_;
    int32_t sessionId_ = -1;
    int32_t channelId_ = -1;
};

TEST_F(ServingCollaborationTest, TakesPhotosAndReleases)
{
    Begin();
    const std::vector<std::string> contents = {PhotoContent(0, 2 * 1024 * 1024), PhotoContent(1, 3 * 1024 * 1024 + 5),
                                               PhotoContent(2, 4 * 1024 * 1024 + 11)};
    EXPECT_EQ(PutPhotos(contents), 0);

    // The count on both channels, then every photo on the data channel, whole.
    std::vector<SentMessage> data = device_.Peer().SentOnChannel(channelId_);
    ASSERT_EQ(data.size(), contents.size() + 1);
    PeerMessage count = Decode(data[0].bytes);
    EXPECT_EQ(count.code, CODE_PHOTO_COUNT);
    EXPECT_EQ(count.size, contents.size());
    for (size_t i = 0; i < contents.size(); ++i) {
        SCOPED_TRACE(i);
        PeerMessage photo = Decode(data[i + 1].bytes);
        EXPECT_EQ(photo.code, i + 1 == contents.size() ? CODE_LAST_PHOTO : CODE_PHOTO);
        EXPECT_EQ(photo.size, contents[i].size());
        EXPECT_TRUE(photo.payload == contents[i]) << "photo bytes differ";
    }
    EXPECT_EQ(ControlCodes(), (std::vector<uint32_t>{CODE_CAMERA_STARTED, CODE_PHOTO_COUNT}));
    auto events = camera_.Callback()->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].subService, CALLBACK_PUT_IMAGE_RESULT);
    EXPECT_EQ(events[0].code, CODE_LAST_PHOTO);

    // The requester has everything and stops the collaboration.
    RequesterCloses();
    ExpectReleased();
    EXPECT_TRUE(CancelNotices().empty());
}

struct ServingEnding {
    const char* name;
    std::function<void(ServingCollaborationTest&)> run;
    std::vector<uint32_t> toldToRequester;  // control codes after "camera started"
    std::vector<uint32_t> cancelNotices;    // what the camera application hears of the end
    size_t cachedEvents;                    // notices kept for a camera application that is gone
};

class ServingEndingTest : public ServingCollaborationTest, public testing::WithParamInterface<ServingEnding> {};

const ServingEnding SERVING_ENDINGS[] = {
    // The requesting application cancels: its plugin closes the session while the camera runs.
    {"RequesterCancels",
     [](ServingCollaborationTest& test) { test.RequesterCloses(); },
     {},
     {CODE_LOCAL_TAKE_PHOTO_CANCELLED},
     0},
    {"CameraApplicationCancels",
     [](ServingCollaborationTest& test) {
         EXPECT_EQ(test.RemoteCancel(APP_FAILURE), 0);
         test.RequesterCloses();
     },
     {APP_FAILURE},
     {},
     0},
    {"CameraApplicationDies",
     [](ServingCollaborationTest& test) {
         Vex::ProcessRegistry::Get().DeclareDead(CAMERA_PID);
         ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
         ASSERT_TRUE(AsynThreadPool::WaitIdle());
         test.RequesterCloses();
     },
     {CODE_CAMERA_DIED},
     {},
     1},
    {"WifiOff",
     [](ServingCollaborationTest& test) {
         test.Device().SetWifiActive(false);
         test.RequesterCloses();
     },
     {CODE_PEER_WIFI_OFF},
     {CODE_LOCAL_TAKE_PHOTO_CANCELLED},
     0},
};

TEST_P(ServingEndingTest, ReleasesEverything)
{
    const ServingEnding& ending = GetParam();
    Begin();
    ending.run(*this);
    ExpectReleased();
    std::vector<uint32_t> told = ControlCodes();
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(std::vector<uint32_t>(told.begin() + 1, told.end()), ending.toldToRequester);
    EXPECT_EQ(CancelNotices(), ending.cancelNotices);
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryCacheEventSize(), ending.cachedEvents);
}

INSTANTIATE_TEST_SUITE_P(Endings, ServingEndingTest, testing::ValuesIn(SERVING_ENDINGS),
                         [](const testing::TestParamInfo<ServingEnding>& info) {
                             return std::string(info.param.name);
                         });

// The link to the requester drops while photos are being sent: the host releases the command
// under the running transfer, which gives up; every descriptor is still closed.
TEST_F(ServingCollaborationTest, LinkDropsMidTransfer)
{
    Begin();
    const std::vector<std::string> photos = {PhotoContent(0, 4 * 1024 * 1024), PhotoContent(1, 4 * 1024 * 1024),
                                             PhotoContent(2, 4 * 1024 * 1024)};
    int32_t result = PutPhotos(photos, [this]() {
        ASSERT_TRUE(device_.Peer().AwaitSentOnChannel(channelId_, 2));
        ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().DropLink()));
    });
    EXPECT_EQ(result, 0);
    ExpectReleased(true);
    EXPECT_GE(device_.Peer().SentOnChannel(channelId_).size(), 2u);
    EXPECT_TRUE(CancelNotices().empty());
}

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
