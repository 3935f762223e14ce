// One requesting device for the plugin's component tests: a TestDevice whose peer has a camera,
// the scripted connection-manager service, a foreground application with its callback object,
// and a soft bus that forwards to the scripted peer while counting every close the device
// attempts (a close of a session that is already gone leaves no trace in the peer's records).
// Time is simulated, so no wait of the plugin ends by itself and a wait left behind shows up
// among the clock's waiters; a test that wants flows to run on their own switches to scaled time.
// Thread-safety: the callback recorder, the bus and the log waiter record from any thread; the
// fixture belongs to the test's thread.
#pragma once

#include <atomic>
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "collaboration_records.h"
#include "device_context.h"
#include "host_service_stub.h"
#include "ipc_skeleton.h"
#include "iremote_stub.h"
#include "process_registry.h"
#include "scripted_meshline_service.h"
#include "test_device.h"
#include "vex_clock.h"
#include "vex_log.h"

namespace QUEX::Tandra::RequestingTesting {

constexpr int32_t APP_PID = 4321;
constexpr int32_t APP_UID = 20010001;
constexpr int32_t GRANTED = 320001;
constexpr std::chrono::milliseconds AWAIT{5000};
inline const std::string APP_BUNDLE = "com.example.photo";
inline const std::string TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";
inline const std::string FRAMEWORK = "Tandra";

// Items recorded from any thread, and a real-time wait for enough of them to match.
template <typename T>
class Recorder {
public:
    void Add(T item)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(item));
        cv_.notify_all();
    }
    std::vector<T> Items() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_;
    }
    bool Await(const std::function<bool(const T&)>& match, size_t count = 1, std::chrono::milliseconds timeout = AWAIT)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [&]() {
            return static_cast<size_t>(std::count_if(items_.begin(), items_.end(), match)) >= count;
        });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<T> items_;
};

// One call on the application's callback: events (service type 101: code, id, text) and photos
// (102: status, id, size, raw bytes).
struct AppCall {
    uint32_t serviceType = 0, subServiceType = 0, code = 0, collaborationId = 0, size = 0;
    std::string text, bytes;
};

class AppCallback : public Vex::IPCObjectStub, public Recorder<AppCall> {
public:
    AppCallback() : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback") {}

    int OnRemoteRequest(uint32_t, Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption&) override
    {
        AppCall call;
        data.ReadInterfaceToken();
        call.serviceType = data.ReadUint32();
        call.subServiceType = data.ReadUint32();
        for (int i = 0; i < 3; ++i) {
            data.ReadUint32();
        }
        call.code = data.ReadUint32();
        call.collaborationId = data.ReadUint32();
        if (call.serviceType == 102) {
            call.size = data.ReadUint32();
            const void* raw = data.ReadRawData(call.size);
            call.bytes = raw != nullptr ? std::string(static_cast<const char*>(raw), call.size) : "<unreadable>";
        } else {
            call.text = data.ReadString();
        }
        const uint32_t code = call.code;
        Add(std::move(call));
        std::function<void()> action;
        bool refuse = false;
        {
            std::lock_guard<std::mutex> lock(hookMutex_);
            if (hook_ && hookCode_ == code) {
                action = std::move(hook_);
                hook_ = nullptr;
            }
            if (refuseCode_ != 0 && refuseCode_ == code) {
                refuse = true;
                refuseCode_ = 0;
            }
        }
        if (action) {
            action();
        }
        if (refuse) {
            return Vex::ERR_TRANSACTION_FAILED;
        }
        reply.WriteInt32(0);
        return 0;
    }

    // The next call with the code fails as a broken or overloaded application would fail it.
    void RefuseCall(uint32_t code)
    {
        std::lock_guard<std::mutex> lock(hookMutex_);
        refuseCode_ = code;
    }

    // Runs the action once, on the calling thread before the call is answered, when a call with
    // the code arrives: a test's way to act at the exact point the application hears of a step.
    void OnCall(uint32_t code, std::function<void()> action)
    {
        std::lock_guard<std::mutex> lock(hookMutex_);
        hookCode_ = code;
        hook_ = std::move(action);
    }

