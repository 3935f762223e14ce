// Every way a collaboration ends on the requesting device runs the stop sequence exactly once:
// the peer is told to stop (or, when the control session is already gone, only the
// connection manager is told), the service is published free once, the disconnect
// subscription is cancelled once, and nothing of the collaboration stays registered or waiting.
#include <functional>

#include "cancel_fixture.h"
#include "listener_manager.h"

namespace QUEX {
namespace Tandra {
namespace CancelTesting {
namespace {

constexpr uint32_t NO_EVENT = 0;

class EndingTest;

struct Ending {
    const char* name;
    std::function<void(EndingTest&, const Collaboration&)> run;
    uint32_t event;          // what the application hears last, NO_EVENT for nothing
    const char* message;     // its text
    bool stopRequestToPeer;  // the device closes the control session, telling the peer
};

class EndingTest : public RequestingDeviceTest, public testing::WithParamInterface<Ending> {
public:
    void PeerSendsMessage(const Collaboration& collaboration, std::string bytes, bool onDataChannel = false)
    {
        PeerSends(collaboration, std::move(bytes), onDataChannel);
    }
    int32_t Cancel(uint32_t collaborationId) { return CancelByService(collaborationId); }
    Testing::CallbackReply Disconnected() { return NotifyDisconnected(); }
    Testing::TestDevice& Device() { return device_; }
    void PhotoWait() { AwaitPhotoWait(); }
};

const Ending ENDINGS[] = {
    {"LastPhoto",
     [](EndingTest& test, const Collaboration& c) {
         test.PeerSendsMessage(c, CameraMessage(CODE_PHOTO_COUNT, 1));
         test.PhotoWait();
         test.PeerSendsMessage(c, CameraMessage(CODE_LAST_PHOTO, 1000, PhotoBytes(1000, 3)), true);
     },
     EVENT_LAST_PHOTO, "", true},
    {"ApplicationCancel", [](EndingTest& test, const Collaboration& c) { EXPECT_EQ(test.Cancel(c.id), 0); }, NO_EVENT,
     "", true},
    {"PeerFailureCode",
     [](EndingTest& test, const Collaboration& c) {
         test.PeerSendsMessage(c, CameraMessage(CODE_DATA_SEND_FAILED, 0));
     },
     1001202002, "errorcode", true},
    {"MalformedBuffer",
     [](EndingTest& test, const Collaboration& c) {
         test.PeerSendsMessage(c, CameraMessage(CODE_DISCONNECTED_BEFORE_SEND, 1));
     },
     1001, "error", true},
    {"DisconnectNotice", [](EndingTest& test, const Collaboration&) { EXPECT_EQ(test.Disconnected().status, 0); },
     EVENT_PEER_DISCONNECTED, "state", true},
    {"ControlChannelLost",
     [](EndingTest& test, const Collaboration& c) {
         auto& peer = test.Device().Peer();
         ASSERT_TRUE(peer.AwaitDelivered(peer.CloseSession(c.sessionId)));
     },
     1001202011, "errorcode", false},
    {"WifiOffHere", [](EndingTest& test, const Collaboration&) { test.Device().SetWifiActive(false); }, 1001202005,
     "errorcode", true},
    {"WifiOffAtPeer",
     [](EndingTest& test, const Collaboration& c) { test.PeerSendsMessage(c, CameraMessage(CODE_PEER_WIFI_OFF, 0)); },
     1001202004, "errorcode", true},
    {"ApplicationDied", [](EndingTest&, const Collaboration&) { Vex::ProcessRegistry::Get().DeclareDead(APP_PID); },
     NO_EVENT, "", true},
};

TEST_P(EndingTest, RunsTheStopSequenceOnce)
{
    const Ending& ending = GetParam();
    Collaboration collaboration = Start(true);
    ASSERT_NE(collaboration.sessionId, -1);
    ASSERT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4}));

    ending.run(*this, collaboration);
    Settle();

    if (ending.event == NO_EVENT) {
        EXPECT_TRUE(app_->Calls().empty());
    } else {
        ASSERT_FALSE(app_->Calls().empty());
        const AppCall last = app_->Calls().back();
        EXPECT_EQ(last.code, ending.event);
        EXPECT_EQ(last.collaborationId, collaboration.id);
        EXPECT_EQ(last.text, ending.message);
    }

