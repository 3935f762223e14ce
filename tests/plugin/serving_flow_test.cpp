// Whole take-photo collaborations on the serving device against the scripted peer: the
// requester's command runs (resources, data channel, camera ability), the camera application
// subscribes and puts its photos or cancels, and the collaboration ends however it comes;
// afterwards nothing of it stays registered, no wait runs and no descriptor is left open.
#include "collaboration_sessions.h"
#include "process_registry.h"
#include "serving_fixture.h"

namespace QUEX::Tandra::Testing {

class ServingFlowTest : public ServingDeviceTest {
public:
    // The command runs with no conflict wait, the camera application starts and subscribes,
    // and the requester hears that the camera is up.
    void Begin()
    {
        descriptors_ = OpenDescriptors();
        sessionId_ = OpenCollaborationWithChannel();
        EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_SERVICE_STATE), 0u);
        ASSERT_EQ(device_.Launcher().StartCount(), 1u);
        EXPECT_EQ(device_.Launcher().Starts()[0].collaborationSessionId, sessionId_);
        EXPECT_EQ(device_.Launcher().Starts()[0].param.localBundleName, "com.example.photo");
        channelId_ = CameraAbilityProcess::GetInstance()->QueryDataChannelId(sessionId_);
        EXPECT_EQ(ControlCodes(sessionId_), Codes{CODE_CAMERA_STARTED});
    }

    std::set<int> descriptors_;
    int32_t sessionId_ = -1;
    int32_t channelId_ = -1;
};

enum class End {
    TAKES_PHOTOS,
    LINK_DROPS_MID_TRANSFER,
    REQUESTER_CANCELS,
    APP_CANCELS,
    APP_DIES,
    WIFI_OFF,
    DISCONNECT
};

struct ServingEnding {
    const char* name;
    End end;
    Codes toldToRequester;  // control codes after "camera started"
    Codes cancelNotices;    // what the camera application hears of the end
    size_t cachedEvents;    // notices kept for a camera application that is gone
};

const ServingEnding SERVING_ENDINGS[] = {
    {"TakesPhotos", End::TAKES_PHOTOS, {CODE_PHOTO_COUNT}, {}, 0},
    {"LinkDropsMidTransfer", End::LINK_DROPS_MID_TRANSFER, {CODE_PHOTO_COUNT}, {}, 0},
    {"RequesterCancels", End::REQUESTER_CANCELS, {}, {CODE_LOCAL_TAKE_PHOTO_CANCELLED}, 0},
    {"CameraApplicationCancels", End::APP_CANCELS, {CODE_CAMERA_APP_FAILURE}, {}, 0},
    {"CameraApplicationDies", End::APP_DIES, {CODE_CAMERA_DIED}, {}, 1},
    {"WifiOff", End::WIFI_OFF, {CODE_PEER_WIFI_OFF}, {CODE_LOCAL_TAKE_PHOTO_CANCELLED}, 0},
    {"DisconnectNotice", End::DISCONNECT, {CODE_DISCONNECTED_BEFORE_SEND}, {CODE_LOCAL_TAKE_PHOTO_CANCELLED}, 0},
};

class ServingEndingTest : public ServingFlowTest, public ::testing::WithParamInterface<ServingEnding> {};

