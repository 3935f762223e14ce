// The put-image flow on the serving device, driven as the camera application drives it
// (requests with real descriptors through the framework service), against the scripted peer.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "put_photo_context.h"
#include "serving_test_support.h"

namespace QUEX {
namespace Tandra {
namespace Testing {
namespace {

class PutImageTest : public ServingDeviceTest {
protected:
    // A collaboration with its channel, the camera application subscribed to the put-image
    // result, and the session id the application was started with.
    int32_t ReadyCollaboration()
    {
        int32_t sessionId = OpenCollaborationWithChannel();
        EXPECT_EQ(app_.Subscribe(EVENT_IMAGE_PROCESS_COMPLETE), 0);
        EXPECT_EQ(device_.Launcher().StartCount(), 1u);
        EXPECT_EQ(device_.Launcher().Starts().at(0).collaborationSessionId, sessionId);
        return sessionId;
    }

    std::vector<PeerMessage> DataMessages(int32_t sessionId)
    {
        std::vector<PeerMessage> messages;
        for (const auto& sent : device_.Peer().SentOnDataChannelsFor(sessionId)) {
            messages.push_back(Decode(sent.bytes));
        }
        return messages;
    }

    std::vector<PeerMessage> ControlMessages(int32_t sessionId)
    {
        std::vector<PeerMessage> messages;
        for (const auto& sent : device_.Peer().SentOnSession(sessionId)) {
            messages.push_back(Decode(sent.bytes));
        }
        return messages;
    }

    static size_t CountCode(const std::vector<PeerMessage>& messages, uint32_t code)
    {
        size_t count = 0;
        for (const auto& message : messages) {
            count += message.code == code ? 1 : 0;
        }
        return count;
    }

    // The photos arrived in order, each whole, the last one marked as the last.
    static void ExpectPhotos(const std::vector<PeerMessage>& photos, const std::vector<std::string>& contents)
    {
        ASSERT_EQ(photos.size(), contents.size());
        for (size_t i = 0; i < photos.size(); ++i) {
            EXPECT_EQ(photos[i].code, i + 1 == photos.size() ? CODE_LAST_PHOTO : CODE_PHOTO) << "photo " << i;
            EXPECT_EQ(photos[i].size, contents[i].size()) << "photo " << i;
            EXPECT_TRUE(photos[i].payload == contents[i]) << "photo " << i << " bytes differ";
        }
    }

