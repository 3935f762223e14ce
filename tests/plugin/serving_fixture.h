// The serving device for component tests: scripted connection manager and soft bus, the
// requester's command text as its plugin writes it, the camera application (its callback and its
// requests with its own identity), photo files, and readers of what reached the peer, the event
// log and /proc/self/fd. Time is simulated: waits run out only when a test advances the clock.
// Thread-safety: the application's callback may be called from any thread; the rest is the test's.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <numeric>
#include <optional>
#include <set>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "camera_msg_header.h"
#include "collaboration_sessions.h"
#include "host_service_stub.h"
#include "photo_callerInfo.h"
#include "process_registry.h"
#include "put_photo_context.h"
#include "scripted_meshline_service.h"
#include "test_device.h"
#include "vex_clock.h"
#include "vex_sys_event.h"

namespace QUEX::Tandra::Testing {

constexpr int32_t CAMERA_PID = 4101;
constexpr int32_t CAMERA_UID = 20040001;
constexpr uint32_t CALLBACK_PUT_IMAGE_RESULT = 103;
constexpr uint32_t CALLBACK_CANCEL = 106;
constexpr int32_t GRANTED = 320001;
const char* const CAMERA_BUNDLE = "com.example.camera";
const char* const TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";
inline const std::string REQUESTER = TestDevice::PeerIdentity().networkId;
// The requester as its command names it: the resource applicant, the service-state owner.
inline const std::string REQUESTER_UDID = TestDevice::PeerIdentity().udid;
using Codes = std::vector<uint32_t>;
using Rows = std::vector<std::vector<int32_t>>;

// A message as the peer received it: the header, and the payload after it.
struct PeerMessage {
    uint32_t code = 0;
    uint32_t size = 0;
    std::string payload;
};

inline std::vector<PeerMessage> Decode(const std::vector<SentMessage>& sent)
{
    std::vector<PeerMessage> messages;
    for (const auto& message : sent) {
        CameraMsgHeader header{};
        std::memcpy(&header, message.bytes.data(), std::min(sizeof(header), message.bytes.size()));
        messages.push_back({header.code, header.size, message.bytes.substr(CAMERA_MSG_HEADER_LEN)});
    }
    return messages;
}

// The process's open descriptors, from the kernel's own list.
inline std::set<int> OpenDescriptors()
{
    std::set<int> fds;  // the listing's own descriptor is the same in equal snapshots
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        fds.insert(std::stoi(entry.path().filename()));
    }
    return fds;
}

// Photo files of these sizes with distinct, recognisable bytes, unlinked at once (the
// descriptors keep them) and closed when the set goes.
struct PhotoFiles {
    explicit PhotoFiles(const std::vector<size_t>& sizes)
    {
        for (size_t size : sizes) {
            contents.emplace_back(size, '\0');
            std::iota(contents.back().begin(), contents.back().end(), static_cast<char>(contents.size() * 7));
            char path[] = "/tmp/tandra_photo_XXXXXX";
            fds.push_back(mkstemp(path));
            unlink(path);
            EXPECT_EQ(write(fds.back(), contents.back().data(), size), static_cast<ssize_t>(size));
        }
    }
    ~PhotoFiles() { std::for_each(fds.begin(), fds.end(), close); }
    std::vector<std::string> contents;
    std::vector<int> fds;
};

// The caller info the camera application puts in its requests.
inline Vex::sptr<PhotoCallerInfo> CameraCaller(int32_t sessionId)
{
    Vex::sptr<PhotoCallerInfo> caller = new PhotoCallerInfo();
    caller->SetCollaborationSessionId(sessionId);
    caller->SetAbilityName("CameraAbility");
    caller->SetBundleName(CAMERA_BUNDLE);
    caller->SetDeviceId(TestDevice::DefaultIdentity().networkId);
    caller->SetDeviceType(0x0E);
    return caller;
}

// The camera application started on the serving device, and its callback object, which
// records the (sub-service, code) of every call.
class CameraApp : public Vex::IPCObjectStub {
public:
    using Event = std::pair<uint32_t, uint32_t>;
    // The camera application, or another application of this device (its own pid and uid).
    static Vex::sptr<CameraApp> Start(int32_t pid = CAMERA_PID, int32_t uid = CAMERA_UID)
    {
        Vex::ScopedIdentity as(pid, uid);
        return new CameraApp(pid, uid);
    }

    int OnRemoteRequest(uint32_t, Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption&) override
    {
        EXPECT_EQ(data.ReadInterfaceToken(), GetObjectDescriptor());
        uint32_t values[6] = {};  // service type, sub-service, three reserved, code
        for (uint32_t& value : values) {
            value = data.ReadUint32();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        events_.emplace_back(values[1], values[5]);
        heard_.notify_all();
        return reply.WriteInt32(0) ? Vex::ERR_NONE : Vex::ERR_INVALID_DATA;
    }
    // What the application heard, once it heard at least atLeast calls (or 5 s passed).
    std::vector<Event> Events(size_t atLeast = 0)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        heard_.wait_for(lock, std::chrono::seconds(5), [&] { return events_.size() >= atLeast; });
        return events_;
    }

