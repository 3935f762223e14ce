// The camera application's client against the real plugin of a serving device: its caller
// record reads back as the plugin's own, its subscription starts the camera for the requester,
// its photo files reach the requester byte for byte with the put-image outcome coming back, its
// cancel reaches the requester with its camera status, and the plugin's cancel callback and
// the service's death reach its observer.
#include <fcntl.h>

#include "camera_app_client.h"
#include "serving_fixture.h"
#include "service_process.h"

namespace QUEX::Tandra::Testing {
namespace {
using Client::CameraAppClient;
using Client::PhotoCaller;

constexpr int32_t SERVICE_PID = 3201;

class RecordingCameraObserver : public Client::CameraAppObserver {
public:
    struct Call {
        std::string what;
        uint32_t code = 0;
        uint32_t collaborationId = 0;
        bool operator==(const Call& other) const
        {
            return what == other.what && code == other.code && collaborationId == other.collaborationId;
        }
    };
    void OnPutImageResult(uint32_t code, uint32_t collaborationId) override { Add({"put", code, collaborationId}); }
    void OnCancelled(uint32_t code, uint32_t collaborationId) override { Add({"cancel", code, collaborationId}); }
    void OnServiceLost() override { Add({"lost", 0, 0}); }
    std::vector<Call> Calls(size_t atLeast = 0)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        heard_.wait_for(lock, std::chrono::seconds(5), [&] { return calls_.size() >= atLeast; });
        return calls_;
    }

private:
    void Add(Call call)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(std::move(call));
        heard_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable heard_;
    std::vector<Call> calls_;
};

void PrintTo(const RecordingCameraObserver::Call& call, std::ostream* os)
{
    *os << call.what << " " << call.code << " " << call.collaborationId;
}

class CameraAppClientTest : public ServingDeviceTest {
public:
    void SetUp() override
    {
        ServingDeviceTest::SetUp();
        Vex::ScopedIdentity as(CAMERA_PID, CAMERA_UID);
        client_ = std::make_unique<CameraAppClient>(service_, &observer_);
    }
    void TearDown() override
    {
        client_.reset();
        ServingDeviceTest::TearDown();
    }

    // The requester's command arrives, the camera application is started for it and subscribes
    // through the client; the requester hears that the camera is up.
    int32_t StartCamera()
    {
        meshline_->AnswerApplyResource(GRANTED);
        int32_t result = -1;
        const int32_t sessionId = OpenCollaboration(result);
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(Peer().AwaitChannelsOpened(1));
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        EXPECT_EQ(device_.Launcher().Starts().at(0).collaborationSessionId, sessionId);
        EXPECT_EQ(AsCamera([&] { return client_->SubscribeAll(); }), 0);
        EXPECT_EQ(ControlCodes(sessionId), Codes{CODE_CAMERA_STARTED});
        return sessionId;
    }

    static PhotoCaller Caller(int32_t sessionId)
    {
        return {sessionId, "CameraAbility", CAMERA_BUNDLE, TestDevice::DefaultIdentity().networkId, 0x0E};
    }

    template <typename F>
    auto AsCamera(F&& call) -> decltype(call())
    {
        Vex::ScopedIdentity as(CAMERA_PID, CAMERA_UID);
        return call();
    }

    Vex::sptr<ClientTesting::ServiceProcess> service_ = ClientTesting::ServiceProcess::Start(SERVICE_PID);
    RecordingCameraObserver observer_;
    std::unique_ptr<CameraAppClient> client_;
};

// What the client writes is what the plugin reads (and the other way round), the module name
// aside: it never travels.
TEST(PhotoCallerTest, ReadsBackAsThePluginsRecord)
{
    const PhotoCaller caller{-7, "CameraAbility", "com.example.camera", "DEVICE-ID", 0x11};
    Vex::Parcel parcel;
    ASSERT_TRUE(caller.WriteTo(parcel));
    ASSERT_EQ(parcel.ReadInt32(), 1);
    Vex::sptr<PhotoCallerInfo> info = PhotoCallerInfo::Unmarshalling(parcel);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->GetCollaborationSessionId(), -7);
    EXPECT_EQ(info->GetAbilityName(), "CameraAbility");
    EXPECT_EQ(info->GetBundleName(), "com.example.camera");
    EXPECT_EQ(info->GetDeviceId(), "DEVICE-ID");
    EXPECT_EQ(info->GetDeviceType(), 0x11u);
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);

    Vex::Parcel back;
    info->SetModuleName("entry");
    ASSERT_TRUE(back.WriteStrongParcelable(Vex::sptr<Vex::Parcelable>(info.GetRefPtr())));
    PhotoCaller read;
    ASSERT_TRUE(PhotoCaller::ReadFrom(back, read));
    EXPECT_EQ(std::make_tuple(read.collaborationSessionId, read.abilityName, read.bundleName, read.deviceId,
                              read.deviceType),
              std::make_tuple(-7, caller.abilityName, caller.bundleName, caller.deviceId, caller.deviceType));
    Vex::Parcel absent;
    absent.WriteInt32(0);
    EXPECT_FALSE(PhotoCaller::ReadFrom(absent, read));
}