    CameraApp app_;
};

TEST_F(PutImageTest, BatchArrivesWholeAndFramedOnBothChannels)
{
    int32_t sessionId = ReadyCollaboration();
    std::vector<std::string> contents = {PhotoContent(0, 1), PhotoContent(1, 100 * 1024),
                                         PhotoContent(2, 3 * 1024 * 1024 + 5)};
    std::set<int> before = OpenDescriptors();
    {
        std::vector<PhotoFile> files;
        std::vector<int> fds;
        for (const auto& content : contents) {
            files.emplace_back(content);
            fds.push_back(files.back().Fd());
        }
        EXPECT_EQ(app_.PutImage(sessionId, 0, 3, fds), 0);
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
    }
    EXPECT_EQ(OpenDescriptors(), before);

    std::vector<PeerMessage> data = DataMessages(sessionId);
    ASSERT_EQ(data.size(), 4u);
    EXPECT_EQ(data[0].code, CODE_PHOTO_COUNT);
    EXPECT_EQ(data[0].size, 3u);
    EXPECT_TRUE(data[0].payload.empty());
    ExpectPhotos({data.begin() + 1, data.end()}, contents);
    std::vector<SentMessage> sent = device_.Peer().SentOnDataChannelsFor(sessionId);
    EXPECT_FALSE(sent[0].isFirst);
    EXPECT_TRUE(sent[1].isFirst);
    EXPECT_FALSE(sent[2].isFirst);
    EXPECT_FALSE(sent[3].isFirst);

    std::vector<PeerMessage> control = ControlMessages(sessionId);
    ASSERT_EQ(CountCode(control, CODE_PHOTO_COUNT), 1u);
    for (const auto& message : control) {
        if (message.code == CODE_PHOTO_COUNT) {
            EXPECT_EQ(message.size, 3u);
        }
    }
    EXPECT_EQ(CountCode(control, CODE_PHOTO_FAILED), 0u);
    EXPECT_EQ(CountCode(control, CODE_DATA_SEND_FAILED), 0u);

    // The application hears that its photos are taken over.
    auto events = app_.Callback()->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].subService, CALLBACK_PUT_IMAGE_RESULT);
    EXPECT_EQ(events[0].code, CODE_LAST_PHOTO);
    EXPECT_EQ(events[0].text, "category NO use");
    EXPECT_TRUE(HasEvent(EventsOf("ProcessPutPhotoRequest"), 3, 8, 1, 0));
    EXPECT_TRUE(HasEvent(EventsOf("ProcessPutPhoto"), 5, 9, 0, 0));
}

TEST_F(PutImageTest, SendModeOneReadsOneDescriptorOnly)
{
    int32_t sessionId = ReadyCollaboration();
    std::vector<std::string> contents = {PhotoContent(0, 64), PhotoContent(1, 64), PhotoContent(2, 64)};
    std::vector<PhotoFile> files;
    std::vector<int> fds;
    for (const auto& content : contents) {
        files.emplace_back(content);
        fds.push_back(files.back().Fd());
    }
    EXPECT_EQ(app_.PutImage(sessionId, 1, 3, fds), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());

    std::vector<PeerMessage> data = DataMessages(sessionId);
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[0].code, CODE_PHOTO_COUNT);
    EXPECT_EQ(data[0].size, 1u);
    ExpectPhotos({data[1]}, {contents[0]});
}

// The count limit holds before any descriptor is taken: 1000 photos go, 1001 are refused.
TEST_F(PutImageTest, AThousandPhotosAreAccepted)
{
    int32_t sessionId = ReadyCollaboration();
    constexpr size_t count = 1000;
    std::vector<std::string> contents;
    std::vector<PhotoFile> files;
    std::vector<int> fds;
    for (size_t i = 0; i < count; ++i) {
        contents.push_back(PhotoContent(i, 16 + i % 7));
        files.emplace_back(contents.back());
        fds.push_back(files.back().Fd());
    }
    EXPECT_EQ(app_.PutImage(sessionId, 0, count, fds), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle(30000));

    std::vector<PeerMessage> data = DataMessages(sessionId);
    ASSERT_EQ(data.size(), count + 1);
    EXPECT_EQ(data[0].size, count);
    ExpectPhotos({data.begin() + 1, data.end()}, contents);
}

TEST_F(PutImageTest, AThousandAndOnePhotosAreRefused)
{
    int32_t sessionId = ReadyCollaboration();
    PhotoFile file(PhotoContent(0, 16));
    std::vector<int> fds(1001, file.Fd());
    EXPECT_EQ(app_.PutImage(sessionId, 0, 1001, fds), 1001);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    EXPECT_TRUE(DataMessages(sessionId).empty());
    EXPECT_TRUE(app_.Callback()->Events().empty());
    // Nothing was taken: the camera may still put its images.
    EXPECT_EQ(app_.PutImage(sessionId, 0, 1, {file.Fd()}), 0);
}

// A descriptor 0 cannot come through the parcel while the test's stdin is open, so this case
// hands the record to the flow directly, as the request handler would.
TEST_F(PutImageTest, DescriptorZeroIsSkippedAndReported)
{
    int32_t sessionId = ReadyCollaboration();
    auto process = CameraAbilityProcess::GetInstance();
    auto context = process->QueryPutPhotoContext(sessionId);
    ASSERT_NE(context, nullptr);
    ASSERT_TRUE(context->ChangeCameraStatus(PutPhotoContext::CAMERA_PUTTING).first);
    context->SetPid(CAMERA_PID);
    context->SetUid(CAMERA_UID);

    // Descriptor 0 is the flow's to close: park /dev/null there and restore stdin afterwards.
    int savedStdin = dup(0);
    int devNull = open("/dev/null", O_RDONLY);
    ASSERT_GE(devNull, 0);
    dup2(devNull, 0);
    close(devNull);

    std::vector<std::string> contents = {PhotoContent(0, 40), PhotoContent(2, 50)};
    PhotoFile first(contents[0]);
    PhotoFile third(contents[1]);
    int firstFd = dup(first.Fd());
    int thirdFd = dup(third.Fd());
    sptr<PhotoInfo> info = new PhotoInfo();
    info->SetPhotoCount(3);
    info->SetPhotoFdList({firstFd, 0, thirdFd});
    sptr<PhotoCallerInfo> caller = new PhotoCallerInfo();
    caller->SetCollaborationSessionId(sessionId);
    auto param = std::make_shared<PhotoParam>(PhotoParam::REQUEST_PUT_IMAGE);
    EXPECT_EQ(process->ProcessPutPhotoRequest(context, info, caller, param), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    dup2(savedStdin, 0);
    close(savedStdin);

    std::vector<PeerMessage> data = DataMessages(sessionId);
    ASSERT_EQ(data.size(), 3u);
    EXPECT_EQ(data[0].size, 3u);
    ExpectPhotos({data.begin() + 1, data.end()}, contents);
    EXPECT_EQ(CountCode(ControlMessages(sessionId), CODE_PHOTO_FAILED), 1u);
    EXPECT_EQ(fcntl(firstFd, F_GETFD), -1);
    EXPECT_EQ(fcntl(thirdFd, F_GETFD), -1);
}

// An empty file cannot be framed: the peer hears of it and no later photo follows.
TEST_F(PutImageTest, EmptyFileEndsTheBatch)
{
    int32_t sessionId = ReadyCollaboration();
    std::string content = PhotoContent(0, 32);
    std::set<int> before = OpenDescriptors();
    {
        PhotoFile good(content);
        PhotoFile empty("");
        PhotoFile last(PhotoContent(2, 32));
        EXPECT_EQ(app_.PutImage(sessionId, 0, 3, {good.Fd(), empty.Fd(), last.Fd()}), 0);
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
    }
    EXPECT_EQ(OpenDescriptors(), before);

    std::vector<PeerMessage> data = DataMessages(sessionId);
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[1].code, CODE_PHOTO);
    EXPECT_TRUE(data[1].payload == content);
    EXPECT_EQ(CountCode(ControlMessages(sessionId), CODE_PHOTO_FAILED), 1u);
}

// A bus that refuses the device's data messages from the nth on.
class FailingDataBus : public SoftBus {
public:
    FailingDataBus(SoftBus& target, size_t failFrom, int32_t code) : target_(target), failFrom_(failFrom), code_(code)
    {
    }
    void SetListener(SoftBusListener* listener) override { target_.SetListener(listener); }
    std::pair<int32_t, int32_t> OpenCtrlSession(const std::string& peer, const std::string& name,
                                                const std::string& text) override
    {
        return target_.OpenCtrlSession(peer, name, text);
    }
    int32_t CloseCtrlSession(int32_t id, bool notifyPeer) override { return target_.CloseCtrlSession(id, notifyPeer); }
    bool HasCtrlSession(int32_t id) override { return target_.HasCtrlSession(id); }
    int32_t SendCtrlMessage(int32_t id, const char* data, uint32_t len, uint32_t type) override
    {
        return target_.SendCtrlMessage(id, data, len, type);
    }
    std::pair<int32_t, int32_t> OpenDataChannel(const std::string& peer, const SessionAttribute& attr) override
    {
        return target_.OpenDataChannel(peer, attr);
    }
    int32_t CloseDataChannel(int32_t id) override { return target_.CloseDataChannel(id); }
    int32_t SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len, uint32_t type,
                            bool isFirst) override
    {
        if (++dataSends_ >= failFrom_) {
            return code_;
        }
        return target_.SendDataMessage(channelId, ctrlSessionId, data, len, type, isFirst);
    }

private:
    SoftBus& target_;
    const size_t failFrom_;
    const int32_t code_;
    std::atomic<size_t> dataSends_{0};
};