    std::vector<CountingBus::Close> closes = env_->Bus().Closes();
    if (ending.stopRequestToPeer) {
        EXPECT_FALSE(device_.Peer().IsSessionOpen(collaboration.sessionId));
        // Wi-Fi off closes the session itself and the stop request finds it closed: the peer
        // still hears of it only once.
        ASSERT_GE(closes.size(), 1u);
        for (const auto& close : closes) {
            EXPECT_EQ(close.sessionId, collaboration.sessionId);
            EXPECT_TRUE(close.notifyPeer);
        }
        ASSERT_EQ(device_.Peer().SessionsClosedByDevice().size(), 1u);
        EXPECT_TRUE(device_.Peer().SessionsClosedByDevice()[0].notifyPeer);
    } else {
        EXPECT_TRUE(closes.empty());
    }
    EXPECT_EQ(FreeStatePublications(), 1u);
    EXPECT_EQ(Unsubscriptions(), 1u);
    ExpectGone(collaboration.id);
    ExpectApplicationReleased();
}

INSTANTIATE_TEST_SUITE_P(Endings, EndingTest, testing::ValuesIn(ENDINGS),
                         [](const testing::TestParamInfo<Ending>& info) { return std::string(info.param.name); });

using NotAnEndingTest = RequestingDeviceTest;

// The photo count is reported like any event, yet the collaboration goes on: the photos that
// follow are still delivered, and only the last one ends it, once. A stop wrongly run for the
// count would either drop those photos or show up as a second release of the peer.
TEST_F(NotAnEndingTest, PhotoCountLeavesTheCollaborationRunning)
{
    Collaboration collaboration = Start();
    PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, 2));
    ASSERT_TRUE(app_->AwaitCode(EVENT_PHOTO_COUNT));
    AwaitPhotoWait();
    EXPECT_NE(process_->QueryCameraProcess(collaboration.id), nullptr);
    EXPECT_EQ(process_->QuerySessionId(collaboration.id), collaboration.sessionId);

    PeerSends(collaboration, CameraMessage(CODE_PHOTO, 10, PhotoBytes(10, 1)), true);
    EXPECT_TRUE(device_.Peer().IsSessionOpen(collaboration.sessionId));
    EXPECT_EQ(FreeStatePublications(), 0u);
    PeerSends(collaboration, CameraMessage(CODE_LAST_PHOTO, 10, PhotoBytes(10, 2)), true);
    Settle();

    std::vector<AppCall> photos = app_->Photos();
    ASSERT_EQ(photos.size(), 2u);
    EXPECT_EQ(photos[0].code, EVENT_PHOTO);
    EXPECT_EQ(photos[1].code, EVENT_LAST_PHOTO);
    EXPECT_EQ(env_->Bus().Closes().size(), 1u);
    EXPECT_EQ(FreeStatePublications(), 1u);
    EXPECT_EQ(Unsubscriptions(), 1u);
    ExpectGone(collaboration.id);
    ExpectApplicationReleased();
}

// While the control session is still being opened the collaboration has no session id (-2):
// the Wi-Fi loop passes it over and an ending sends no stop request. The take-photo send then
// closes the session itself, without telling the peer, once it sees the collaboration gone.
TEST_F(NotAnEndingTest, NoSessionIdMeansNoStopRequest)
{
    LogWaiter log;
    device_.Peer().HoldSessionOpens();
    auto [result, id] = RequestByDispatch();
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(device_.Peer().AwaitSessionOpenAttempts(1));
    ASSERT_EQ(process_->QuerySessionId(id), -2);

    device_.SetWifiActive(false);
    EXPECT_TRUE(app_->Calls().empty());
    EXPECT_NE(process_->QueryCameraProcess(id), nullptr);

    ASSERT_EQ(NotifyDisconnected().status, 0);
    ASSERT_TRUE(app_->AwaitCode(EVENT_PEER_DISCONNECTED));
    // The stop sequence's last step.
    ASSERT_TRUE(log.Await("code = 1001200000."));
    EXPECT_EQ(process_->QueryCameraProcess(id), nullptr);
    EXPECT_TRUE(env_->Bus().Closes().empty());
    EXPECT_EQ(FreeStatePublications(), 0u);

    device_.Peer().ReleaseSessionOpens();
    Settle();
    std::vector<CountingBus::Close> closes = env_->Bus().Closes();
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_FALSE(closes[0].notifyPeer);
    ExpectGone(id);
    ExpectApplicationReleased();
}

// A cancel names its collaboration: another id changes nothing, and a collaboration is
// cancelled once.
TEST_F(NotAnEndingTest, CancelNamesItsCollaboration)
{
    Collaboration collaboration = Start();
    EXPECT_EQ(CancelByService(collaboration.id + 1), 1001);
    EXPECT_NE(process_->QueryCameraProcess(collaboration.id), nullptr);
    EXPECT_TRUE(env_->Bus().Closes().empty());

    EXPECT_EQ(CancelByService(collaboration.id), 0);
    EXPECT_EQ(CancelByService(collaboration.id), 1001);
    Settle();
    EXPECT_EQ(env_->Bus().Closes().size(), 1u);
    EXPECT_EQ(FreeStatePublications(), 1u);
    ExpectGone(collaboration.id);
}

// A session that the peer opened towards this device is named with the peer's own id, which
// may equal the id of this device's collaboration with that peer. Its loss ends only the
// commands it carried, not our collaboration.
TEST_F(NotAnEndingTest, LossOfThePeersOwnSessionIsNotOurs)
{
    Collaboration collaboration = Start();
    const std::string peersSession = IdText(collaboration.id) + "-" + device_.Identity().networkId;
    // Delivered on this thread: an ending would have told the application before it returns.
    ListenerManager::GetInstance()->NotifyCtrlChannelShutDown(peersSession);
    EXPECT_TRUE(app_->Calls().empty());
    EXPECT_NE(process_->QueryCameraProcess(collaboration.id), nullptr);
    EXPECT_TRUE(device_.Peer().IsSessionOpen(collaboration.sessionId));
    EXPECT_EQ(FreeStatePublications(), 0u);
    // The wait for the peer's first answer still runs.
    EXPECT_EQ(Vex::Clock::WaitingCount(), 1u);

    ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().CloseSession(collaboration.sessionId)));
    Settle();
    ASSERT_EQ(app_->Events().size(), 1u);
    EXPECT_EQ(app_->Events()[0].code, 1001202011u);
    ExpectGone(collaboration.id);
}

}  // namespace
}  // namespace CancelTesting
}  // namespace Tandra
}  // namespace QUEX
