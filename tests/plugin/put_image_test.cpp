// The photo records, and the put-image flow driven as the camera application drives it (real
// descriptors through the framework service) against the scripted peer: what reaches the peer
// on each channel, what the application hears, and that every descriptor is closed.
#include <fcntl.h>

#include <atomic>

#include "serving_fixture.h"

namespace QUEX::Tandra::Testing {

TEST(PhotoRecordsTest, CallerInfoLosesOnlyItsModuleNameAndPhotoInfoNeverCrosses)
{
    sptr<PhotoCallerInfo> info = CameraCaller(-7);
    info->SetModuleName("entry");
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteStrongParcelable(sptr<Parcelable>(info.GetRefPtr())));
    parcel.WriteUint32(0xABCD);  // what follows in a request must still be readable
    sptr<PhotoCallerInfo> read = parcel.ReadStrongParcelable<PhotoCallerInfo>();
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(std::make_tuple(read->GetCollaborationSessionId(), read->GetAbilityName(), read->GetBundleName(),
                              read->GetDeviceId(), read->GetDeviceType(), read->GetModuleName()),
              std::make_tuple(-7, "CameraAbility", CAMERA_BUNDLE, "LOCALNETWORKID0001", 0x0Eu, ""));
    EXPECT_EQ(parcel.ReadUint32(), 0xABCDu);

    PhotoInfo photos;
    photos.SetPhotoFdList({3, 4});
    const size_t written = parcel.GetDataSize();
    EXPECT_FALSE(photos.Marshalling(parcel));
    EXPECT_EQ(parcel.GetDataSize(), written);
    parcel.WriteInt32(1);
    parcel.WriteInt32(3);
    EXPECT_EQ(PhotoInfo::Unmarshalling(parcel), nullptr);
}

// A device whose data sends fail from the nth on.
struct FailingDataEnv : DeviceEnvWrapper {
    static constexpr int32_t SEND_ERROR = 461374453;
    struct Bus : ScriptedPeer {
        int32_t SendDataMessage(int32_t id, int32_t session, const char* data, uint32_t len, uint32_t type,
                                bool first) override
        {
            return ++sends >= failFrom ? SEND_ERROR
                                       : ScriptedPeer::SendDataMessage(id, session, data, len, type, first);
        }
        size_t failFrom = 0;
        std::atomic<size_t> sends{0};
    } bus;
    using DeviceEnvWrapper::DeviceEnvWrapper;
    SoftBus& GetSoftBus() override { return bus; }
};

struct PutCase {
    const char* name;
    std::vector<size_t> sizes;  // of the photo files handed over
    uint32_t sendMode;
    size_t failDataFrom;  // the data send that fails (from 1), 0: none
    uint16_t deviceType;  // of this device
    int32_t result;
    uint32_t announced;       // the count header's value, 0: no header sent
    size_t delivered;         // the first photos that reach the peer whole
    Codes told;               // on the control session, after "camera started"
    uint32_t putImageResult;  // what the application's callback hears, 0: nothing
    friend void PrintTo(const PutCase& c, std::ostream* os) { *os << c.name; }
};

const std::vector<size_t> BATCH = {1, 100 * 1024, 3 * 1024 * 1024 + 5};
const PutCase PUT_CASES[] = {
    {"Batch", BATCH, 0, 0, 0x0E, 0, 3, 3, {CODE_PHOTO_COUNT}, CODE_LAST_PHOTO},
    {"SendModeOneReadsOneDescriptor", BATCH, 1, 0, 0x0E, 0, 1, 1, {CODE_PHOTO_COUNT}, CODE_LAST_PHOTO},
    {"AThousandPhotos", std::vector<size_t>(1000, 19), 0, 0, 0x0E, 0, 1000, 1000, {CODE_PHOTO_COUNT}, CODE_LAST_PHOTO},
    {"AThousandAndOneRefused", std::vector<size_t>(1001, 19), 0, 0, 0x0E, 1001, 0, 0, {}, 0},
    {"EmptyFileEndsTheBatch", {32, 0, 32}, 0, 0, 0x0E, 0, 3, 1, {CODE_PHOTO_COUNT, CODE_PHOTO_FAILED}, CODE_LAST_PHOTO},
    {"SendFailureStops",
     {9, 9, 9, 9, 9},
     0,
     3,
     0x0E,
     0,
     5,
     1,
     {CODE_PHOTO_COUNT, CODE_DATA_SEND_FAILED},
     CODE_LAST_PHOTO},
    {"CountFailureSendsNoPhoto", {10}, 0, 1, 0x0E, 0, 1, 0, {CODE_PHOTO_COUNT, CODE_DATA_SEND_FAILED}, CODE_LAST_PHOTO},
    {"DeviceTypeNotAllowed", {10}, 0, 0, 0x0C, 0, 0, 0, {}, CODE_DEVICE_TYPE_REFUSED},
};

class PutImageTest : public ServingDeviceTest, public ::testing::WithParamInterface<PutCase> {};