    // Subscribes to both events the camera application listens to.
    void Subscribe()
    {
        for (const char* event : {"imageProcessComplete", "imagePreviewCancel"}) {
            EXPECT_EQ(Send(2, std::nullopt, {0}, {},
                           [&](Vex::MessageParcel& data) {
                               data.WriteString(event);
                               data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(this));
                           }),
                      0);
        }
    }
    // Put image: caller info, mode, error code, count, then the descriptors.
    int32_t PutImage(int32_t sessionId, uint32_t sendMode, uint32_t count, const std::vector<int>& fds)
    {
        return Send(3, sessionId, {sendMode, 0, count}, fds);
    }
    // Remote cancel; no session: no caller info at all.
    int32_t RemoteCancel(std::optional<int32_t> sessionId, uint32_t errCode) { return Send(10, sessionId, {errCode}); }

private:
    CameraApp(int32_t pid, int32_t uid) : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback"), pid_(pid), uid_(uid) {}

    // A request as the application writes it; request 2 carries no caller info.
    int32_t Send(uint32_t request, std::optional<int32_t> sessionId, const std::vector<uint32_t>& values,
                 const std::vector<int>& fds = {}, const std::function<void(Vex::MessageParcel&)>& more = nullptr)
    {
        Vex::MessageParcel data, reply;
        data.WriteInterfaceToken(HostServiceStub::GetDescriptor());
        for (uint32_t value : {uint32_t(SERVICE_TYPE_COLLABORATION_TO_DEVICE), request, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
        if (request != 2) {  // no session: a null parcelable
            sessionId ? data.WriteStrongParcelable(Vex::sptr<Vex::Parcelable>(CameraCaller(*sessionId).GetRefPtr()))
                      : data.WriteInt32(0);
        }
        for (uint32_t value : values) {
            data.WriteUint32(value);
        }
        for (int fd : fds) {
            EXPECT_TRUE(data.WriteFileDescriptor(fd));
        }
        if (more) {
            more(data);
        }
        Vex::MessageOption option;
        Vex::ScopedIdentity as(pid_, uid_);
        int32_t status = service_->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option);
        return status != Vex::ERR_NONE ? status : reply.ReadInt32();
    }

    const int32_t pid_;
    const int32_t uid_;
    std::mutex mutex_;
    std::condition_variable heard_;
    std::vector<Event> events_;
    Vex::sptr<HostServiceStub> service_ = new HostServiceStub();
};

class ServingDeviceTest : public ::testing::Test {
public:
    void SetUp() override
    {
        Vex::Clock::UseSimulatedTime();
        commandText_ = RequesterCommandText();
        device_.AddLocalAbility(CameraAbility());
        device_.AddPeerDevice(TestDevice::PeerIdentity());
        device_.SetBundleName(CAMERA_UID, CAMERA_BUNDLE);
        meshline_ = ScriptedMeshlineService::Create(4201, 1000);
        ASSERT_TRUE(meshline_->Register());
        descriptors_ = OpenDescriptors();
    }
    void TearDown() override
    {
        AsynThreadPool::WaitIdle();
        meshline_->WaitForActions();
        meshline_->Unregister();
    }

    static AbilityInfo CameraAbility()
    {
        return {CAMERA_BUNDLE, "CameraAbility", "entry", TAKE_PHOTO_TYPE, TAKE_PHOTO_TYPE};
    }
    // The command text exactly as the requesting device's plugin writes it for this device's
    // camera ability: written in a short-lived view of the requester.
    static std::string RequesterCommandText()
    {
        DeviceIdentity requester = TestDevice::PeerIdentity();
        TestDevice view(requester);
        view.AddPeerDevice(TestDevice::DefaultIdentity(), {CameraAbility()});
        std::string servingUdid = TestDevice::DefaultIdentity().udid;
        return CameraAbilityProcess::GetInstance()->GenerateTakePhotoReqCommand(
            servingUdid, new AbilityFilter(TAKE_PHOTO_TYPE),
            new LocalInfo("com.example.photo", "MainAbility", "entry", requester.udid, requester.deviceType));
    }

