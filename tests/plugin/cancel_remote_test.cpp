// The serving device's side of cancelling: the camera application's remote cancel (request
// code 10, sent through the framework service with the application's identity), and Wi-Fi
// switched off while collaborations run.
#include <optional>

#include "cancel_fixture.h"
#include "put_photo_context.h"
#include "serving_test_support.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

constexpr uint32_t APP_FAILURE = 1001201903;

class RemoteCancelTest : public ServingDeviceTest {
protected:
    int32_t RemoteCancel(std::optional<int32_t> collaborationSessionId, uint32_t errCode)
    {
        Vex::MessageParcel data;
        CancelTesting::WriteRemoteCancelRequest(
            data, collaborationSessionId.has_value() ? &*collaborationSessionId : nullptr, errCode);
        return app_.Send(data);
    }

    std::vector<uint32_t> ControlCodes(int32_t sessionId) { return Codes(device_.Peer().SentOnSession(sessionId)); }

    CameraApp app_;
};

// What the request answers, and what the requesting device hears, for each camera status.
TEST_F(RemoteCancelTest, RelaysTheErrorOnlyWhileTheCameraRuns)
{
    int32_t sessionId = OpenCollaborationWithChannel();
    ASSERT_EQ(app_.Subscribe(EVENT_IMAGE_PROCESS_COMPLETE), 0);
    auto context = CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId);
    ASSERT_NE(context, nullptr);
    const size_t before = ControlCodes(sessionId).size();

    // Contexts of other collaborations whose camera no longer runs.
    auto process = CameraAbilityProcess::GetInstance();
    auto putting = std::make_shared<PutPhotoContext>(sessionId + 1);
    ASSERT_TRUE(putting->ChangeCameraStatus(PutPhotoContext::CAMERA_PUTTING).first);
    ASSERT_TRUE(process->AddPutPhotoContext(sessionId + 1, putting));
    auto ended = std::make_shared<PutPhotoContext>(sessionId + 2);
    ASSERT_TRUE(ended->ChangeCameraStatus(PutPhotoContext::CAMERA_ENDED).first);
    ASSERT_TRUE(process->AddPutPhotoContext(sessionId + 2, ended));

    struct Row {
        const char* name;
        std::optional<int32_t> sessionId;
        int32_t result;
    };
    const Row rows[] = {
        {"no caller info", std::nullopt, 1001},
        {"unknown session", sessionId + 100, 1002},
        {"images being put", sessionId + 1, 1017},
        {"camera ended", sessionId + 2, 1017},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(RemoteCancel(row.sessionId, APP_FAILURE), row.result);
    }
    EXPECT_EQ(putting->GetCameraStatus(), PutPhotoContext::CAMERA_PUTTING);
    EXPECT_EQ(ended->GetCameraStatus(), PutPhotoContext::CAMERA_ENDED);
    EXPECT_EQ(context->GetCameraStatus(), PutPhotoContext::CAMERA_RUNNING);
    EXPECT_EQ(ControlCodes(sessionId).size(), before);
    EXPECT_TRUE(process->ErasePutPhotoContext(sessionId + 1));
    EXPECT_TRUE(process->ErasePutPhotoContext(sessionId + 2));

    // While the camera runs, the application's own code goes to the requester as it is, once:
    // a second cancel finds the camera already cancelled.
    EXPECT_EQ(RemoteCancel(sessionId, APP_FAILURE), 0);
    EXPECT_EQ(context->GetCameraStatus(), PutPhotoContext::CAMERA_REMOTE_CANCELLED);
    EXPECT_EQ(context->GetPid(), CAMERA_PID);
    EXPECT_EQ(context->GetUid(), CAMERA_UID);
    EXPECT_EQ(RemoteCancel(sessionId, APP_FAILURE), 1017);
    std::vector<uint32_t> codes = ControlCodes(sessionId);
    ASSERT_EQ(codes.size(), before + 1);
    EXPECT_EQ(codes.back(), APP_FAILURE);

    // The camera is no longer open when the requester ends the collaboration, so the
    // application is not told of a cancel it made itself.
    ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().CloseSession(sessionId)));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    EXPECT_EQ(CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId), nullptr);
    for (const auto& event : app_.Callback()->Events()) {
        EXPECT_NE(event.subService, CALLBACK_CANCEL);
    }
}

// Wi-Fi off on the serving device is told to the requester on the control session; the camera
// keeps running until the requester ends the collaboration.
TEST_F(RemoteCancelTest, WifiOffIsToldToTheRequester)
{
    int32_t sessionId = OpenCollaborationWithChannel();
    const size_t before = ControlCodes(sessionId).size();
    device_.SetWifiActive(false);
    std::vector<uint32_t> codes = ControlCodes(sessionId);
    ASSERT_EQ(codes.size(), before + 1);
    EXPECT_EQ(codes.back(), CODE_PEER_WIFI_OFF);
    auto context = CameraAbilityProcess::GetInstance()->QueryPutPhotoContext(sessionId);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->GetCameraStatus(), PutPhotoContext::CAMERA_RUNNING);
}

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
