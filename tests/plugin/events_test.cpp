// Event subscriptions of the camera application (requests 2 and 5 as the host dispatches them),
// its death, and the cache of events that fell due before their addressee subscribed.
#include <tuple>

#include "requesting_fixture.h"
#include "session_manager.h"

namespace QUEX::Tandra::RequestingTesting {
namespace {

constexpr int32_t CAMERA_PID = 5100;
constexpr int32_t CAMERA_UID = 20020002;
const std::string CAMERA_BUNDLE = "com.peer.camera";
const std::string OTHER_BUNDLE = "com.other.app";
const std::string PREVIEW_CANCEL = "imagePreviewCancel";
const std::string IMAGE_COMPLETE = "imageProcessComplete";

class EventsTest : public RequestingDeviceTest {
protected:
    void SetUp() override
    {
        RequestingDeviceTest::SetUp();
        device_.SetBundleName(CAMERA_UID, CAMERA_BUNDLE);
    }

    // Request 2 (subscribe: id, event, callback) or 5 (unregister: event); the result and reply.
    int32_t Send(uint32_t request, int32_t pid, int32_t uid, const std::string& event, Vex::MessageParcel& reply,
                 uint32_t collaborationId = 0, const Vex::sptr<AppCallback>& callback = nullptr)
    {
        Vex::MessageParcel data;
        Vex::MessageOption option;
        WriteHeader(data, request);
        if (request == 2) {
            data.WriteUint32(collaborationId);
        }
        data.WriteString(event);
        if (request == 2) {
            data.WriteRemoteObject(callback);
        }
        return process_->DispatchRequest(data, reply, option, IPCContext{pid, uid});
    }

    int32_t Subscribe(int32_t pid, int32_t uid, uint32_t id, const std::string& event,
                      const Vex::sptr<AppCallback>& callback)
    {
        Vex::MessageParcel reply;
        return Send(2, pid, uid, event, reply, id, callback);
    }
};

TEST_F(EventsTest, FirstSubscriptionOfAKeyStays)
{
    auto first = NewCallback(CAMERA_PID, CAMERA_UID);
    EXPECT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 7, IMAGE_COMPLETE, first), 0);
    EXPECT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 8, IMAGE_COMPLETE, NewCallback(CAMERA_PID, CAMERA_UID)), 0);
    std::string event = IMAGE_COMPLETE;
    auto subscription = process_->QueryOnEventProcess(CAMERA_PID, CAMERA_UID, event);
    ASSERT_NE(subscription, nullptr);
    EXPECT_EQ(subscription->collaborationId, 7u);
    EXPECT_EQ(subscription->bundleName, CAMERA_BUNDLE);
    EXPECT_EQ(subscription->callback->GetRemote(), Vex::sptr<Vex::IRemoteObject>(first));

    // The key joins pid, uid and event without a separator: pid 12 with uid 345 and pid 123 with
    // uid 45 are one subscriber.
    EXPECT_EQ(Subscribe(12, 345, 1, IMAGE_COMPLETE, NewCallback(12, 345)), 0);
    EXPECT_EQ(Subscribe(123, 45, 2, IMAGE_COMPLETE, NewCallback(123, 45)), 0);
    subscription = process_->QueryOnEventProcess(123, 45, event);
    ASSERT_NE(subscription, nullptr);
    EXPECT_EQ(subscription->collaborationId, 1u);
}

TEST_F(EventsTest, UnregistrationRepliesOneAndTheIdOrTwoAndZero)
{
    ASSERT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 42, IMAGE_COMPLETE, NewCallback(CAMERA_PID, CAMERA_UID)), 0);
    for (const auto& [result, first, second] : {std::tuple{0, 1u, 42u}, {1907, 2u, 0u}}) {
        Vex::MessageParcel reply;
        EXPECT_EQ(Send(5, CAMERA_PID, CAMERA_UID, IMAGE_COMPLETE, reply), result);
        EXPECT_EQ(reply.ReadUint32(), first);
        EXPECT_EQ(reply.ReadUint32(), second);
    }
}