    // Calls of the service type (0: all) and collaboration id (0: any).
    std::vector<AppCall> Calls(uint32_t serviceType = 0, uint32_t collaborationId = 0) const
    {
        std::vector<AppCall> calls = Items();
        calls.erase(std::remove_if(calls.begin(), calls.end(),
                                   [&](const AppCall& call) {
                                       return (serviceType != 0 && call.serviceType != serviceType) ||
                                              (collaborationId != 0 && call.collaborationId != collaborationId);
                                   }),
                    calls.end());
        return calls;
    }

    // The codes of every call, in order.
    std::vector<uint32_t> Codes() const
    {
        std::vector<uint32_t> codes;
        for (const AppCall& call : Items()) {
            codes.push_back(call.code);
        }
        return codes;
    }

    // Waits for count calls, or for one with the code when it is not 0.
    bool Await(size_t count, uint32_t code = 0, std::chrono::milliseconds timeout = AWAIT)
    {
        return Recorder::Await([code](const AppCall& call) { return code == 0 || call.code == code; }, count, timeout);
    }

private:
    std::mutex hookMutex_;
    uint32_t hookCode_ = 0;
    std::function<void()> hook_;
    uint32_t refuseCode_ = 0;
};

// A peer message: the 8-byte header, then the payload.
inline std::string CameraMessage(uint32_t code, uint32_t size, const std::string& payload = std::string())
{
    CameraMsgHeader header{code, size};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + payload;
}

// Photo content whose every byte depends on its position and on the seed.
inline std::string PhotoBytes(size_t length, uint8_t seed)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>((i * 31 + seed) & 0xFF);
    }
    return bytes;
}

inline std::string IdText(uint32_t collaborationId)
{
    char buffer[16];
    std::snprintf(buffer, sizeof(buffer), "%011u", collaborationId);
    return buffer;
}

inline std::set<int> OpenDescriptors()
{
    std::set<int> fds;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(dir)) {
                fds.insert(std::atoi(entry->d_name));
            }
        }
        closedir(dir);
    }
    return fds;
}

// Forwards to the scripted peer and records every control-session close the device attempts.
class CountingBus : public SoftBus {
public:
    explicit CountingBus(SoftBus& target) : target_(target) {}
    std::vector<std::pair<int32_t, bool>> Closes() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return closes_;
    }
    void SetListener(SoftBusListener* listener) override { target_.SetListener(listener); }
    std::pair<int32_t, int32_t> OpenCtrlSession(const std::string& peer, const std::string& name,
                                                const std::string& commandText) override
    {
        return target_.OpenCtrlSession(peer, name, commandText);
    }
    int32_t CloseCtrlSession(int32_t sessionId, bool notifyPeer) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closes_.emplace_back(sessionId, notifyPeer);
        }
        return target_.CloseCtrlSession(sessionId, notifyPeer);
    }
    bool HasCtrlSession(int32_t sessionId) override { return target_.HasCtrlSession(sessionId); }
    int32_t SendCtrlMessage(int32_t sessionId, const char* data, uint32_t len, uint32_t type) override
    {
        return target_.SendCtrlMessage(sessionId, data, len, type);
    }
    std::pair<int32_t, int32_t> OpenDataChannel(const std::string& peer, const SessionAttribute& attr) override
    {
        return target_.OpenDataChannel(peer, attr);
    }
    int32_t CloseDataChannel(int32_t channelId) override { return target_.CloseDataChannel(channelId); }
    int32_t SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len, uint32_t type,
                            bool isFirst) override
    {
        return target_.SendDataMessage(channelId, ctrlSessionId, data, len, type, isFirst);
    }
    uint64_t DataBytesReceived(const std::string&) override { return received.load(); }

    // What DataBytesReceived answers: a test moves it to show a message arriving.
    std::atomic<uint64_t> received{0};

private:
    SoftBus& target_;
    mutable std::mutex mutex_;
    std::vector<std::pair<int32_t, bool>> closes_;
};

class CountingEnv : public DeviceEnvWrapper {
public:
    explicit CountingEnv(std::shared_ptr<Testing::TestDeviceEnv> target)
        : DeviceEnvWrapper(target), bus_(target->Peer())
    {
    }
    SoftBus& GetSoftBus() override { return bus_; }
    CountingBus bus_;
};