TEST_P(ServingEndingTest, ReleasesEverything)
{
    const ServingEnding& ending = GetParam();
    const std::vector<std::string> photos = {PhotoContent(0, 2 << 20), PhotoContent(1, (3 << 20) + 5),
                                             PhotoContent(2, (4 << 20) + 11)};
    Begin();
    if (ending.end == End::TAKES_PHOTOS || ending.end == End::LINK_DROPS_MID_TRANSFER) {
        PhotoFiles files(photos);
        EXPECT_EQ(app_->PutImage(sessionId_, 0, photos.size(), files.fds), 0);
    }
    if (ending.end == End::TAKES_PHOTOS) {
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        std::vector<PeerMessage> data = Decode(device_.Peer().SentOnChannel(channelId_));
        ASSERT_EQ(data.size(), photos.size() + 1);
        EXPECT_EQ(std::make_pair(data[0].code, data[0].size), std::make_pair(CODE_PHOTO_COUNT, 3u));
        for (size_t i = 0; i < photos.size(); ++i) {
            EXPECT_EQ(data[i + 1].code, i == 2 ? CODE_LAST_PHOTO : CODE_PHOTO);
            EXPECT_TRUE(data[i + 1].payload == photos[i]) << "bytes of photo " << i << " differ";
        }
        EXPECT_EQ(app_->Events(), (std::vector<CameraApp::Event>{{CALLBACK_PUT_IMAGE_RESULT, CODE_LAST_PHOTO}}));
    } else if (ending.end == End::LINK_DROPS_MID_TRANSFER) {
        // The host releases the command under the running transfer, which gives up.
        ASSERT_TRUE(device_.Peer().AwaitSentOnChannel(channelId_, 2));
        ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().DropLink()));
    } else if (ending.end == End::APP_CANCELS) {
        EXPECT_EQ(app_->RemoteCancel(sessionId_, CODE_CAMERA_APP_FAILURE), 0);
    } else if (ending.end == End::APP_DIES) {
        Vex::ProcessRegistry::Get().DeclareDead(CAMERA_PID);
        ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
    } else if (ending.end == End::WIFI_OFF) {
        device_.SetWifiActive(false);
    } else if (ending.end == End::DISCONNECT) {
        auto subscription = meshline_->WaitForRequest(SUBSCRIBE_NOTIFY_DISCONNECT);
        ASSERT_TRUE(subscription.has_value());
        EXPECT_EQ(subscription->strings, std::vector<std::string>({REQUESTER_UDID, "Tandra", "disconnect"}));
        EXPECT_TRUE(meshline_->CallDisconnected(subscription->callback, "", REQUESTER_UDID, "disconnect", 0).replied);
    }
    const bool linkDropped = ending.end == End::LINK_DROPS_MID_TRANSFER;
    if (!linkDropped) {  // the requester ends the collaboration
        ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().CloseSession(sessionId_)));
    }
    ASSERT_TRUE(device_.Peer().AwaitIdle());
    ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
    ASSERT_TRUE(AsynThreadPool::WaitIdle());

    Codes told = ControlCodes(sessionId_);
    EXPECT_EQ(Codes(told.begin() + 1, told.end()), ending.toldToRequester);
    Codes cancels;
    for (const auto& [subService, code] : app_->Events()) {
        if (subService == CALLBACK_CANCEL) {
            cancels.push_back(code);
        }
    }
    EXPECT_EQ(cancels, ending.cancelNotices);
    auto process = CameraAbilityProcess::GetInstance();
    EXPECT_EQ(process->QueryCacheEventSize(), ending.cachedEvents);
    EXPECT_EQ(DeviceContext::Get().Sessions().ActiveIncomingCount(), 0u);
    EXPECT_TRUE(process->GetAllPutPhotoContexts().empty());
    EXPECT_EQ(process->QueryDataChannelId(sessionId_), -1);
    EXPECT_EQ(process->GetCollaborationDataInfo(), (std::pair<int32_t, std::string>{0, ""}));
    EXPECT_EQ(device_.Peer().ChannelsClosedByDevice(),
              linkDropped ? std::vector<int32_t>{} : std::vector<int32_t>{channelId_});
    // The connection manager hears that the service is free, once, and last.
    std::vector<RecordedRequest> published = meshline_->Requests(PUBLISH_SERVICE_STATE);
    ASSERT_FALSE(published.empty());
    EXPECT_EQ(published.back().ints.at(0), 1);
    EXPECT_EQ(std::count_if(published.begin(), published.end(), [](auto& r) { return r.ints.at(0) == 1; }), 1);
    EXPECT_EQ(meshline_->RequestCount(UNSUBSCRIBE_NOTIFY_DISCONNECT), 1u);
    EXPECT_EQ(Vex::Clock::WaitingCount(), 0u);
    EXPECT_EQ(OpenDescriptors(), descriptors_);
}

INSTANTIATE_TEST_SUITE_P(Endings, ServingEndingTest, ::testing::ValuesIn(SERVING_ENDINGS),
                         [](const auto& info) { return std::string(info.param.name); });

// The camera application's remote cancel: refused by caller info and camera status; while the
// camera runs, its code goes to the requester as it is, once.
TEST_F(ServingFlowTest, RemoteCancelRelaysOnlyWhileTheCameraRuns)
{
    Begin();
    auto process = CameraAbilityProcess::GetInstance();
    for (auto [offset, status] :
         {std::pair(1, PutPhotoContext::CAMERA_PUTTING), std::pair(2, PutPhotoContext::CAMERA_ENDED)}) {
        auto other = std::make_shared<PutPhotoContext>(sessionId_ + offset);
        ASSERT_TRUE(other->ChangeCameraStatus(status).first);
        ASSERT_TRUE(process->AddPutPhotoContext(sessionId_ + offset, other));
    }
    const std::pair<std::optional<int32_t>, int32_t> refused[] = {
        {std::nullopt, 1001}, {sessionId_ + 100, 1002}, {sessionId_ + 1, 1017}, {sessionId_ + 2, 1017}};
    for (const auto& [session, result] : refused) {
        EXPECT_EQ(app_->RemoteCancel(session, CODE_CAMERA_APP_FAILURE), result);
    }
    EXPECT_EQ(process->QueryPutPhotoContext(sessionId_ + 1)->GetCameraStatus(), PutPhotoContext::CAMERA_PUTTING);
    EXPECT_EQ(ControlCodes(sessionId_), Codes{CODE_CAMERA_STARTED});
    EXPECT_EQ(app_->RemoteCancel(sessionId_, CODE_CAMERA_APP_FAILURE), 0);
    auto context = process->QueryPutPhotoContext(sessionId_);
    EXPECT_EQ(context->GetCameraStatus(), PutPhotoContext::CAMERA_REMOTE_CANCELLED);
    EXPECT_EQ(std::make_pair(context->GetPid(), context->GetUid()), std::make_pair(CAMERA_PID, CAMERA_UID));
    EXPECT_EQ(app_->RemoteCancel(sessionId_, CODE_CAMERA_APP_FAILURE), 1017);
    EXPECT_EQ(ControlCodes(sessionId_), (Codes{CODE_CAMERA_STARTED, CODE_CAMERA_APP_FAILURE}));
    EXPECT_TRUE(process->ErasePutPhotoContext(sessionId_ + 1) && process->ErasePutPhotoContext(sessionId_ + 2));
}

}  // namespace QUEX::Tandra::Testing
