// Every way a collaboration ends on the requesting device, before or during the transfer, runs
// the stop sequence once: the peer is told to stop (unless the control session is already
// gone), the service is published free once, the disconnect subscription is cancelled once, and
// nothing stays registered, waiting, open, or holding the application's callback object. Also
// the whole collaboration with photos of a few MiB delivered byte for byte.
#include <json/json.h>

#include <functional>

#include "listener_manager.h"
#include "requesting_fixture.h"

namespace QUEX::Tandra::RequestingTesting {
namespace {

class EndingTest;

struct Ending {
    const char* name;
    bool midTransfer;  // after the camera started, the count and a first photo
    std::function<void(EndingTest&, const Collaboration&)> run;
    uint32_t event;  // the application's last call, 0 for none beyond the transfer's
    const char* text;
    bool stopToPeer;  // the device closes the control session, telling the peer
    size_t calls = 1;  // the application's calls the ending brings, when event is not 0
};

void PrintTo(const Ending& ending, std::ostream* os)
{
    *os << ending.name;
}

class EndingTest : public RequestingDeviceTest, public testing::WithParamInterface<Ending> {
public:
    void SetUp() override
    {
        RequestingDeviceTest::SetUp();
        descriptors_ = OpenDescriptors();
    }

    // The camera is up, and the photo count comes on both channels: reported once.
    void CameraStartedAndCount(const Collaboration& collaboration, uint32_t count)
    {
        PeerSends(collaboration, CameraMessage(CODE_CAMERA_STARTED, 0));
        EXPECT_TRUE(app_->Calls().empty());
        PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, count));
        PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, count), true);
        AwaitPhotoWait();
    }

    void SendPhoto(const Collaboration& collaboration, const std::string& photo, bool last)
    {
        PeerSends(collaboration, CameraMessage(last ? CODE_LAST_PHOTO : CODE_PHOTO, photo.size(), photo), true);
    }

    void ExpectStopped(const Collaboration& collaboration, bool stopToPeer)
    {
        const auto closes = env_->bus_.Closes();
        if (stopToPeer) {
            EXPECT_FALSE(device_.Peer().IsSessionOpen(collaboration.sessionId));
            // Wi-Fi off closes the session itself and the stop request then finds it closed:
            // the peer still hears of it once.
            ASSERT_GE(closes.size(), 1u);
            for (const auto& [sessionId, notifyPeer] : closes) {
                EXPECT_EQ(sessionId, collaboration.sessionId);
                EXPECT_TRUE(notifyPeer);
            }
            ASSERT_EQ(device_.Peer().SessionsClosedByDevice().size(), 1u);
        } else {
            EXPECT_TRUE(closes.empty());
        }
        EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4, 1}));
        const auto unsubscriptions = meshline_->Requests(Testing::UNSUBSCRIBE_NOTIFY_DISCONNECT);
        ASSERT_EQ(unsubscriptions.size(), 1u);
        EXPECT_EQ(unsubscriptions[0].strings, (std::vector<std::string>{peer_.networkId, FRAMEWORK}));
        ExpectGone(collaboration.id);
        EXPECT_EQ(OpenDescriptors(), descriptors_);
    }

    // A take-photo command item as a requester with this UDID writes it.
    static Json::Value CommandItem(const std::string& requesterUdid)
    {
        Json::Value item(Json::objectValue);
        item["commandType"] = 1;
        item["isDual"] = false;
        Json::Value& local = item["localInfo"];
        local["localBundleName"] = "com.third.photo";
        local["localAbilityName"] = "MainAbility";
        local["localDeviceId"] = requesterUdid;
        local["localModuleName"] = "entry";
        local["localDeviceType"] = 14;
        Json::Value& extra = item["extraData"];
        extra["peerBundleName"] = "com.local.camera";
        extra["peerAbilityName"] = "CameraAbility";
        extra["peerAction"] = "local.action.TakePhoto";
        extra["peerAbilityType"] = TAKE_PHOTO_TYPE;
        return item;
    }
    static std::string Text(const std::vector<Json::Value>& items)
    {
        Json::Value array(Json::arrayValue);
        for (const auto& item : items) {
            array.append(item);
        }
        return array.toStyledString();
    }
    // The service states this device published for one peer.
    std::vector<int32_t> StatesPublishedFor(const std::string& networkId)
    {
        std::vector<int32_t> states;
        for (const auto& request : meshline_->Requests(Testing::PUBLISH_SERVICE_STATE)) {
            if (request.strings.at(0) == networkId) {
                states.push_back(request.ints.at(0));
            }
        }
        return states;
    }

    std::set<int> descriptors_;
};