// The photos go out as the plugin's photo messages with the files' bytes, the last one marked;
// the camera application hears that they were taken over; its subscription can be removed once.
TEST_F(CameraAppClientTest, PutsPhotoFilesThatReachTheRequester)
{
    const int32_t sessionId = StartCamera();
    PhotoFiles files({300 * 1024, 17, 2 * 1024 * 1024 + 1});
    ASSERT_EQ(AsCamera([&] { return client_->PutImage(Caller(sessionId), files.fds); }), 0);
    ASSERT_TRUE(Peer().AwaitSentOnDataChannelsFor(sessionId, 1 + files.fds.size()));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());

    const std::vector<PeerMessage> sent = Decode(Peer().SentOnDataChannelsFor(sessionId));
    ASSERT_EQ(sent.size(), 1 + files.fds.size());
    EXPECT_EQ(sent[0].code, CODE_PHOTO_COUNT);
    EXPECT_EQ(sent[0].size, files.fds.size());
    for (size_t i = 0; i < files.fds.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(sent[1 + i].code, i + 1 == files.fds.size() ? CODE_LAST_PHOTO : CODE_PHOTO);
        EXPECT_EQ(sent[1 + i].size, files.contents[i].size());
        EXPECT_TRUE(sent[1 + i].payload == files.contents[i]) << "photo bytes differ";
    }
    using Call = RecordingCameraObserver::Call;
    EXPECT_EQ(observer_.Calls(1), (std::vector<Call>{{"put", Client::PUT_IMAGE_TAKEN_OVER, 0}}));
    // The caller's descriptors stay its own.
    for (int fd : files.fds) {
        EXPECT_NE(fcntl(fd, F_GETFD), -1);
    }

    const auto removed = AsCamera([&] { return client_->Unregister(Client::CAMERA_EVENT_PUT_IMAGE_RESULT); });
    EXPECT_EQ(removed.result, 0);
    EXPECT_EQ(AsCamera([&] { return client_->Unregister(Client::CAMERA_EVENT_PUT_IMAGE_RESULT); }).result,
              Client::RESULT_NOT_SUBSCRIBED);
}

// Requests the client refuses itself send nothing; those the plugin refuses come back with its
// result.
TEST_F(CameraAppClientTest, RefusedPutImageRequests)
{
    const int32_t sessionId = StartCamera();
    PhotoFiles files({10});
    struct Row {
        const char* name;
        PhotoCaller caller;
        std::vector<int> fds;
        int32_t result;
    };
    const Row rows[] = {
        {"no photo", Caller(sessionId), {}, Client::RESULT_INVALID},
        {"too many photos", Caller(sessionId), std::vector<int>(Client::MAX_PHOTOS_PER_PUT + 1, files.fds[0]),
         Client::RESULT_INVALID},
        {"descriptor not open", Caller(sessionId), {files.fds[0], 999}, Client::RESULT_INVALID},
        {"unknown session", Caller(sessionId + 100), files.fds, Client::RESULT_NO_COLLABORATION},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(AsCamera([&] { return client_->PutImage(row.caller, row.fds); }), row.result);
    }
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    EXPECT_TRUE(Peer().SentOnDataChannelsFor(sessionId).empty());
    EXPECT_EQ(ControlCodes(sessionId), Codes{CODE_CAMERA_STARTED});
}

// The camera application's cancel reaches the requester as its camera status, once: the camera
// is no longer running after it.
TEST_F(CameraAppClientTest, RemoteCancelRelaysTheCameraStatus)
{
    const int32_t sessionId = StartCamera();
    EXPECT_EQ(AsCamera([&] { return client_->RemoteCancel(Caller(sessionId), Client::CAMERA_STATUS_USER_CANCELLED); }),
              0);
    ASSERT_TRUE(Peer().AwaitSentOnSession(sessionId, 2));
    EXPECT_EQ(ControlCodes(sessionId), (Codes{CODE_CAMERA_STARTED, Client::CAMERA_STATUS_USER_CANCELLED}));
    EXPECT_EQ(AsCamera([&] { return client_->RemoteCancel(Caller(sessionId), Client::CAMERA_STATUS_CAMERA_FAILED); }),
              Client::RESULT_CAMERA_STATUS);
    PhotoFiles files({10});
    EXPECT_EQ(AsCamera([&] { return client_->PutImage(Caller(sessionId), files.fds); }), Client::RESULT_CAMERA_STATUS);
}

// The requester going away while the camera is open makes the plugin tell the camera to close;
// the service's death is told once.
TEST_F(CameraAppClientTest, HearsTheCancelAndTheServicesDeath)
{
    const int32_t sessionId = StartCamera();
    ASSERT_TRUE(Peer().AwaitDelivered(Peer().CloseSession(sessionId)));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    using Call = RecordingCameraObserver::Call;
    EXPECT_EQ(observer_.Calls(1), (std::vector<Call>{{"cancel", Client::CAMERA_CANCELLED_BY_PEER, 0}}));

    Vex::ProcessRegistry::Get().DeclareDead(SERVICE_PID);
    ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_EQ(observer_.Calls(2).back(), (Call{"lost", 0, 0}));
    EXPECT_LT(AsCamera([&] { return client_->SubscribeAll(); }), 0) << "a dead service answered";
    EXPECT_EQ(observer_.Calls().size(), 2u);
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
