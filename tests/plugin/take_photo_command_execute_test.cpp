// The take-photo command's Execute on the serving device, run by the host when the requester
// opens a control session: Wi-Fi check, pre-emption of a running collaboration with its wait
// for the old command's release, and the camera start.
#include <chrono>

#include "serving_test_support.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

using namespace std::chrono_literals;

constexpr const char* SECOND_SESSION = "00000000008-LOCALNETWORKID0001";

class ExecuteTest : public ServingDeviceTest {
protected:
    bool SentOnSession(int32_t sessionId, uint32_t code)
    {
        for (uint32_t sent : Codes(device_.Peer().SentOnSession(sessionId))) {
            if (sent == code) {
                return true;
            }
        }
        return false;
    }

    bool OpenDone(int32_t sessionId)
    {
        for (const auto& session : device_.Peer().Sessions()) {
            if (session.sessionId == sessionId) {
                return session.openDone;
            }
        }
        return false;
    }

    // The scripted connection manager tells its service-state subscriber whenever a device
    // publishes the service as free, as the real one does.
    void EchoFreeServiceToSubscriber()
    {
        ScriptedMeshlineService* service = meshline_.GetRefPtr();
        meshline_->OnRequest(PUBLISH_SERVICE_STATE, [service](const RecordedRequest& publish) {
            auto subscriptions = service->Requests(SUBSCRIBE_SERVICE_STATE);
            if (publish.ints.empty() || publish.ints[0] != 1 || subscriptions.empty()) {
                return;
            }
            service->CallServiceStateChanged(subscriptions.back().callback, "", publish.strings.at(1), "", 1, 0);
        });
    }

    CameraApp app_;
};

TEST_F(ExecuteTest, WifiOffRefusesBeforeAnythingElse)
{
    device_.Env().SetWifiState(false);
    int32_t result = 0;
    int32_t sessionId = OpenCollaboration(result);
    EXPECT_EQ(result, 2005);
    EXPECT_TRUE(device_.Peer().AwaitIdle());
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId), nullptr);
    EXPECT_EQ(device_.Launcher().StartCount(), 0u);
    EXPECT_TRUE(meshline_->Requests().empty());
    EXPECT_TRUE(EventsOf("Execute").empty());
}

TEST_F(ExecuteTest, WithoutACurrentTaskTheCameraStartsAtOnce)
{
    // Time stands still: a conflict wait or pause would never end.
    int32_t result = -1;
    int32_t sessionId = OpenCollaboration(result);
    ASSERT_EQ(result, 0);

    EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_SERVICE_STATE), 0u);
    ASSERT_EQ(device_.Launcher().StartCount(), 1u);
    StartRecord start = device_.Launcher().Starts()[0];
    EXPECT_EQ(start.collaborationSessionId, sessionId);
    EXPECT_EQ(start.param.bundleName, CAMERA_BUNDLE);
    auto disconnect = meshline_->WaitForRequest(SUBSCRIBE_NOTIFY_DISCONNECT);
    ASSERT_TRUE(disconnect.has_value());
    EXPECT_EQ(disconnect->strings, std::vector<std::string>({RequesterNetworkId(), "Tandra", "disconnect"}));
    EXPECT_NE(disconnect->callback, nullptr);
    auto current = CameraAbilityProcess::GetInstance()->GetCollaborationDataInfo();
    EXPECT_EQ(current.first, sessionId);
    EXPECT_EQ(current.second, CAMERA_BUNDLE);
    EXPECT_NE(CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId), nullptr);

    auto execute = EventsOf("Execute");
    EXPECT_TRUE(HasEvent(execute, 3, 6, 0, 0));
    EXPECT_TRUE(HasEvent(execute, 3, 6, 1, 0));
    EXPECT_TRUE(HasEvent(execute, 3, 5, 0, 0));
    // The channel opening goes on without the grant; let it run out.
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
    Vex::Clock::Advance(15s);
}

