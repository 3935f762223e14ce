// Test helpers for the serving device: a camera application (its callback object, its event
// subscriptions and put-image requests sent through the host's service stub with the
// application's identity), photo files on disk, the peer's take-photo command text, and a
// fixture that brings up one serving device (test backends, scripted connection manager) and
// opens collaborations towards it as a requesting peer would.
// Thread-safety: the recording callback may be called from any thread; the rest belongs to
// the test's thread.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "camera_msg_header.h"
#include "host_service_stub.h"
#include "host_types.h"
#include "ipc_skeleton.h"
#include "iremote_stub.h"
#include "photo_callerInfo.h"
#include "scripted_meshline_service.h"
#include "test_device.h"
#include "vex_clock.h"
#include "vex_sys_event.h"

namespace QUEX {
namespace Tandra {
namespace Testing {

constexpr int32_t CAMERA_PID = 4101;
constexpr int32_t CAMERA_UID = 20040001;
constexpr int32_t MESHLINE_PID = 4201;
constexpr int32_t MESHLINE_UID = 1000;
constexpr uint32_t REQ_SUBSCRIBE_EVENT = 2;
constexpr uint32_t REQ_PUT_IMAGE = 3;
constexpr uint32_t CALLBACK_PUT_IMAGE_RESULT = 103;
constexpr uint32_t CALLBACK_CANCEL = 106;
const char* const CAMERA_BUNDLE = "com.example.camera";
const char* const EVENT_IMAGE_PROCESS_COMPLETE = "imageProcessComplete";
const char* const EVENT_IMAGE_PREVIEW_CANCEL = "imagePreviewCancel";

inline std::string RequesterNetworkId()
{
    return TestDevice::PeerIdentity().networkId;
}

// What the requesting plugin sends when it opens the control session: one take-photo item
// naming the camera ability to start here.
inline std::string TakePhotoCommandText(const std::string& requesterId = RequesterNetworkId())
{
    return std::string(
               "[{\"commandType\":1,\"isDual\":false,\"localInfo\":{\"localBundleName\":\"com.example.photo\",") +
           "\"localAbilityName\":\"MainAbility\",\"localDeviceId\":\"" + requesterId +
           "\",\"localModuleName\":\"entry\",\"localDeviceType\":14},\"extraData\":{\"peerBundleName\":\"" +
           CAMERA_BUNDLE +
           "\",\"peerAbilityName\":\"CameraAbility\",\"peerAction\":\"tandra.CameraAbility.TakePhoto\","
           "\"peerAbilityType\":\"camera\",\"chooseAbilityAtPeer\":false}}]";
}

// One message as the peer received it: the header, and the payload after it.
struct PeerMessage {
    uint32_t code = 0;
    uint32_t size = 0;
    std::string payload;
};

inline PeerMessage Decode(const std::string& bytes)
{
    PeerMessage message;
    if (bytes.size() >= CAMERA_MSG_HEADER_LEN) {
        CameraMsgHeader header{};
        std::memcpy(&header, bytes.data(), sizeof(header));
        message.code = header.code;
        message.size = header.size;
        message.payload = bytes.substr(CAMERA_MSG_HEADER_LEN);
    }
    return message;
}

template <typename Messages>
std::vector<uint32_t> Codes(const Messages& sent)
{
    std::vector<uint32_t> codes;
    for (const auto& message : sent) {
        codes.push_back(Decode(message.bytes).code);
    }
    return codes;
}

// The process's open descriptors, from the kernel's own list.
inline std::set<int> OpenDescriptors()
{
    std::set<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return fds;
    }
    const int own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        int fd = std::atoi(entry->d_name);
        if (fd != own) {
            fds.insert(fd);
        }
    }
    closedir(dir);
    return fds;
}

// A photo file: created with its content, unlinked at once (the descriptor keeps it).
class PhotoFile {
public:
    explicit PhotoFile(const std::string& content)
    {
        char path[] = "/tmp/tandra_photo_XXXXXX";
        fd_ = mkstemp(path);
        if (fd_ >= 0) {
            unlink(path);
            size_t done = 0;
            while (done < content.size()) {
                ssize_t n = write(fd_, content.data() + done, content.size() - done);
                if (n <= 0) {
                    break;
                }
                done += static_cast<size_t>(n);
            }
        }
    }
    ~PhotoFile() { Close(); }
    PhotoFile(const PhotoFile&) = delete;
    PhotoFile& operator=(const PhotoFile&) = delete;
    PhotoFile(PhotoFile&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

    int Fd() const { return fd_; }
    void Close()
    {
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_ = -1;
};

// Distinct, recognisable bytes for photo i.
inline std::string PhotoContent(size_t index, size_t length)
{
    std::string content(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        content[i] = static_cast<char>((i * 31 + index * 7 + 1) & 0xFF);
    }
    return content;
}

// The camera application's callback object: records every event the plugin sends it.
class RecordingAppCallback : public Vex::IPCObjectStub {
public:
    struct Event {
        uint32_t subService = 0;
        uint32_t code = 0;
        uint32_t collaborationId = 0;
        std::string text;
    };

    RecordingAppCallback() : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback") {}

    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption&) override
    {
        if (code != COLLABORATION_TO_DEVICE_CODE || data.ReadInterfaceToken() != u"quex.ITandra.ITandraCallback") {
            return Vex::ERR_INVALID_DATA;
        }
        Event event;
        data.ReadUint32();  // service type
        event.subService = data.ReadUint32();
        data.ReadUint32();
        data.ReadUint32();
        data.ReadUint32();
        event.code = data.ReadUint32();
        event.collaborationId = data.ReadUint32();
        event.text = data.ReadString();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(event);
        }
        cv_.notify_all();
        reply.WriteInt32(0);
        return Vex::ERR_NONE;
    }

