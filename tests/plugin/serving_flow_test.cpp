// Whole take-photo collaborations on the serving device against the scripted peer: the
// requester's command runs (resources, data channel, camera ability), the camera application
// subscribes and puts its photos or cancels (remote cancels refused by caller info and camera
// status on the way), and the collaboration ends however it comes; afterwards nothing of it
// stays registered, no wait runs and no descriptor is left open.
#include "serving_fixture.h"

namespace QUEX::Tandra::Testing {

enum class End { PHOTOS, LINK_DROP, REQUESTER_CANCELS, APP_CANCELS, APP_DIES, WIFI_OFF, DISCONNECT };

struct ServingEnding {
    const char* name;
    End end;
    Codes toldToRequester;  // control codes after "camera started"
    Codes cancelNotices;    // what the camera application hears of the end
    size_t cachedEvents;    // notices kept for a camera application that is gone
    friend void PrintTo(const ServingEnding& c, std::ostream* os) { *os << c.name; }
};

const ServingEnding SERVING_ENDINGS[] = {
    {"TakesPhotos", End::PHOTOS, {CODE_PHOTO_COUNT}, {}, 0},
    {"LinkDropsMidTransfer", End::LINK_DROP, {CODE_PHOTO_COUNT}, {}, 0},
    {"RequesterCancels", End::REQUESTER_CANCELS, {}, {CODE_LOCAL_TAKE_PHOTO_CANCELLED}, 0},
    {"CameraApplicationCancels", End::APP_CANCELS, {CODE_CAMERA_APP_FAILURE}, {}, 0},
    {"CameraApplicationDies", End::APP_DIES, {CODE_CAMERA_DIED}, {}, 1},
    {"WifiOff", End::WIFI_OFF, {CODE_PEER_WIFI_OFF}, {CODE_LOCAL_TAKE_PHOTO_CANCELLED}, 0},
    {"DisconnectNotice", End::DISCONNECT, {CODE_DISCONNECTED_BEFORE_SEND}, {CODE_LOCAL_TAKE_PHOTO_CANCELLED}, 0},
};

class ServingEndingTest : public ServingDeviceTest, public ::testing::WithParamInterface<ServingEnding> {};

TEST_P(ServingEndingTest, ReleasesEverything)
{
    const ServingEnding& ending = GetParam();
    const int32_t sessionId = OpenCollaborationWithChannel();
    const int32_t channelId = CameraAbilityProcess::GetInstance()->QueryDataChannelId(sessionId);
    std::vector<std::string> photos;
    if (ending.end == End::PHOTOS || ending.end == End::LINK_DROP) {
        PhotoFiles files({2 << 20, (3 << 20) + 5, (4 << 20) + 11});
        photos = std::move(files.contents);
        EXPECT_EQ(app_->PutImage(sessionId, 0, photos.size(), files.fds), 0);
    }
    if (ending.end == End::PHOTOS) {
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        std::vector<PeerMessage> data = Decode(Peer().SentOnChannel(channelId));
        const Codes codes = {CODE_PHOTO_COUNT, CODE_PHOTO, CODE_PHOTO, CODE_LAST_PHOTO};
        ASSERT_EQ(data.size(), codes.size());
        for (size_t i = 0; i < codes.size(); ++i) {
            EXPECT_EQ(data[i].code, codes[i]);
            EXPECT_TRUE(i == 0 ? data[0].size == 3 : data[i].payload == photos[i - 1]) << "message " << i;
        }
        EXPECT_EQ(app_->Events(), (std::vector<CameraApp::Event>{{CALLBACK_PUT_IMAGE_RESULT, CODE_LAST_PHOTO}}));
        EXPECT_EQ(app_->RemoteCancel(sessionId, CODE_CAMERA_APP_FAILURE), 1017);  // images being put
    } else if (ending.end == End::LINK_DROP) {
        // The host releases the command under the running transfer, which gives up.
        ASSERT_TRUE(Peer().AwaitSentOnChannel(channelId, 2));
        ASSERT_TRUE(Peer().AwaitDelivered(Peer().DropLink()));
    } else if (ending.end == End::APP_CANCELS) {
        // Relayed as it is, once, and only for a running camera of a known collaboration.
        EXPECT_EQ(app_->RemoteCancel(std::nullopt, CODE_CAMERA_APP_FAILURE), 1001);
        EXPECT_EQ(app_->RemoteCancel(sessionId + 100, CODE_CAMERA_APP_FAILURE), 1002);
        EXPECT_EQ(app_->RemoteCancel(sessionId, CODE_CAMERA_APP_FAILURE), 0);
        EXPECT_EQ(app_->RemoteCancel(sessionId, CODE_CAMERA_APP_FAILURE), 1017);
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
        EXPECT_EQ(app_->RemoteCancel(sessionId, CODE_CAMERA_APP_FAILURE), 1017);  // camera ended
    }
    const bool linkDropped = ending.end == End::LINK_DROP;
    if (!linkDropped) {  // the requester ends the collaboration
        ASSERT_TRUE(Peer().AwaitDelivered(Peer().CloseSession(sessionId)));
    }
    ExpectReleased(sessionId, linkDropped ? std::vector<int32_t>{} : std::vector<int32_t>{channelId});
    Codes told = ControlCodes(sessionId);
    EXPECT_EQ(Codes(told.begin() + 1, told.end()), ending.toldToRequester);
    Codes cancels;
    for (const auto& [subService, code] : app_->Events()) {
        if (subService == CALLBACK_CANCEL) {
            cancels.push_back(code);
        }
    }
    EXPECT_EQ(cancels, ending.cancelNotices);
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryCacheEventSize(), ending.cachedEvents);
}

INSTANTIATE_TEST_SUITE_P(Endings, ServingEndingTest, ::testing::ValuesIn(SERVING_ENDINGS),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace QUEX::Tandra::Testing