// The camera application's first subscription tells the running collaboration's peer that the
// camera started; one death recipient per process, so a second subscription tells nobody. Its
// death tells the peer of every put-photo session and forgets its subscriptions.
TEST_F(EventsTest, CameraDeathReachesEveryPutPhotoSessionOnce)
{
    std::vector<int32_t> sessions;
    std::vector<std::shared_ptr<PutPhotoContext>> contexts;
    for (uint32_t id : {51u, 52u}) {
        auto info = std::make_shared<ServiceInfo>(2, 1, IdText(id) + "-" + peer_.networkId, "{}");
        sessions.push_back(
            SessionManager::CollaborationToDeviceByCtrlSession(device_.Identity().networkId, peer_.networkId, info)
                .second);
        contexts.push_back(std::make_shared<PutPhotoContext>(sessions.back()));
        ASSERT_TRUE(process_->AddPutPhotoContext(sessions.back(), contexts.back()));
    }
    process_->SetCollaborationDataInfo(sessions[0], CAMERA_BUNDLE);
    for (const std::string& event : {IMAGE_COMPLETE, PREVIEW_CANCEL}) {
        ASSERT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 51, event, NewCallback(CAMERA_PID, CAMERA_UID)), 0);
    }
    Testing::ScriptedPeer& peer = device_.Peer();
    ASSERT_EQ(peer.SentOnSession(sessions[0]).size(), 1u);
    EXPECT_EQ(peer.SentOnSession(sessions[0])[0].bytes, CameraMessage(CODE_CAMERA_STARTED, 0));
    EXPECT_TRUE(peer.SentOnSession(sessions[1]).empty());

    Vex::LogCapture log;
    Vex::ProcessRegistry::Get().DeclareDead(CAMERA_PID);
    ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
    for (size_t i = 0; i < sessions.size(); ++i) {
        ASSERT_TRUE(peer.AwaitSentOnSession(sessions[i], 2 - i));
        EXPECT_EQ(peer.SentOnSession(sessions[i]).back().bytes, CameraMessage(CODE_CAMERA_DIED, 0));
        EXPECT_FALSE(contexts[i]->IsCameraAlive());
        process_->RemovePhotoContext(sessions[i]);
    }
    EXPECT_EQ(log.Count("Remote died, do clean works. deathCode=102"), 1u);
    EXPECT_EQ(process_->QueryOnEventProcess(CAMERA_PID), nullptr);
    EXPECT_FALSE(process_->QueryIsDeathRecipient(CAMERA_PID));
}

// Cancels reported before the camera application subscribed are kept and delivered in order
// once it subscribes; an entry for a bundle that still has no subscriber goes back to the cache.
TEST_F(EventsTest, CachedCancelsAreDeliveredInOrderOnSubscription)
{
    std::string event = PREVIEW_CANCEL;
    std::string camera = CAMERA_BUNDLE;
    std::string other = OTHER_BUNDLE;
    EXPECT_EQ(process_->ProcessCancelTakePhotoCallBack(1001201915, event, camera), 1007);
    EXPECT_EQ(process_->ProcessCancelTakePhotoCallBack(1001201903, event, other), 1007);
    EXPECT_EQ(process_->ProcessCancelTakePhotoCallBack(1001201904, event, camera), 1007);
    ASSERT_EQ(process_->QueryCacheEventSize(), 3u);

    auto callback = NewCallback(CAMERA_PID, CAMERA_UID);
    ASSERT_EQ(Subscribe(CAMERA_PID, CAMERA_UID, 77, PREVIEW_CANCEL, callback), 0);
    ASSERT_TRUE(callback->Await(2));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    const std::vector<AppCall> calls = callback->Calls();
    ASSERT_EQ(calls.size(), 2u);
    const uint32_t expected[] = {1001201915, 1001201904};
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].serviceType, 101u);
        EXPECT_EQ(calls[i].subServiceType, 106u);
        EXPECT_EQ(calls[i].code, expected[i]);
        EXPECT_EQ(calls[i].collaborationId, 77u);
        EXPECT_EQ(calls[i].text, "category NO use");
    }
    ASSERT_EQ(process_->QueryCacheEventSize(), 1u);
    CachedEvent left = process_->PopCachedEvent();
    EXPECT_EQ(left.code, 1001201903u);
    EXPECT_EQ(left.bundleName, OTHER_BUNDLE);
}

TEST_F(EventsTest, ClearCachedEventRemovesOnlyItsBundle)
{
    std::string event = PREVIEW_CANCEL;
    std::string camera = CAMERA_BUNDLE;
    std::string other = OTHER_BUNDLE;
    for (uint32_t code : {1u, 2u, 3u, 4u}) {
        process_->AddCachedEvent(code, event, code % 2 == 1 ? camera : other);
    }
    process_->ClearCachedEvent(CAMERA_BUNDLE);
    ASSERT_EQ(process_->QueryCacheEventSize(), 2u);
    EXPECT_EQ(process_->PopCachedEvent().code, 2u);
    EXPECT_EQ(process_->PopCachedEvent().code, 4u);
}

}  // namespace
}  // namespace QUEX::Tandra::RequestingTesting