    // The requester opens a control session with its command; returns the device's id of the
    // session, result gets Execute's outcome.
    int32_t OpenCollaboration(int32_t& result, const std::string& name = "00000000007-LOCALNETWORKID0001")
    {
        int32_t sessionId = Peer().OpenSessionToDevice(REQUESTER, name, commandText_);
        EXPECT_TRUE(Peer().AwaitOpenResult(sessionId, result));
        return sessionId;
    }
    // A collaboration with no conflict to wait for: the camera application starts with the
    // requester's parameters and subscribes, the data channel opens and is registered, and the
    // requester hears that the camera is up.
    int32_t OpenCollaborationWithChannel()
    {
        meshline_->AnswerApplyResource(GRANTED);
        int32_t result = -1;
        int32_t sessionId = OpenCollaboration(result);
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(Peer().AwaitChannelsOpened(1));
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        EXPECT_NE(CameraAbilityProcess::GetInstance()->QueryDataChannelId(sessionId), -1);
        EXPECT_EQ(meshline_->RequestCount(SUBSCRIBE_SERVICE_STATE), 0u);
        EXPECT_EQ(device_.Launcher().Starts().at(0).collaborationSessionId, sessionId);
        EXPECT_EQ(device_.Launcher().Starts().at(0).param.localBundleName, "com.example.photo");
        app_->Subscribe();
        EXPECT_EQ(ControlCodes(sessionId), Codes{CODE_CAMERA_STARTED});
        return sessionId;
    }

    // Once the collaboration ended: nothing of it is left, the connection manager heard that the
    // service is free (once, and last) and lost the disconnect subscription, no wait runs and
    // every descriptor opened since SetUp is closed.
    void ExpectReleased(int32_t sessionId, const std::vector<int32_t>& closedChannels)
    {
        ASSERT_TRUE(Peer().AwaitIdle());
        ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        auto process = CameraAbilityProcess::GetInstance();
        EXPECT_EQ(DeviceContext::Get().Sessions().ActiveIncomingCount(), 0u);
        EXPECT_TRUE(process->GetAllPutPhotoContexts().empty());
        EXPECT_EQ(process->QueryDataChannelId(sessionId), -1);
        EXPECT_EQ(process->GetCollaborationDataInfo(), (std::pair<int32_t, std::string>{0, ""}));
        EXPECT_EQ(Peer().ChannelsClosedByDevice(), closedChannels);
        std::vector<RecordedRequest> published = meshline_->Requests(PUBLISH_SERVICE_STATE);
        ASSERT_FALSE(published.empty());
        EXPECT_EQ(published.back().strings, std::vector<std::string>({REQUESTER_UDID, "Tandra", ""}));
        EXPECT_EQ(published.back().ints, std::vector<int32_t>{1});
        EXPECT_EQ(std::count_if(published.begin(), published.end(), [](auto& r) { return r.ints.at(0) == 1; }), 1);
        auto unsubscribe = meshline_->Requests(UNSUBSCRIBE_NOTIFY_DISCONNECT);
        ASSERT_EQ(unsubscribe.size(), 1u);
        EXPECT_EQ(unsubscribe[0].strings, std::vector<std::string>({REQUESTER_UDID, "Tandra"}));
        EXPECT_EQ(Vex::Clock::WaitingCount(), 0u);
        EXPECT_EQ(OpenDescriptors(), descriptors_);
    }

    // The bus the device uses: its scripted peer, unless a test installed another one.
    ScriptedPeer& Peer() { return bus_ != nullptr ? *bus_ : device_.Peer(); }

    Codes ControlCodes(int32_t sessionId)
    {
        Codes codes;
        for (const auto& message : Decode(Peer().SentOnSession(sessionId))) {
            codes.push_back(message.code);
        }
        return codes;
    }
    // The behaviour events a function wrote: (scene, stage, result, error, state) each.
    Rows EventsOf(const std::string& func)
    {
        Rows rows;
        for (const auto& record : events_.Records()) {
            if (record.func == func) {
                rows.emplace_back();
                for (const char* key : {"BIZ_SCENE", "BIZ_STAGE", "STAGE_RES", "ERROR_CODE", "BIZ_STATE"}) {
                    auto it = std::find_if(record.params.begin(), record.params.end(),
                                           [key](const auto& param) { return param.first == key; });
                    rows.back().push_back(it != record.params.end() ? std::get<int32_t>(it->second) : -1);
                }
            }
        }
        return rows;
    }
    // Some event of func starts with these values.
    bool HasEvent(const std::string& func, const std::vector<int32_t>& values)
    {
        auto rows = EventsOf(func);
        return std::any_of(rows.begin(), rows.end(),
                           [&](const auto& row) { return std::equal(values.begin(), values.end(), row.begin()); });
    }

    TestDevice device_;
    Vex::sptr<ScriptedMeshlineService> meshline_;
    Vex::SysEventCapture events_;
    Vex::sptr<CameraApp> app_ = CameraApp::Start();
    std::string commandText_;
    std::set<int> descriptors_;
    ScriptedPeer* bus_ = nullptr;
};

}  // namespace QUEX::Tandra::Testing
