// Whole take-photo collaborations on the requesting device against the scripted peer, as an
// application drives them through the framework service: the request, the command on the
// control session, the peer's answers, photos of a few MiB delivered byte for byte, and the
// end of the collaboration however it comes. Afterwards nothing of it is registered, no wait
// runs, no descriptor is left open and nothing holds the application's callback object.
#include <json/json.h>

#include <functional>
#include <memory>
#include <set>

#include "cancel_fixture.h"
#include "serving_test_support.h"

namespace QUEX {
namespace Tandra {
namespace CancelTesting {
namespace {

using Testing::OpenDescriptors;

// Three photos of a few MiB, of distinct lengths and contents.
std::vector<std::string> Photos()
{
    return {PhotoBytes(2 * 1024 * 1024, 11), PhotoBytes(3 * 1024 * 1024 + 5, 12), PhotoBytes(4 * 1024 * 1024 + 11, 13)};
}

class RequestingCollaborationTest : public RequestingDeviceTest {
protected:
    void SetUp() override
    {
        RequestingDeviceTest::SetUp();
        descriptors_ = OpenDescriptors();
    }

    // Steps 1 and 2: the application's request is answered at once with the collaboration id;
    // the command goes out on a control session named after it; the peer's first answer is
    // awaited.
    Collaboration Begin()
    {
        Collaboration collaboration = Start(true);
        EXPECT_NE(collaboration.id, 0u);
        std::vector<Testing::SessionRecord> sessions = device_.Peer().SessionsOpenedByDevice();
        EXPECT_EQ(sessions.size(), 1u);
        if (sessions.size() == 1) {
            EXPECT_EQ(sessions[0].sessionName, IdText(collaboration.id) + "-" + peer_.networkId);
            EXPECT_EQ(sessions[0].peerNetworkId, peer_.networkId);
            ExpectTakePhotoCommand(sessions[0].commandText);
        }
        auto apply = meshline_->WaitForRequest(Testing::APPLY_ADVANCED_RESOURCE);
        EXPECT_TRUE(apply.has_value());
        EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4}));
        return collaboration;
    }

    // The command names the peer's camera and this application.
    void ExpectTakePhotoCommand(const std::string& text)
    {
        Json::Value root;
        Json::CharReaderBuilder builder;
        std::string errors;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
        ASSERT_TRUE(root.isArray());
        ASSERT_EQ(root.size(), 1u);
        EXPECT_EQ(root[0]["commandType"].asInt(), 1);
        EXPECT_EQ(root[0]["localInfo"]["localBundleName"].asString(), APP_BUNDLE);
        EXPECT_EQ(root[0]["extraData"]["peerBundleName"].asString(), PeerCamera().bundleName);
        EXPECT_EQ(root[0]["extraData"]["peerAbilityName"].asString(), PeerCamera().abilityName);
    }

    // Steps 4 and 5 as the requester sees them: the camera is up, and the photo count comes on
    // both channels.
    void CameraStartedAndCount(const Collaboration& collaboration, size_t count)
    {
        PeerSends(collaboration, CameraMessage(CODE_CAMERA_STARTED, 0));
        EXPECT_TRUE(app_->Calls().empty());
        PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, static_cast<uint32_t>(count)));
        PeerSends(collaboration, CameraMessage(CODE_PHOTO_COUNT, static_cast<uint32_t>(count)), true);
        AwaitPhotoWait();
    }

    void SendPhoto(const Collaboration& collaboration, const std::string& photo, bool last)
    {
        PeerSends(collaboration,
                  CameraMessage(last ? CODE_LAST_PHOTO : CODE_PHOTO, static_cast<uint32_t>(photo.size()), photo), true);
    }

    // Nothing is left behind: registries, waits, descriptors, the application's object.
    void ExpectNothingLeft(const Collaboration& collaboration)
    {
        Settle();
        ExpectGone(collaboration.id);
        EXPECT_EQ(OpenDescriptors(), descriptors_);
        ExpectApplicationReleased();
    }

    std::set<int> descriptors_;
};

TEST_F(RequestingCollaborationTest, TakesPhotosAndFinishes)
{
    Collaboration collaboration = Begin();
    const std::vector<std::string> photos = Photos();
    CameraStartedAndCount(collaboration, photos.size());
    for (size_t i = 0; i < photos.size(); ++i) {
        SendPhoto(collaboration, photos[i], i + 1 == photos.size());
    }
    Settle();

    // Step 6: one count (the second copy is refused), then every photo, in order, whole.
    std::vector<AppCall> events = app_->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].code, EVENT_PHOTO_COUNT);
    EXPECT_EQ(events[0].text, "3");
    std::vector<AppCall> received = app_->Photos();
    ASSERT_EQ(received.size(), photos.size());
    for (size_t i = 0; i < photos.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(received[i].code, i + 1 == photos.size() ? EVENT_LAST_PHOTO : EVENT_PHOTO);
        EXPECT_EQ(received[i].collaborationId, collaboration.id);
        EXPECT_EQ(received[i].size, photos[i].size());
        EXPECT_TRUE(received[i].bytes == photos[i]) << "photo bytes differ";
    }

    // The collaboration is finished: the peer is told to stop, the service is free again.
    std::vector<Testing::CloseRecord> closed = device_.Peer().SessionsClosedByDevice();
    ASSERT_EQ(closed.size(), 1u);
    EXPECT_EQ(closed[0].id, collaboration.sessionId);
    EXPECT_TRUE(closed[0].notifyPeer);
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4, 1}));
    EXPECT_EQ(Unsubscriptions(), 1u);
    ExpectNothingLeft(collaboration);
}