    std::vector<Event> Events() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    bool AwaitEvents(size_t count, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000))
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [this, count] { return events_.size() >= count; });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Event> events_;
};

// The camera application started on the serving device: it calls the framework service with
// its own identity.
class CameraApp {
public:
    CameraApp(int32_t pid = CAMERA_PID, int32_t uid = CAMERA_UID) : pid_(pid), uid_(uid)
    {
        Vex::ScopedIdentity as(pid_, uid_);
        callback_ = new RecordingAppCallback();
    }

    Vex::sptr<RecordingAppCallback> Callback() const { return callback_; }

    int32_t Subscribe(const std::string& event, uint32_t collaborationId = 0)
    {
        Vex::MessageParcel data;
        WriteHeader(data, REQ_SUBSCRIBE_EVENT);
        data.WriteUint32(collaborationId);
        data.WriteString(event);
        data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(callback_.GetRefPtr()));
        return Send(data);
    }

    // The put-image request as the application writes it: caller info, mode, error code,
    // count, then the descriptors.
    int32_t PutImage(int32_t collaborationSessionId, uint32_t sendMode, uint32_t photoCount,
                     const std::vector<int>& fds, uint32_t errCode = 0)
    {
        Vex::MessageParcel data;
        WriteHeader(data, REQ_PUT_IMAGE);
        Vex::sptr<PhotoCallerInfo> caller = new PhotoCallerInfo();
        caller->SetCollaborationSessionId(collaborationSessionId);
        caller->SetAbilityName("CameraAbility");
        caller->SetBundleName(CAMERA_BUNDLE);
        caller->SetDeviceId(TestDevice::DefaultIdentity().networkId);
        caller->SetDeviceType(0x0E);
        data.WriteStrongParcelable(Vex::sptr<Vex::Parcelable>(caller.GetRefPtr()));
        data.WriteUint32(sendMode);
        data.WriteUint32(errCode);
        data.WriteUint32(photoCount);
        for (int fd : fds) {
            EXPECT_TRUE(data.WriteFileDescriptor(fd));
        }
        return Send(data);
    }

    int32_t Send(Vex::MessageParcel& data)
    {
        Vex::MessageParcel reply;
        Vex::MessageOption option;
        int32_t status = 0;
        {
            Vex::ScopedIdentity as(pid_, uid_);
            status = service_->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option);
        }
        return status != Vex::ERR_NONE ? status : reply.ReadInt32();
    }