void PeerFailure(EndingTest& test, const Collaboration& c, uint32_t code, uint32_t size = 0)
{
    test.PeerSends(c, CameraMessage(code, size));
}

const Ending ENDINGS[] = {
    {"LastPhoto", true, [](EndingTest& t, const Collaboration& c) { t.SendPhoto(c, PhotoBytes(1000, 3), true); },
     EVENT_LAST_PHOTO, "", true},
    {"ApplicationCancel", false, [](EndingTest& t, const Collaboration& c) { EXPECT_EQ(t.Cancel(c.id), 0); }, 0, "",
     true},
    {"ApplicationCancelMidTransfer", true, [](EndingTest& t, const Collaboration& c) { EXPECT_EQ(t.Cancel(c.id), 0); },
     0, "", true},
    {"PeerFailureCode", false, [](EndingTest& t, const Collaboration& c) { PeerFailure(t, c, CODE_DATA_SEND_FAILED); },
     1001202002, "errorcode", true},
    {"CameraDiedMidTransfer", true, [](EndingTest& t, const Collaboration& c) { PeerFailure(t, c, CODE_CAMERA_DIED); },
     1001202002, "errorcode", true},
    {"MalformedBuffer", false,
     [](EndingTest& t, const Collaboration& c) { PeerFailure(t, c, CODE_DISCONNECTED_BEFORE_SEND, 1); }, 1001, "error",
     true},
    {"DisconnectNotice", false,
     [](EndingTest& t, const Collaboration&) {
         auto subscription = t.meshline_->WaitForRequest(Testing::SUBSCRIBE_NOTIFY_DISCONNECT);
         ASSERT_TRUE(subscription.has_value());
         EXPECT_EQ(t.meshline_->CallDisconnected(subscription->callback, "", t.peer_.networkId, "disconnect", 0).status,
                   0);
     },
     EVENT_PEER_DISCONNECTED, "state", true},
    {"ControlChannelLost", false,
     [](EndingTest& t, const Collaboration& c) {
         ASSERT_TRUE(t.device_.Peer().AwaitDelivered(t.device_.Peer().CloseSession(c.sessionId)));
     },
     1001202011, "errorcode", false},
    {"LinkDropsMidTransfer", true,
     [](EndingTest& t, const Collaboration&) {
         ASSERT_TRUE(t.device_.Peer().AwaitDelivered(t.device_.Peer().DropLink()));
     },
     1001202011, "errorcode", false},
    {"WifiOffHere", false, [](EndingTest& t, const Collaboration&) { t.device_.SetWifiActive(false); }, 1001202005,
     "errorcode", true},
    {"WifiOffAtPeer", false, [](EndingTest& t, const Collaboration& c) { PeerFailure(t, c, CODE_PEER_WIFI_OFF); },
     1001202004, "errorcode", true},
    {"ApplicationDied", false,
     [](EndingTest&, const Collaboration&) { Vex::ProcessRegistry::Get().DeclareDead(APP_PID); }, 0, "", true},
    {"ApplicationDiedMidTransfer", true,
     [](EndingTest&, const Collaboration&) { Vex::ProcessRegistry::Get().DeclareDead(APP_PID); }, 0, "", true},
    // A photo the application cannot take ends the collaboration like any failure: the refused
    // photo, then the error.
    {"PhotoRefusedByApplication", true,
     [](EndingTest& t, const Collaboration& c) {
         t.app_->RefuseCall(EVENT_PHOTO);
         t.SendPhoto(c, PhotoBytes(4000, 6), false);
     },
     1001202009, "errorcode", true, 2},
    {"LastPhotoRefusedByApplication", true,
     [](EndingTest& t, const Collaboration& c) {
         t.app_->RefuseCall(EVENT_LAST_PHOTO);
         t.SendPhoto(c, PhotoBytes(4000, 7), true);
     },
     1001202002, "errorcode", true, 2}};