// The ways a collaboration ends while photos are arriving. The photo sent after the ending is
// no longer delivered.
struct MidTransferEnding {
    const char* name;
    std::function<void(RequestingCollaborationTest&, const Collaboration&)> run;
    uint32_t event;  // the application's last event, 0 for none
    bool peerToldToStop;
};

class MidTransferTest : public RequestingCollaborationTest, public testing::WithParamInterface<MidTransferEnding> {
public:
    int32_t Cancel(uint32_t collaborationId) { return CancelByService(collaborationId); }
    void PeerSendsMessage(const Collaboration& collaboration, std::string bytes)
    {
        PeerSends(collaboration, std::move(bytes));
    }
    Testing::ScriptedPeer& Peer() { return device_.Peer(); }
};

const MidTransferEnding MID_TRANSFER_ENDINGS[] = {
    {"ApplicationCancels",
     [](RequestingCollaborationTest& test, const Collaboration& c) {
         EXPECT_EQ(static_cast<MidTransferTest&>(test).Cancel(c.id), 0);
     },
     0, true},
    {"CameraApplicationCancels",
     [](RequestingCollaborationTest& test, const Collaboration& c) {
         static_cast<MidTransferTest&>(test).PeerSendsMessage(c, CameraMessage(CODE_CAMERA_APP_FAILURE, 0));
     },
     1001202002, true},
    {"CameraApplicationDies",
     [](RequestingCollaborationTest& test, const Collaboration& c) {
         static_cast<MidTransferTest&>(test).PeerSendsMessage(c, CameraMessage(CODE_CAMERA_DIED, 0));
     },
     1001202002, true},
    {"ApplicationDies",
     [](RequestingCollaborationTest&, const Collaboration&) { Vex::ProcessRegistry::Get().DeclareDead(APP_PID); }, 0,
     true},
    {"LinkDrops",
     [](RequestingCollaborationTest& test, const Collaboration&) {
         Testing::ScriptedPeer& peer = static_cast<MidTransferTest&>(test).Peer();
         ASSERT_TRUE(peer.AwaitDelivered(peer.DropLink()));
     },
     1001202011, false},
};

TEST_P(MidTransferTest, EndsCleanly)
{
    const MidTransferEnding& ending = GetParam();
    Collaboration collaboration = Begin();
    const std::vector<std::string> photos = Photos();
    CameraStartedAndCount(collaboration, photos.size());
    SendPhoto(collaboration, photos[0], false);
    ASSERT_EQ(app_->Photos().size(), 1u);

    ending.run(*this, collaboration);
    Settle();
    if (ending.peerToldToStop) {
        std::vector<Testing::CloseRecord> closed = device_.Peer().SessionsClosedByDevice();
        ASSERT_EQ(closed.size(), 1u);
        EXPECT_TRUE(closed[0].notifyPeer);
    } else {
        EXPECT_TRUE(env_->Bus().Closes().empty());
    }
    // A photo still in flight when the collaboration ended is dropped.
    device_.Peer().SendOnDataChannel(collaboration.sessionId,
                                     CameraMessage(CODE_PHOTO, static_cast<uint32_t>(photos[1].size()), photos[1]));
    Settle();

    std::vector<AppCall> calls = app_->Calls();
    ASSERT_FALSE(calls.empty());
    if (ending.event == 0) {
        EXPECT_EQ(calls.back().code, EVENT_PHOTO);
    } else {
        EXPECT_EQ(calls.back().code, ending.event);
        EXPECT_EQ(calls.back().text, "errorcode");
    }
    EXPECT_EQ(app_->Photos().size(), 1u);
    EXPECT_EQ(FreeStatePublications(), 1u);
    EXPECT_EQ(Unsubscriptions(), 1u);
    ExpectNothingLeft(collaboration);
}

INSTANTIATE_TEST_SUITE_P(Endings, MidTransferTest, testing::ValuesIn(MID_TRANSFER_ENDINGS),
                         [](const testing::TestParamInfo<MidTransferEnding>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace CancelTesting
}  // namespace Tandra
}  // namespace QUEX