class FailingDataEnv : public DeviceEnvWrapper {
public:
    FailingDataEnv(std::shared_ptr<TestDeviceEnv> env, size_t failFrom, int32_t code)
        : DeviceEnvWrapper(env), bus_(env->Peer(), failFrom, code)
    {
    }
    SoftBus& GetSoftBus() override { return bus_; }

private:
    FailingDataBus bus_;
};

TEST_F(PutImageTest, SendFailureStopsTheBatchAndClosesEveryDescriptor)
{
    constexpr int32_t sendError = 461374453;
    // Data message 3 is photo 2: the count and photo 1 go through.
    auto env = std::make_shared<FailingDataEnv>(device_.EnvPtr(), 3, sendError);
    DeviceContext::Get().InstallEnv(env);
    int32_t sessionId = ReadyCollaboration();

    std::vector<std::string> contents;
    for (size_t i = 0; i < 5; ++i) {
        contents.push_back(PhotoContent(i, 128));
    }
    std::set<int> before = OpenDescriptors();
    {
        std::vector<PhotoFile> files;
        std::vector<int> fds;
        for (const auto& content : contents) {
            files.emplace_back(content);
            fds.push_back(files.back().Fd());
        }
        EXPECT_EQ(app_.PutImage(sessionId, 0, 5, fds), 0);
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
    }
    EXPECT_EQ(OpenDescriptors(), before);

    std::vector<PeerMessage> data = DataMessages(sessionId);
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[1].code, CODE_PHOTO);
    EXPECT_TRUE(data[1].payload == contents[0]);
    EXPECT_EQ(CountCode(ControlMessages(sessionId), CODE_DATA_SEND_FAILED), 1u);
    // The application was told at once, before the failure.
    auto events = app_.Callback()->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].code, CODE_LAST_PHOTO);
}

