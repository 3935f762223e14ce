// The take-photo command's Release, run by the host when the requester closes the session,
// in each state the camera can be in: what is reported and what is taken down.
#include <chrono>

#include "serving_test_support.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

using namespace std::chrono_literals;

enum class Setup {
    CAMERA_RUNNING,             // the camera application subscribed: alive
    CAMERA_NEVER_SUBSCRIBED,    // started but never heard of: taken for dead
    PUTTING_CHANNEL_OPEN,       // photos handed over on an open channel
    PUTTING_CHANNEL_FAILED,     // photos handed over, but the channel could not open
    PUTTING_CHANNEL_UNSETTLED,  // photos handed over while the channel still waits for its grant
    ENDED,                      // already ended (pre-empted)
    REMOTE_CANCELLED,           // the camera application cancelled
};

struct ReleaseCase {
    const char* name;
    Setup setup;
    // The release report (scene, stage, result, error); scene 0: none.
    int32_t scene;
    int32_t stage;
    int32_t res;
    int32_t error;
    bool cancelToApp;
    bool channelOpened;
};

void PrintTo(const ReleaseCase& c, std::ostream* os)
{
    *os << c.name;
}

class ReleaseTest : public ServingDeviceTest, public ::testing::WithParamInterface<ReleaseCase> {
protected:
    int32_t Prepare(const ReleaseCase& c)
    {
        const bool putting = c.setup == Setup::PUTTING_CHANNEL_OPEN || c.setup == Setup::PUTTING_CHANNEL_FAILED ||
                             c.setup == Setup::PUTTING_CHANNEL_UNSETTLED;
        if (c.setup == Setup::PUTTING_CHANNEL_FAILED) {
            device_.Peer().FailChannelOpens(-5);
        }
        if (c.setup != Setup::PUTTING_CHANNEL_UNSETTLED) {
            meshline_->AnswerApplyResource(320001);
        }
        int32_t result = -1;
        int32_t sessionId = OpenCollaboration(result);
        EXPECT_EQ(result, 0);
        if (c.setup == Setup::PUTTING_CHANNEL_UNSETTLED) {
            EXPECT_TRUE(meshline_->WaitForRequest(APPLY_ADVANCED_RESOURCE).has_value());
        } else {
            EXPECT_TRUE(AsynThreadPool::WaitIdle());
        }
        if (c.setup != Setup::CAMERA_NEVER_SUBSCRIBED) {
            EXPECT_EQ(app_.Subscribe(EVENT_IMAGE_PREVIEW_CANCEL), 0);
        }
        auto context = CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId);
        EXPECT_NE(context, nullptr);
        if (putting) {
            EXPECT_EQ(app_.PutImage(sessionId, 0, 1, {photo_.Fd()}), 0);
            if (c.setup != Setup::PUTTING_CHANNEL_UNSETTLED) {
                EXPECT_TRUE(AsynThreadPool::WaitIdle());
            }
        } else if (c.setup == Setup::ENDED && context != nullptr) {
            context->ChangeCameraStatus(PutPhotoContext::CAMERA_ENDED);
        } else if (c.setup == Setup::REMOTE_CANCELLED && context != nullptr) {
            context->ChangeCameraStatus(PutPhotoContext::CAMERA_REMOTE_CANCELLED);
        }
        events_.Clear();
        return sessionId;
    }

    CameraApp app_;
    PhotoFile photo_{PhotoContent(0, 256)};
};

TEST_P(ReleaseTest, ReportsAndTakesDown)
{
    const ReleaseCase& c = GetParam();
    int32_t sessionId = Prepare(c);
    std::vector<ChannelRecord> channels = device_.Peer().Channels();
    size_t cancelsBefore = app_.Callback()->Events().size();

    ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().CloseSession(sessionId)));

    auto process = CameraAbilityProcess::GetInstance();
    EXPECT_EQ(process->QueryPutPhotoContext(sessionId), nullptr);
    EXPECT_EQ(process->QueryDataChannelId(sessionId), -1);
    EXPECT_TRUE(process->GetCollaborationDataInfo().second.empty());
    if (c.channelOpened) {
        ASSERT_EQ(channels.size(), 1u);
        EXPECT_EQ(device_.Peer().ChannelsClosedByDevice(), std::vector<int32_t>({channels[0].channelId}));
    } else {
        EXPECT_TRUE(device_.Peer().ChannelsClosedByDevice().empty());
    }

    bool freed = false;
    for (const auto& publish : meshline_->Requests(PUBLISH_SERVICE_STATE)) {
        freed = freed || (publish.ints == std::vector<int32_t>({1}) &&
                          publish.strings == std::vector<std::string>({RequesterNetworkId(), "Tandra", ""}));
    }
    EXPECT_TRUE(freed);
    auto unsubscribe = meshline_->WaitForRequest(UNSUBSCRIBE_NOTIFY_DISCONNECT);
    ASSERT_TRUE(unsubscribe.has_value());
    EXPECT_EQ(unsubscribe->strings, std::vector<std::string>({RequesterNetworkId(), "Tandra"}));

    auto reports = EventsOf("RecordCommandReleaseResult");
    if (c.scene == 0) {
        EXPECT_TRUE(reports.empty());
    } else {
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_TRUE(HasEvent(reports, c.scene, c.stage, c.res, c.error));
        EXPECT_EQ(EventInt(reports[0], "BIZ_STATE"), 2);
    }

    auto events = app_.Callback()->Events();
    if (c.cancelToApp) {
        ASSERT_EQ(events.size(), cancelsBefore + 1);
        EXPECT_EQ(events.back().subService, CALLBACK_CANCEL);
        EXPECT_EQ(events.back().code, CODE_LOCAL_TAKE_PHOTO_CANCELLED);
    } else {
        EXPECT_EQ(events.size(), cancelsBefore);
    }

    if (c.setup == Setup::PUTTING_CHANNEL_UNSETTLED) {
        // The channel opening still waits for its grant; it runs out and opens nothing.
        ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
        Vex::Clock::Advance(15s);
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        EXPECT_TRUE(device_.Peer().Channels().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    CameraStatus, ReleaseTest,
    ::testing::Values(ReleaseCase{"RunningAlive", Setup::CAMERA_RUNNING, 3, 8, 3, 0, true, true},
                      ReleaseCase{"RunningDead", Setup::CAMERA_NEVER_SUBSCRIBED, 3, 8, 2, 461440992, false, true},
                      ReleaseCase{"PuttingOpen", Setup::PUTTING_CHANNEL_OPEN, 0, 0, 0, 0, false, true},
                      ReleaseCase{"PuttingFailed", Setup::PUTTING_CHANNEL_FAILED, 0, 0, 0, 0, false, false},
                      ReleaseCase{"PuttingUnsettled", Setup::PUTTING_CHANNEL_UNSETTLED, 5, 9, 3, 0, false, false},
                      ReleaseCase{"Ended", Setup::ENDED, 0, 0, 0, 0, false, true},
                      ReleaseCase{"RemoteCancelled", Setup::REMOTE_CANCELLED, 0, 0, 0, 0, false, true}),
    [](const ::testing::TestParamInfo<ReleaseCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