// Lets a test wait for a step that leaves no other trace than its log line; lines still go to
// stderr.
class LogWaiter : public Recorder<std::string> {
public:
    LogWaiter()
    {
        previous_ = Vex::SetLogSink([this](const Vex::LogRecord& record) {
            std::cerr << record.tag << ": " << record.message << "\n";
            Add(record.message);
        });
    }
    ~LogWaiter() { Vex::SetLogSink(previous_); }
    bool Await(const std::string& text)
    {
        return Recorder::Await([&text](const std::string& line) { return line.find(text) != std::string::npos; });
    }

private:
    Vex::LogSink previous_;
};

inline AbilityInfo PeerCamera()
{
    return {"com.peer.camera", "CameraAbility", "entry", TAKE_PHOTO_TYPE, TAKE_PHOTO_TYPE};
}

// A running collaboration as the requesting device sees it once the command went out.
struct Collaboration {
    uint32_t id = 0;
    int32_t sessionId = -1;
};

// Public, so that table rows written as free functions can drive it.
class RequestingDeviceTest : public testing::Test {
public:
    void SetUp() override
    {
        Vex::Clock::UseSimulatedTime();
        device_.AddPeerDevice(peer_, {PeerCamera()});
        device_.SetForegroundApp(APP_BUNDLE);
        device_.SetBundleName(APP_UID, APP_BUNDLE);
        env_ = std::make_shared<CountingEnv>(device_.EnvPtr());
        DeviceContext::Get().InstallEnv(env_);
        meshline_ = Testing::ScriptedMeshlineService::Create(7001, 1000);
        ASSERT_TRUE(meshline_->Register());
        if (grant_) {
            meshline_->AnswerApplyResource(GRANTED);
        }
        process_ = CameraAbilityProcess::GetInstance();
        ASSERT_NE(process_, nullptr);
        app_ = NewCallback(APP_PID, APP_UID);
    }

    void TearDown() override
    {
        // Waits a failed test left behind run out while the backends still exist.
        Vex::Clock::UseScaledTime(1000);
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        meshline_->WaitForActions();
        meshline_->Unregister();
        DeviceContext::Get().InstallEnv(device_.EnvPtr());
    }

    static Vex::sptr<AppCallback> NewCallback(int32_t pid, int32_t uid)
    {
        Vex::ScopedIdentity as(pid, uid);
        return new AppCallback();
    }

    Vex::sptr<PickerResult> Picker(bool withFilter = true, bool withDevice = true, bool withLocal = true)
    {
        DeviceIdentity local = device_.Identity();
        return new PickerResult(
            withFilter ? new AbilityFilter(TAKE_PHOTO_TYPE) : nullptr,
            withDevice ? new DeviceInfo(peer_.networkId, peer_.udid, peer_.deviceName, peer_.deviceType) : nullptr,
            withLocal ? new LocalInfo(APP_BUNDLE, "MainAbility", "entry", local.udid, local.deviceType) : nullptr);
    }

    // Request code 1 as the application sends it (to the framework service) or as the host
    // hands it to the plugin: the reply's (result, collaboration id).
    // callback null: the application's own callback object.
    std::pair<int32_t, uint32_t> Request(bool throughService = false, Vex::sptr<PickerResult> picker = nullptr,
                                         Vex::sptr<Vex::IRemoteObject> callback = nullptr)
    {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        WriteHeader(data, 1, throughService);
        data.WriteInt32(1);
        (picker != nullptr ? picker : Picker())->Marshalling(data);
        data.WriteRemoteObject(callback != nullptr ? callback : Vex::sptr<Vex::IRemoteObject>(app_.GetRefPtr()));
        Send(data, reply, throughService);
        int32_t result = reply.ReadInt32();
        return {result, reply.ReadUint32()};
    }

    // Request code 4 sent by the application to the framework service; the reply's result.
    int32_t Cancel(uint32_t collaborationId)
    {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        WriteHeader(data, 4, true);
        data.WriteUint32(collaborationId);
        Send(data, reply, true);
        return reply.ReadInt32();
    }

    // A collaboration whose command went out: the control session is open and the wait for the
    // peer's first answer is in place.
    Collaboration Start()
    {
        Collaboration collaboration;
        auto [result, id] = Request(true);
        EXPECT_EQ(result, 0);
        collaboration.id = id;
        const std::string name = IdText(id) + "-" + peer_.networkId;
        EXPECT_TRUE(device_.Peer().AwaitCondition([&]() { return device_.Peer().SessionIdByName(name) != -1; }));
        collaboration.sessionId = device_.Peer().SessionIdByName(name);
        EXPECT_TRUE(Vex::Clock::AwaitWaiters(1));
        EXPECT_EQ(process_->QuerySessionId(id), collaboration.sessionId);
        return collaboration;
    }