TEST_P(PutImageTest, SendsWhatItCanAndClosesEveryDescriptor)
{
    const PutCase& c = GetParam();
    if (c.failDataFrom != 0) {
        auto env = std::make_shared<FailingDataEnv>(device_.EnvPtr());
        env->bus.failFrom = c.failDataFrom;
        bus_ = &env->bus;
        DeviceContext::Get().InstallEnv(env);
    }
    int32_t sessionId = OpenCollaborationWithChannel();
    DeviceIdentity identity = TestDevice::DefaultIdentity();
    identity.deviceType = c.deviceType;
    device_.Env().SetLocalDevice(identity);
    std::vector<std::string> contents;
    const std::set<int> before = OpenDescriptors();
    {
        PhotoFiles files(c.sizes);
        contents = std::move(files.contents);
        EXPECT_EQ(app_->PutImage(sessionId, c.sendMode, contents.size(), files.fds), c.result);
        if (c.result == 0) {  // while the first runs, a second is refused
            EXPECT_EQ(app_->PutImage(sessionId, 0, 1, {files.fds[0]}), 1017);
        }
        ASSERT_TRUE(AsynThreadPool::WaitIdle(30000));
    }
    EXPECT_EQ(OpenDescriptors(), before);

    // The count on both channels (unless its data send failed), then the photos, whole.
    std::vector<SentMessage> sent = Peer().SentOnDataChannelsFor(sessionId);
    std::vector<PeerMessage> data = Decode(sent);
    const size_t counts = c.announced != 0 && c.failDataFrom != 1 ? 1 : 0;
    ASSERT_EQ(data.size(), counts + c.delivered);
    if (counts != 0) {
        EXPECT_EQ(std::make_tuple(data[0].code, data[0].size, data[0].payload),
                  std::make_tuple(CODE_PHOTO_COUNT, c.announced, std::string()));
    }
    for (size_t i = 0; i < c.delivered; ++i) {
        EXPECT_EQ(data[i + 1].code, i + 1 == c.announced ? CODE_LAST_PHOTO : CODE_PHOTO) << i;
        EXPECT_EQ(data[i + 1].size, contents[i].size()) << i;
        EXPECT_TRUE(data[i + 1].payload == contents[i]) << "bytes of photo " << i << " differ";
        EXPECT_EQ(sent[i + 1].isFirst, i == 0) << i;
    }
    Codes told = ControlCodes(sessionId);
    EXPECT_EQ(Codes(told.begin() + 1, told.end()), c.told);
    const std::vector<CameraApp::Event> heard = {{CALLBACK_PUT_IMAGE_RESULT, c.putImageResult}};
    EXPECT_EQ(app_->Events(), c.putImageResult != 0 ? heard : std::vector<CameraApp::Event>{});
    if (c.failDataFrom == 1) {
        EXPECT_TRUE(HasEvent("ProcessPutPhoto", {5, 9, 2, FailingDataEnv::SEND_ERROR}));
    } else if (c.told == Codes{CODE_PHOTO_COUNT}) {
        EXPECT_TRUE(HasEvent("ProcessPutPhotoRequest", {3, 8, 1, 0}));
        EXPECT_TRUE(HasEvent("ProcessPutPhoto", {5, 9, 0, 0}));
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, PutImageTest, ::testing::ValuesIn(PUT_CASES),
                         [](const auto& info) { return std::string(info.param.name); });

// Descriptor 0 cannot come through a parcel while stdin is open, so the record goes to the
// flow as the request handler hands it over, with /dev/null standing in for stdin.
TEST_F(ServingDeviceTest, DescriptorZeroIsSkippedAndReported)
{
    int32_t sessionId = OpenCollaborationWithChannel();
    auto process = CameraAbilityProcess::GetInstance();
    auto context = process->QueryPutPhotoContext(sessionId);
    ASSERT_TRUE(context->ChangeCameraStatus(PutPhotoContext::CAMERA_PUTTING).first);
    const int savedStdin = dup(0);
    const int devNull = open("/dev/null", O_RDONLY);
    dup2(devNull, 0);
    close(devNull);

    PhotoFiles files({40, 50});
    const std::vector<std::string>& contents = std::move(files.contents);
    const std::vector<int32_t> fds = {dup(files.fds[0]), 0, dup(files.fds[1])};
    sptr<PhotoInfo> info = new PhotoInfo();
    info->SetPhotoCount(3);
    info->SetPhotoFdList(fds);
    auto param = std::make_shared<PhotoParam>(PhotoParam::REQUEST_PUT_IMAGE);
    sptr<PhotoCallerInfo> caller = CameraCaller(sessionId);
    EXPECT_EQ(process->ProcessPutPhotoRequest(context, info, caller, param), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    dup2(savedStdin, 0);
    close(savedStdin);

    std::vector<PeerMessage> data = Decode(Peer().SentOnDataChannelsFor(sessionId));
    ASSERT_EQ(data.size(), 3u);
    EXPECT_EQ(data[0].size, 3u);
    EXPECT_TRUE(data[1].code == CODE_PHOTO && data[1].payload == contents[0]);
    EXPECT_TRUE(data[2].code == CODE_LAST_PHOTO && data[2].payload == contents[1]);
    EXPECT_EQ(ControlCodes(sessionId), (Codes{CODE_CAMERA_STARTED, CODE_PHOTO_COUNT, CODE_PHOTO_FAILED}));
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(fds[2], F_GETFD), -1);
}

// Only the camera application that the command started and that subscribed (its pid and uid)
// may put images or cancel: another application of this device, or the camera's own bundle in a
// process that never subscribed, gets 1001 and nothing reaches the requester.
TEST_F(ServingDeviceTest, OnlyTheSubscribedCameraApplicationMayPutOrCancel)
{
    int32_t sessionId = OpenCollaborationWithChannel();
    constexpr int32_t OTHER_UID = 20040002;
    device_.SetBundleName(OTHER_UID, "com.example.other");
    struct Intruder {
        const char* name;
        int32_t pid;
        int32_t uid;
        bool subscribes;
    };
    const Intruder intruders[] = {{"another application", 4102, OTHER_UID, false},
                                  {"another application that subscribed", 4103, OTHER_UID, true},
                                  {"the camera's bundle in a process that did not subscribe", 4104, CAMERA_UID, false}};
    PhotoFiles photo({64});
    for (const Intruder& intruder : intruders) {
        SCOPED_TRACE(intruder.name);
        Vex::sptr<CameraApp> app = CameraApp::Start(intruder.pid, intruder.uid);
        if (intruder.subscribes) {
            app->Subscribe();
        }
        EXPECT_EQ(app->PutImage(sessionId, 0, 1, photo.fds), 1001);
        EXPECT_EQ(app->RemoteCancel(sessionId, CODE_LAST_PHOTO), 1001);
        EXPECT_EQ(app->RemoteCancel(sessionId, CODE_PHOTO_FAILED), 1001);
    }
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    auto process = CameraAbilityProcess::GetInstance();
    EXPECT_TRUE(Peer().SentOnDataChannelsFor(sessionId).empty());
    for (uint32_t code : ControlCodes(sessionId)) {
        EXPECT_EQ(code, CODE_CAMERA_STARTED);  // a subscription tells the requester the camera is up
    }
    EXPECT_EQ(process->QueryPutPhotoContext(sessionId)->GetCameraStatus(), PutPhotoContext::CAMERA_RUNNING);
    EXPECT_TRUE(app_->Events().empty());

    // The camera application itself still can.
    EXPECT_EQ(app_->PutImage(sessionId, 0, 1, photo.fds), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    std::vector<PeerMessage> data = Decode(Peer().SentOnDataChannelsFor(sessionId));
    ASSERT_EQ(data.size(), 2u);
    EXPECT_TRUE(data[1].code == CODE_LAST_PHOTO && data[1].payload == photo.contents[0]);
}

// A photo longer than the requesting side can hand to its application is refused before any
// buffer for it is taken: the requester hears that the photo failed.
TEST_F(ServingDeviceTest, PhotoLongerThanTheRequesterTakesIsRefusedUnread)
{
    int32_t sessionId = OpenCollaborationWithChannel();
    PhotoFiles files({16, 1});
    // Sparse: the length is there without the bytes.
    ASSERT_EQ(ftruncate(files.fds[1], static_cast<off_t>(Vex::MessageParcel::MAX_RAW_DATA_SIZE) + 1), 0);
    EXPECT_EQ(app_->PutImage(sessionId, 0, 2, files.fds), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle(60000));
    std::vector<PeerMessage> data = Decode(Peer().SentOnDataChannelsFor(sessionId));
    ASSERT_EQ(data.size(), 2u);
    EXPECT_TRUE(data[1].code == CODE_PHOTO && data[1].payload == files.contents[0]);
    EXPECT_EQ(ControlCodes(sessionId), (Codes{CODE_CAMERA_STARTED, CODE_PHOTO_COUNT, CODE_PHOTO_FAILED}));
}

// A file that yields fewer bytes than its length (a sysfs attribute claims a page) is sent at
// its full length: what was read, then zeros.
TEST_F(ServingDeviceTest, ShortReadSendsTheAnnouncedLengthZeroFilled)
{
    const char* path = "/sys/devices/system/cpu/online";
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        GTEST_SKIP() << "no " << path << " to read short from";
    }
    const off_t length = lseek(fd, 0, SEEK_END);
    std::string content(static_cast<size_t>(std::max<off_t>(length, 0)), '\0');
    lseek(fd, 0, SEEK_SET);
    const ssize_t read = ::read(fd, content.data(), content.size());
    if (read <= 0 || read >= length) {
        close(fd);
        GTEST_SKIP() << path << " reads whole here";
    }
    int32_t sessionId = OpenCollaborationWithChannel();
    EXPECT_EQ(app_->PutImage(sessionId, 0, 1, {fd}), 0);
    close(fd);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    std::vector<PeerMessage> data = Decode(Peer().SentOnDataChannelsFor(sessionId));
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[1].size, static_cast<uint32_t>(length));
    std::string expected = content.substr(0, static_cast<size_t>(read)) + std::string(length - read, '\0');
    EXPECT_TRUE(data[1].payload == expected) << "short read not zero-filled";
}

}  // namespace QUEX::Tandra::Testing