TEST_P(EndingTest, RunsTheStopSequenceOnce)
{
    const Ending& ending = GetParam();
    Collaboration collaboration = Start();
    ASSERT_NE(collaboration.sessionId, -1);
    ASSERT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4}));
    const std::string photo = PhotoBytes(1 << 20, 5);
    if (ending.midTransfer) {
        CameraStartedAndCount(collaboration, 3);
        SendPhoto(collaboration, photo, false);
    }
    const size_t before = app_->Calls().size();

    ending.run(*this, collaboration);
    Settle();
    if (ending.midTransfer) {
        // A photo still in flight when the collaboration ended is dropped.
        device_.Peer().SendOnDataChannel(collaboration.sessionId, CameraMessage(CODE_PHOTO, photo.size(), photo));
        Settle();
    }
    const std::vector<AppCall> calls = app_->Calls();
    if (ending.event == 0) {
        EXPECT_EQ(calls.size(), before);
    } else {
        ASSERT_EQ(calls.size(), before + ending.calls);
        EXPECT_EQ(calls.back().code, ending.event);
        EXPECT_EQ(calls.back().collaborationId, collaboration.id);
        EXPECT_EQ(calls.back().text, ending.text);
    }
    ExpectStopped(collaboration, ending.stopToPeer);
}

INSTANTIATE_TEST_SUITE_P(Endings, EndingTest, testing::ValuesIn(ENDINGS),
                         [](const testing::TestParamInfo<Ending>& info) { return std::string(info.param.name); });

// The whole collaboration: one count (its data-channel copy refused), then every photo in order,
// whole, with its status; after the last one the peer is told to stop and the service is free.
TEST_F(EndingTest, TakesPhotosAndFinishes)
{
    Collaboration collaboration = Start();
    // Above and below the parcel's inline limit for raw data.
    const std::vector<std::string> photos = {PhotoBytes(2 * 1024 * 1024 + 3, 11), PhotoBytes(10, 12),
                                             PhotoBytes(3 * 1024 * 1024 + 5, 13)};
    CameraStartedAndCount(collaboration, photos.size());
    for (size_t i = 0; i < photos.size(); ++i) {
        SendPhoto(collaboration, photos[i], i + 1 == photos.size());
    }
    Settle();

    const std::vector<AppCall> calls = app_->Calls();
    ASSERT_EQ(calls.size(), 1 + photos.size());
    EXPECT_EQ(calls[0].serviceType, 101u);
    EXPECT_EQ(calls[0].subServiceType, 104u);
    EXPECT_EQ(calls[0].code, EVENT_PHOTO_COUNT);
    EXPECT_EQ(calls[0].text, "3");
    for (size_t i = 0; i < photos.size(); ++i) {
        SCOPED_TRACE(i);
        const AppCall& photo = calls[i + 1];
        EXPECT_EQ(photo.serviceType, 102u);
        EXPECT_EQ(photo.subServiceType, 105u);
        EXPECT_EQ(photo.code, i + 1 == photos.size() ? EVENT_LAST_PHOTO : EVENT_PHOTO);
        EXPECT_EQ(photo.collaborationId, collaboration.id);
        EXPECT_EQ(photo.size, photos[i].size());
        EXPECT_TRUE(photo.bytes == photos[i]) << "photo bytes differ";
    }
    ExpectStopped(collaboration, true);
}

// Not endings: the photo count (reported, with the stop sequence posted for it returning early),
// and the loss of a session the peer opened towards this device, named with the peer's own id
// which may equal our collaboration id with that peer.
TEST_F(EndingTest, PhotoCountAndThePeersOwnSessionLossAreNotEndings)
{
    Collaboration collaboration = Start();
    ListenerManager::GetInstance()->NotifyCtrlChannelShutDown(IdText(collaboration.id) + "-" +
                                                              device_.Identity().networkId);
    PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, 2));
    AwaitPhotoWait();
    ASSERT_TRUE(log_.Await("not need to perform the following operations."));
    ASSERT_EQ(app_->Calls().size(), 1u);
    EXPECT_EQ(app_->Calls()[0].code, EVENT_PHOTO_COUNT);
    EXPECT_NE(process_->QueryCameraProcess(collaboration.id), nullptr);
    EXPECT_EQ(process_->QuerySessionId(collaboration.id), collaboration.sessionId);
    EXPECT_TRUE(env_->bus_.Closes().empty());
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4}));
    EXPECT_EQ(meshline_->RequestCount(Testing::UNSUBSCRIBE_NOTIFY_DISCONNECT), 0u);
}