    // The peer's message on the control session or a data channel, handled by the device.
    void PeerSends(const Collaboration& collaboration, std::string bytes, bool onDataChannel = false)
    {
        Testing::ScriptedPeer& peer = device_.Peer();
        ASSERT_TRUE(peer.AwaitDelivered(onDataChannel
                                            ? peer.SendOnDataChannel(collaboration.sessionId, std::move(bytes))
                                            : peer.SendOnSession(collaboration.sessionId, std::move(bytes))));
    }

    // The photo-data wait the photo count starts on the pool is in place. A last photo that
    // overtakes that task releases nothing and the task then waits for a collaboration that is
    // over, so flows wait for it before sending their last photo.
    void AwaitPhotoWait() { ASSERT_TRUE(log_.Await("enter, time:10")); }

    // Everything an ending set off has run: pool tasks, scripted actions, death notices.
    void Settle()
    {
        ASSERT_TRUE(device_.Peer().AwaitIdle());
        ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        ASSERT_TRUE(meshline_->WaitForActions());
    }

    // Nothing of the collaboration is registered, no wait of it runs or is kept, and nothing
    // holds the application's callback object any more.
    void ExpectGone(uint32_t collaborationId)
    {
        EXPECT_EQ(process_->QueryCameraProcess(collaborationId), nullptr);
        EXPECT_EQ(process_->QuerySessionId(collaborationId), -2);
        EXPECT_EQ(process_->QueryCameraProcess(peer_.networkId), nullptr);
        EXPECT_EQ(Vex::Clock::WaitingCount(), 0u);
        EXPECT_FALSE(process_->SetTimeoutContext(collaborationId, CODE_PHOTO_COUNT));
        EXPECT_FALSE(process_->SetTimeoutContext(collaborationId, CODE_LAST_PHOTO));
        Vex::wptr<AppCallback> weak(app_);
        app_ = nullptr;
        EXPECT_EQ(weak.promote(), nullptr) << "the application's callback object is still held";
    }

    std::vector<int32_t> PublishedStates()
    {
        std::vector<int32_t> states;
        for (const auto& request : meshline_->Requests(Testing::PUBLISH_SERVICE_STATE)) {
            EXPECT_EQ(request.strings, (std::vector<std::string>{peer_.networkId, FRAMEWORK, ""}));
            states.push_back(request.ints.empty() ? 0 : request.ints.front());
        }
        return states;
    }

    // The request envelope: the framework service's token and service type, then the four
    // words the plugin dispatches on (request code, then three that only get logged).
    static void WriteHeader(Vex::MessageParcel& data, uint32_t request, bool throughService = false)
    {
        if (throughService) {
            data.WriteInterfaceToken(HostServiceStub::GetDescriptor());
            data.WriteUint32(SERVICE_TYPE_COLLABORATION_TO_DEVICE);
        }
        for (uint32_t value : {request, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
    }

    bool grant_ = true;  // answer every resource application with a grant
    LogWaiter log_;
    Testing::TestDevice device_;
    DeviceIdentity peer_ = Testing::TestDevice::PeerIdentity();
    std::shared_ptr<CountingEnv> env_;
    Vex::sptr<Testing::ScriptedMeshlineService> meshline_;
    CameraAbilityProcess* process_ = nullptr;
    Vex::sptr<AppCallback> app_;

private:
    void Send(Vex::MessageParcel& data, Vex::MessageParcel& reply, bool throughService)
    {
        Vex::MessageOption option;
        if (throughService) {
            Vex::ScopedIdentity asApp(APP_PID, APP_UID);
            EXPECT_EQ(service_->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option), Vex::ERR_NONE);
            return;
        }
        Vex::ScopedCallingIdentity call({APP_PID, APP_UID}, Vex::IPCSkeleton::GetSelfIdentity());
        process_->DispatchRequest(data, reply, option, IPCContext{APP_PID, APP_UID});
    }

    Vex::sptr<HostServiceStub> service_ = new HostServiceStub();
};

}  // namespace QUEX::Tandra::RequestingTesting