private:
    static void WriteHeader(Vex::MessageParcel& data, uint32_t request)
    {
        data.WriteInterfaceToken(HostServiceStub::GetDescriptor());
        data.WriteUint32(SERVICE_TYPE_COLLABORATION_TO_DEVICE);
        data.WriteUint32(request);
        data.WriteUint32(0);
        data.WriteUint32(0);
        data.WriteUint32(0);
    }

    int32_t pid_;
    int32_t uid_;
    Vex::sptr<RecordingAppCallback> callback_;
    Vex::sptr<HostServiceStub> service_ = new HostServiceStub();
};

// One serving device with its scripted connection manager. Time is simulated: the flow never
// waits on the clock unless an answer is missing, and a test that wants a wait to run out
// advances the clock once the waiter is in place (Vex::Clock::AwaitWaiters).
class ServingDeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Vex::Clock::UseSimulatedTime();
        device_.AddPeerDevice(TestDevice::PeerIdentity());
        device_.SetBundleName(CAMERA_UID, CAMERA_BUNDLE);
        meshline_ = ScriptedMeshlineService::Create(MESHLINE_PID, MESHLINE_UID);
        ASSERT_TRUE(meshline_->Register());
        ASSERT_NE(CameraAbilityProcess::GetInstance(), nullptr);
    }

    void TearDown() override
    {
        AsynThreadPool::WaitIdle();
        meshline_->WaitForActions();
        meshline_->Unregister();
    }

    // The requester opens a control session carrying a take-photo command; the device runs it.
    // Returns the device's id of the session; result gets Execute's outcome.
    int32_t OpenCollaboration(int32_t& result, const std::string& sessionName = "00000000007-LOCALNETWORKID0001")
    {
        int32_t sessionId =
            device_.Peer().OpenSessionToDevice(RequesterNetworkId(), sessionName, TakePhotoCommandText());
        result = -1;
        EXPECT_TRUE(device_.Peer().AwaitOpenResult(sessionId, result));
        return sessionId;
    }

    // A collaboration whose data channel is open and registered.
    int32_t OpenCollaborationWithChannel()
    {
        meshline_->AnswerApplyResource(320001);
        int32_t result = -1;
        int32_t sessionId = OpenCollaboration(result);
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(device_.Peer().AwaitChannelsOpened(1));
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        EXPECT_NE(CameraAbilityProcess::GetInstance()->QueryDataChannelId(sessionId), -1);
        return sessionId;
    }

    std::vector<Vex::SysEventRecord> EventsOf(const std::string& func)
    {
        std::vector<Vex::SysEventRecord> matching;
        for (const auto& record : events_.Records()) {
            if (record.func == func) {
                matching.push_back(record);
            }
        }
        return matching;
    }

    TestDevice device_;
    Vex::sptr<ScriptedMeshlineService> meshline_;
    Vex::SysEventCapture events_;
};

// A value of an event record, or -1 when absent or not an Int32.
inline int32_t EventInt(const Vex::SysEventRecord& record, const std::string& key)
{
    for (const auto& [name, value] : record.params) {
        if (name == key && std::holds_alternative<int32_t>(value)) {
            return std::get<int32_t>(value);
        }
    }
    return -1;
}

inline bool HasEvent(const std::vector<Vex::SysEventRecord>& records, int32_t scene, int32_t stage, int32_t res,
                     int32_t error)
{
    for (const auto& record : records) {
        if (EventInt(record, "BIZ_SCENE") == scene && EventInt(record, "BIZ_STAGE") == stage &&
            EventInt(record, "STAGE_RES") == res && EventInt(record, "ERROR_CODE") == error) {
            return true;
        }
    }
    return false;
}

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