TEST_F(ExecuteTest, RunningCollaborationIsPreemptedAndItsReleaseEndsTheWait)
{
    EchoFreeServiceToSubscriber();
    int32_t first = OpenCollaborationWithChannel();
    ASSERT_EQ(app_.Subscribe(EVENT_IMAGE_PREVIEW_CANCEL), 0);

    int32_t second = device_.Peer().OpenSessionToDevice(RequesterNetworkId(), SECOND_SESSION, TakePhotoCommandText());
    auto subscription = meshline_->WaitForRequest(SUBSCRIBE_SERVICE_STATE);
    ASSERT_TRUE(subscription.has_value());
    ASSERT_TRUE(device_.Peer().AwaitCondition([&] { return SentOnSession(first, CODE_DISCONNECTED_BEFORE_SEND); }));
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));

    // The running collaboration's application heard of the cancel.
    ASSERT_TRUE(app_.Callback()->AwaitEvents(1));
    auto events = app_.Callback()->Events();
    EXPECT_EQ(events[0].subService, CALLBACK_CANCEL);
    EXPECT_EQ(events[0].code, CODE_LOCAL_TAKE_PHOTO_CANCELLED);

    // Notices that do not free this service leave the wait alone.
    meshline_->CallServiceStateChanged(subscription->callback, "", "Tandra", "", 4, 0);
    meshline_->CallServiceStateChanged(subscription->callback, "", "Tandra2", "", 1, 0);
    meshline_->CallServiceStateChanged(subscription->callback, "", "", "", 1, 0);
    EXPECT_EQ(meshline_->RequestCount(UNSUBSCRIBE_SERVICE_STATE), 0u);
    EXPECT_FALSE(OpenDone(second));

    // The requester closes the pre-empted session; its command's release frees the service.
    ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().CloseSession(first)));
    ASSERT_TRUE(meshline_->WaitForRequest(UNSUBSCRIBE_SERVICE_STATE).has_value());

    // Then a pause lets the old camera application go.
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));
    EXPECT_FALSE(OpenDone(second));
    Vex::Clock::Advance(500ms);
    int32_t result = -1;
    ASSERT_TRUE(device_.Peer().AwaitOpenResult(second, result));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(device_.Launcher().StartCount(), 2u);
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->GetCollaborationDataInfo().first, second);
    EXPECT_TRUE(device_.Peer().AwaitChannelsOpened(2));
}

TEST_F(ExecuteTest, ConflictWaitEndsAfterFiveSeconds)
{
    int32_t first = OpenCollaborationWithChannel();
    int32_t second = device_.Peer().OpenSessionToDevice(RequesterNetworkId(), SECOND_SESSION, TakePhotoCommandText());
    ASSERT_TRUE(meshline_->WaitForRequest(SUBSCRIBE_SERVICE_STATE).has_value());
    ASSERT_TRUE(device_.Peer().AwaitCondition([&] { return SentOnSession(first, CODE_DISCONNECTED_BEFORE_SEND); }));
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));

    Vex::Clock::Advance(5s - 1ms);
    EXPECT_FALSE(OpenDone(second));
    Vex::Clock::Advance(1ms);
    int32_t result = -1;
    ASSERT_TRUE(device_.Peer().AwaitOpenResult(second, result));
    EXPECT_EQ(result, 2010);
    EXPECT_TRUE(HasEvent(EventsOf("Execute"), 3, 6, 2, 2010));
    // The subscription stays: nobody freed the service.
    EXPECT_EQ(meshline_->RequestCount(UNSUBSCRIBE_SERVICE_STATE), 0u);
    EXPECT_EQ(device_.Launcher().StartCount(), 1u);
}

TEST_F(ExecuteTest, FailedStartReturnsItsCode)
{
    device_.Launcher().SetResult(4321);
    int32_t result = -1;
    OpenCollaboration(result);
    EXPECT_EQ(result, 4321);
    EXPECT_TRUE(HasEvent(EventsOf("Execute"), 3, 5, 2, 4321));
    EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_NOTIFY_DISCONNECT), 0u);
    EXPECT_EQ(meshline_->RequestCount(APPLY_ADVANCED_RESOURCE), 0u);
}

TEST_F(ExecuteTest, DisconnectNoticeEndsTheRunningCollaboration)
{
    int32_t sessionId = OpenCollaborationWithChannel();
    ASSERT_EQ(app_.Subscribe(EVENT_IMAGE_PREVIEW_CANCEL), 0);
    auto subscription = meshline_->WaitForRequest(SUBSCRIBE_NOTIFY_DISCONNECT);
    ASSERT_TRUE(subscription.has_value());

    CallbackReply reply =
        meshline_->CallDisconnected(subscription->callback, "", RequesterNetworkId(), "disconnect", 0);
    EXPECT_TRUE(reply.replied);
    EXPECT_TRUE(SentOnSession(sessionId, CODE_DISCONNECTED_BEFORE_SEND));
    auto context = CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->GetCameraStatus(), PutPhotoContext::CAMERA_ENDED);
    ASSERT_TRUE(app_.Callback()->AwaitEvents(1));
    EXPECT_EQ(app_.Callback()->Events()[0].code, CODE_LOCAL_TAKE_PHOTO_CANCELLED);
}

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