// Sessions opened towards this device by a third paired device, or by the peer itself, named
// as the collaboration's own session or with this device's id: whatever comes on them (photos,
// failure codes, an empty message, their close) leaves the collaboration alone. Only the loss of
// its own session ends it.
TEST_F(EndingTest, OtherSessionsCannotSteerTheCollaboration)
{
    const std::string third = "THIRDNETWORKID0003";
    device_.AddPeerDevice({third, "THIRDUDID0003", 0x11, "third-phone"}, {});
    Collaboration collaboration = Start();
    PeerSends(collaboration, CameraMessage(CODE_CAMERA_STARTED, 0));
    const std::string ours = IdText(collaboration.id);
    struct Opener {
        std::string device;
        std::string name;
    };
    const Opener openers[] = {{third, ours + "-" + device_.Identity().networkId},
                              {third, ours + "-" + peer_.networkId},
                              {peer_.networkId, ours + "-" + peer_.networkId}};
    Testing::ScriptedPeer& bus = device_.Peer();
    size_t channels = 0;  // each opener's command opens a data channel back to it
    for (const Opener& opener : openers) {
        SCOPED_TRACE(opener.device + " opens " + opener.name);
        Json::Value item = CommandItem(opener.device == third ? "THIRDUDID0003" : peer_.udid);
        int32_t session = bus.OpenSessionToDevice(opener.device, opener.name, Text({item}));
        int32_t opened = -1;
        ASSERT_TRUE(bus.AwaitOpenResult(session, opened));
        ASSERT_EQ(opened, 0);
        ASSERT_TRUE(bus.AwaitChannelsOpened(++channels));
        for (const std::string& message :
             {CameraMessage(CODE_PHOTO_COUNT, 1), CameraMessage(CODE_LAST_PHOTO, 4, "fake"),
              CameraMessage(CODE_DATA_SEND_FAILED, 0), std::string()}) {
            ASSERT_TRUE(bus.AwaitDelivered(bus.SendOnSession(session, message)));
            ASSERT_TRUE(bus.AwaitDelivered(bus.SendOnDataChannel(session, message)));
        }
        ASSERT_TRUE(bus.AwaitDelivered(bus.CloseSession(session)));
        EXPECT_TRUE(app_->Calls().empty());
        EXPECT_NE(process_->QueryCameraProcess(collaboration.id), nullptr);
        EXPECT_EQ(process_->QuerySessionId(collaboration.id), collaboration.sessionId);
        EXPECT_TRUE(env_->bus_.Closes().empty());
        EXPECT_EQ(StatesPublishedFor(peer_.networkId), (std::vector<int32_t>{2, 4}));
    }
    // The collaboration still runs: its own photos arrive, and its own session's loss ends it.
    PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, 2));
    AwaitPhotoWait();
    SendPhoto(collaboration, PhotoBytes(100, 9), false);
    ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().CloseSession(collaboration.sessionId)));
    Settle();
    std::vector<uint32_t> heard;
    for (const AppCall& call : app_->Calls()) {
        heard.push_back(call.code);
    }
    EXPECT_EQ(heard, (std::vector<uint32_t>{EVENT_PHOTO_COUNT, EVENT_PHOTO, 1001202011}));
    EXPECT_EQ(process_->QueryCameraProcess(collaboration.id), nullptr);
    EXPECT_EQ(StatesPublishedFor(peer_.networkId), (std::vector<int32_t>{2, 4, 1}));
}

// While the control session is still being opened the collaboration has no session id (-2): the
// Wi-Fi loop passes it over and a cancel sends no stop request. The take-photo send then closes
// the session itself once it sees the collaboration gone, telling the peer (whose camera
// application would otherwise run on for nothing), and frees the link.
TEST_F(EndingTest, CancelBeforeTheSessionIsUpClosesItAtThePeerAndFreesTheLink)
{
    device_.Peer().HoldSessionOpens();
    auto [result, id] = Request();
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(device_.Peer().AwaitSessionOpenAttempts(1));
    ASSERT_EQ(process_->QuerySessionId(id), -2);
    device_.SetWifiActive(false);
    EXPECT_NE(process_->QueryCameraProcess(id), nullptr);

    EXPECT_EQ(Cancel(id), 1001);  // cancelled, but there was no session id to erase
    EXPECT_EQ(process_->QueryCameraProcess(id), nullptr);
    EXPECT_TRUE(env_->bus_.Closes().empty());
    device_.Peer().ReleaseSessionOpens();
    Settle();
    EXPECT_TRUE(app_->Calls().empty());
    const auto closes = env_->bus_.Closes();
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_TRUE(closes[0].second);
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 1}));
    ExpectGone(id);
}

}  // namespace
}  // namespace QUEX::Tandra::RequestingTesting