TEST_F(PutImageTest, CountHeaderFailureSendsNoPhoto)
{
    constexpr int32_t sendError = 461374453;
    auto env = std::make_shared<FailingDataEnv>(device_.EnvPtr(), 1, sendError);
    DeviceContext::Get().InstallEnv(env);
    int32_t sessionId = ReadyCollaboration();
    PhotoFile file(PhotoContent(0, 10));
    EXPECT_EQ(app_.PutImage(sessionId, 0, 1, {file.Fd()}), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());

    EXPECT_TRUE(DataMessages(sessionId).empty());
    std::vector<PeerMessage> control = ControlMessages(sessionId);
    EXPECT_EQ(CountCode(control, CODE_PHOTO_COUNT), 1u);
    EXPECT_EQ(CountCode(control, CODE_DATA_SEND_FAILED), 1u);
    EXPECT_TRUE(HasEvent(EventsOf("ProcessPutPhoto"), 5, 9, 2, sendError));
}

TEST_F(PutImageTest, SecondPutImageWhileTheFirstRunsIsRefused)
{
    int32_t sessionId = ReadyCollaboration();
    std::set<int> before = OpenDescriptors();
    {
        PhotoFile first(PhotoContent(0, 1024));
        PhotoFile second(PhotoContent(1, 1024));
        EXPECT_EQ(app_.PutImage(sessionId, 0, 1, {first.Fd()}), 0);
        EXPECT_EQ(app_.PutImage(sessionId, 0, 1, {second.Fd()}), 1017);
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(DataMessages(sessionId).size(), 2u);
}

TEST_F(PutImageTest, UnknownSessionIsRefused)
{
    int32_t sessionId = ReadyCollaboration();
    PhotoFile file(PhotoContent(0, 10));
    EXPECT_EQ(app_.PutImage(sessionId + 100, 0, 1, {file.Fd()}), 1002);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    EXPECT_TRUE(DataMessages(sessionId).empty());
}

TEST_F(PutImageTest, DeviceTypeNotAllowedReachesTheCameraApplication)
{
    int32_t sessionId = ReadyCollaboration();
    DeviceIdentity identity = TestDevice::DefaultIdentity();
    identity.deviceType = 0x0C;
    device_.Env().SetLocalDevice(identity);
    PhotoFile file(PhotoContent(0, 10));
    EXPECT_EQ(app_.PutImage(sessionId, 0, 1, {file.Fd()}), 0);
    ASSERT_TRUE(AsynThreadPool::WaitIdle());

    auto events = app_.Callback()->Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].subService, CALLBACK_PUT_IMAGE_RESULT);
    EXPECT_EQ(events[0].code, CODE_DEVICE_TYPE_REFUSED);
    EXPECT_TRUE(DataMessages(sessionId).empty());
    EXPECT_EQ(CountCode(ControlMessages(sessionId), CODE_PHOTO_COUNT), 0u);
}

}  // namespace
}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
