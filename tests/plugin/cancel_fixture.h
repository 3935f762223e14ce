// Shared set-up of the cancel and whole-collaboration tests on the requesting device: one
// device (TestDevice) whose peer has a camera, the scripted connection-manager service granting
// every resource application, a foreground application with its callback object, and a soft
// bus that forwards to the scripted peer while counting every close the device attempts (a
// close of a session that is already gone leaves no trace in the peer's records).
// Time is simulated: no wait of the plugin ever ends by itself, so a wait left behind by an
// ending shows up among the clock's waiters.
// Thread-safety: the bus and the callbacks record from any thread; the fixture belongs to the
// test's thread.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "collaboration_records.h"
#include "device_context.h"
#include "host_service_stub.h"
#include "host_types.h"
#include "ipc_skeleton.h"
#include "messages_app_callback.h"
#include "photo_callerInfo.h"
#include "process_registry.h"
#include "scripted_meshline_service.h"
#include "test_device.h"
#include "vex_clock.h"
#include "vex_log.h"

namespace QUEX {
namespace Tandra {
namespace CancelTesting {

using MessagesTesting::AppCall;
using MessagesTesting::AppCallback;
using MessagesTesting::CameraMessage;
using MessagesTesting::IdText;
using MessagesTesting::PhotoBytes;

constexpr int32_t APP_PID = 4321;
constexpr int32_t APP_UID = 20010001;
constexpr int32_t MESHLINE_PID = 7001;
constexpr int32_t MESHLINE_UID = 1000;
constexpr int32_t SERVICE_GRANTED = 320001;
constexpr uint32_t REQ_TAKE_PHOTO = 1;
constexpr uint32_t REQ_CANCEL = 4;
constexpr int32_t SERVICE_STATE_FREE = 1;
constexpr std::chrono::milliseconds AWAIT{5000};
inline const std::string APP_BUNDLE = "com.example.photo";
inline const std::string TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";
inline const std::string FRAMEWORK = "Tandra";

// Forwards to the scripted peer and records every close the device attempts.
class CountingBus : public SoftBus {
public:
    struct Close {
        int32_t sessionId;
        bool notifyPeer;
    };

    explicit CountingBus(SoftBus& target) : target_(target) {}

    std::vector<Close> Closes() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return closes_;
    }

    void SetListener(SoftBusListener* listener) override { target_.SetListener(listener); }
    std::pair<int32_t, int32_t> OpenCtrlSession(const std::string& peerNetworkId, const std::string& sessionName,
                                                const std::string& commandText) override
    {
        return target_.OpenCtrlSession(peerNetworkId, sessionName, commandText);
    }
    int32_t CloseCtrlSession(int32_t sessionId, bool notifyPeer) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closes_.push_back({sessionId, notifyPeer});
        }
        return target_.CloseCtrlSession(sessionId, notifyPeer);
    }
    bool HasCtrlSession(int32_t sessionId) override { return target_.HasCtrlSession(sessionId); }
    int32_t SendCtrlMessage(int32_t sessionId, const char* data, uint32_t len, uint32_t type) override
    {
        return target_.SendCtrlMessage(sessionId, data, len, type);
    }
    std::pair<int32_t, int32_t> OpenDataChannel(const std::string& peerDeviceId, const SessionAttribute& attr) override
    {
        return target_.OpenDataChannel(peerDeviceId, attr);
    }
    int32_t CloseDataChannel(int32_t channelId) override { return target_.CloseDataChannel(channelId); }
    int32_t SendDataMessage(int32_t channelId, int32_t ctrlSessionId, const char* data, uint32_t len, uint32_t type,
                            bool isFirst) override
    {
        return target_.SendDataMessage(channelId, ctrlSessionId, data, len, type, isFirst);
    }

private:
    SoftBus& target_;
    mutable std::mutex mutex_;
    std::vector<Close> closes_;
};

class CountingEnv : public DeviceEnvWrapper {
public:
    explicit CountingEnv(std::shared_ptr<Testing::TestDeviceEnv> target)
        : DeviceEnvWrapper(target), bus_(target->Peer())
    {
    }
    SoftBus& GetSoftBus() override { return bus_; }
    CountingBus& Bus() { return bus_; }

private:
    CountingBus bus_;
};

// Lets a test wait for a step that leaves no other trace than its log line. Lines still go
// to stderr.
class LogWaiter {
public:
    LogWaiter()
    {
        previous_ = Vex::SetLogSink([this](const Vex::LogRecord& record) {
            std::cerr << record.tag << ": " << record.message << "\n";
            std::lock_guard<std::mutex> lock(mutex_);
            messages_.push_back(record.message);
            cv_.notify_all();
        });
    }
    ~LogWaiter() { Vex::SetLogSink(previous_); }
    LogWaiter(const LogWaiter&) = delete;
    LogWaiter& operator=(const LogWaiter&) = delete;

    // At least count lines containing text (real-time deadline).
    bool Await(const std::string& text, size_t count = 1, std::chrono::milliseconds timeout = AWAIT)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [&]() {
            size_t found = 0;
            for (const std::string& message : messages_) {
                found += message.find(text) != std::string::npos ? 1 : 0;
            }
            return found >= count;
        });
    }

private:
    Vex::LogSink previous_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> messages_;
};

// The camera application's remote cancel (request code 10) in the framework service's
// envelope: the caller info naming its collaboration (absent when no session is given), then
// the error code to relay to the requester.
inline void WriteRemoteCancelRequest(Vex::MessageParcel& data, const int32_t* collaborationSessionId, uint32_t errCode)
{
    constexpr uint32_t REQ_REMOTE_CANCEL = 10;
    data.WriteInterfaceToken(HostServiceStub::GetDescriptor());
    data.WriteUint32(SERVICE_TYPE_COLLABORATION_TO_DEVICE);
    for (uint32_t value : {REQ_REMOTE_CANCEL, 0u, 0u, 0u}) {
        data.WriteUint32(value);
    }
    if (collaborationSessionId != nullptr) {
        Vex::sptr<PhotoCallerInfo> caller = new PhotoCallerInfo();
        caller->SetCollaborationSessionId(*collaborationSessionId);
        caller->SetBundleName("com.example.camera");
        caller->SetDeviceType(0x0E);
        data.WriteStrongParcelable(Vex::sptr<Vex::Parcelable>(caller.GetRefPtr()));
    } else {
        data.WriteInt32(0);
    }
    data.WriteUint32(errCode);
}

inline AbilityInfo PeerCamera()
{
    AbilityInfo info;
    info.bundleName = "com.peer.camera";
    info.abilityName = "CameraAbility";
    info.moduleName = "entry";
    info.action = TAKE_PHOTO_TYPE;
    info.abilityType = TAKE_PHOTO_TYPE;
    return info;
}

// A running collaboration as the requesting device sees it once the command went out.
struct Collaboration {
    uint32_t id = 0;
    int32_t sessionId = -1;
};

class RequestingDeviceTest : public testing::Test {
protected:
    void SetUp() override
    {
        Vex::Clock::UseSimulatedTime();
        device_.AddPeerDevice(peer_, {PeerCamera()});
        device_.SetForegroundApp(APP_BUNDLE);
        device_.SetBundleName(APP_UID, APP_BUNDLE);
        env_ = std::make_shared<CountingEnv>(device_.EnvPtr());
        DeviceContext::Get().InstallEnv(env_);
        meshline_ = Testing::ScriptedMeshlineService::Create(MESHLINE_PID, MESHLINE_UID);
        ASSERT_TRUE(meshline_->Register());
        meshline_->AnswerApplyResource(SERVICE_GRANTED);
        process_ = CameraAbilityProcess::GetInstance();
        ASSERT_NE(process_, nullptr);
        Vex::ScopedIdentity asApp(APP_PID, APP_UID);
        app_ = new AppCallback();
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

    Vex::sptr<PickerResult> Picker()
    {
        DeviceIdentity local = device_.Identity();
        return new PickerResult(new AbilityFilter(TAKE_PHOTO_TYPE),
                                new DeviceInfo(peer_.networkId, peer_.udid, peer_.deviceName, peer_.deviceType),
                                new LocalInfo(APP_BUNDLE, "MainAbility", "entry", local.udid, local.deviceType));
    }

    // Request code 1 handed to the plugin the way the host hands it: (result, collaboration id).
    std::pair<int32_t, uint32_t> RequestByDispatch()
    {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        Vex::MessageOption option;
        for (uint32_t value : {REQ_TAKE_PHOTO, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
        data.WriteInt32(1);
        Picker()->Marshalling(data);
        data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(app_.GetRefPtr()));
        Vex::ScopedCallingIdentity call({APP_PID, APP_UID}, Vex::IPCSkeleton::GetSelfIdentity());
        process_->DispatchRequest(data, reply, option, IPCContext{APP_PID, APP_UID});
        int32_t result = reply.ReadInt32();
        return {result, reply.ReadUint32()};
    }

    // Request code 1 sent by the application to the framework service.
    std::pair<int32_t, uint32_t> RequestByService()
    {
        Vex::MessageParcel data;
        WriteServiceHeader(data, REQ_TAKE_PHOTO);
        data.WriteInt32(1);
        Picker()->Marshalling(data);
        data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(app_.GetRefPtr()));
        Vex::MessageParcel reply;
        EXPECT_EQ(SendAsApp(data, reply), Vex::ERR_NONE);
        int32_t result = reply.ReadInt32();
        return {result, reply.ReadUint32()};
    }

    // Request code 4 sent by the application to the framework service; the reply's result.
    int32_t CancelByService(uint32_t collaborationId)
    {
        Vex::MessageParcel data;
        WriteServiceHeader(data, REQ_CANCEL);
        data.WriteUint32(collaborationId);
        Vex::MessageParcel reply;
        EXPECT_EQ(SendAsApp(data, reply), Vex::ERR_NONE);
        return reply.ReadInt32();
    }

    // A collaboration whose command went out: the control session is open and the wait for
    // the peer's first answer is in place.
    Collaboration Start(bool throughService = false)
    {
        Collaboration collaboration;
        auto [result, id] = throughService ? RequestByService() : RequestByDispatch();
        EXPECT_EQ(result, 0);
        collaboration.id = id;
        const std::string name = IdText(id) + "-" + peer_.networkId;
        EXPECT_TRUE(device_.Peer().AwaitCondition([&]() { return device_.Peer().SessionIdByName(name) != -1; }));
        collaboration.sessionId = device_.Peer().SessionIdByName(name);
        EXPECT_TRUE(Vex::Clock::AwaitWaiters(1));
        EXPECT_EQ(process_->QuerySessionId(id), collaboration.sessionId);
        return collaboration;
    }

    // The peer's message on the control session or on a data channel, handled by the device.
    void PeerSends(const Collaboration& collaboration, std::string bytes, bool onDataChannel = false)
    {
        Testing::ScriptedPeer& peer = device_.Peer();
        uint64_t ticket = onDataChannel ? peer.SendOnDataChannel(collaboration.sessionId, std::move(bytes))
                                        : peer.SendOnSession(collaboration.sessionId, std::move(bytes));
        ASSERT_TRUE(peer.AwaitDelivered(ticket));
    }

    // The photo-data wait that the photo count starts on the pool is in place. A last photo
    // that overtakes the pool task releases nothing and the task then starts a wait for a
    // collaboration that is over, so flows wait for it before sending their last photo.
    void AwaitPhotoWait() { ASSERT_TRUE(log_.Await("enter, time:10")); }

    // Everything the ending set off has run: pool tasks, scripted actions, death notices.
    void Settle()
    {
        ASSERT_TRUE(device_.Peer().AwaitIdle());
        ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
        ASSERT_TRUE(AsynThreadPool::WaitIdle());
        ASSERT_TRUE(meshline_->WaitForActions());
    }

    // Nothing of the collaboration is registered and no wait of it runs or is kept.
    void ExpectGone(uint32_t collaborationId)
    {
        EXPECT_EQ(process_->QueryCameraProcess(collaborationId), nullptr);
        EXPECT_FALSE(process_->QueryCollaborationId(collaborationId));
        EXPECT_EQ(process_->QuerySessionId(collaborationId), -2);
        EXPECT_EQ(process_->QueryCameraProcess(peer_.networkId), nullptr);
        EXPECT_EQ(Vex::Clock::WaitingCount(), 0u);
        EXPECT_FALSE(process_->SetTimeoutContext(collaborationId, CODE_PHOTO_COUNT));
        EXPECT_FALSE(process_->SetTimeoutContext(collaborationId, CODE_LAST_PHOTO));
    }

    // Nothing keeps the application's callback object: no death recipient, no proxy.
    void ExpectApplicationReleased()
    {
        Vex::wptr<AppCallback> weak(app_);
        app_ = nullptr;
        EXPECT_EQ(weak.promote(), nullptr) << "the application's callback object is still held";
    }

    std::vector<int32_t> PublishedStates()
    {
        std::vector<int32_t> states;
        for (const auto& request : meshline_->Requests(Testing::PUBLISH_SERVICE_STATE)) {
            EXPECT_EQ(request.strings.at(0), peer_.networkId);
            EXPECT_EQ(request.strings.at(1), FRAMEWORK);
            states.push_back(request.ints.empty() ? 0 : request.ints.front());
        }
        return states;
    }

    size_t FreeStatePublications()
    {
        size_t count = 0;
        for (int32_t state : PublishedStates()) {
            count += state == SERVICE_STATE_FREE ? 1 : 0;
        }
        return count;
    }

    size_t Unsubscriptions()
    {
        for (const auto& request : meshline_->Requests(Testing::UNSUBSCRIBE_NOTIFY_DISCONNECT)) {
            EXPECT_EQ(request.strings.at(0), peer_.networkId);
            EXPECT_EQ(request.strings.at(1), FRAMEWORK);
        }
        return meshline_->RequestCount(Testing::UNSUBSCRIBE_NOTIFY_DISCONNECT);
    }

    // The disconnect notice as the connection manager sends it to the subscribed callback.
    Testing::CallbackReply NotifyDisconnected()
    {
        auto subscription = meshline_->WaitForRequest(Testing::SUBSCRIBE_NOTIFY_DISCONNECT);
        EXPECT_TRUE(subscription.has_value());
        if (!subscription.has_value()) {
            return {};
        }
        return meshline_->CallDisconnected(subscription->callback, "", peer_.networkId, "disconnect", 0);
    }

    std::vector<AppCall> EventsFor(uint32_t collaborationId)
    {
        std::vector<AppCall> events;
        for (const AppCall& call : app_->Events()) {
            if (call.collaborationId == collaborationId) {
                events.push_back(call);
            }
        }
        return events;
    }

    LogWaiter log_;
    Testing::TestDevice device_;
    DeviceIdentity peer_ = Testing::TestDevice::PeerIdentity();
    std::shared_ptr<CountingEnv> env_;
    Vex::sptr<Testing::ScriptedMeshlineService> meshline_;
    CameraAbilityProcess* process_ = nullptr;
    Vex::sptr<AppCallback> app_;

private:
    static void WriteServiceHeader(Vex::MessageParcel& data, uint32_t request)
    {
        data.WriteInterfaceToken(HostServiceStub::GetDescriptor());
        data.WriteUint32(SERVICE_TYPE_COLLABORATION_TO_DEVICE);
        for (uint32_t value : {request, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
    }

    int32_t SendAsApp(Vex::MessageParcel& data, Vex::MessageParcel& reply)
    {
        Vex::MessageOption option;
        Vex::ScopedIdentity asApp(APP_PID, APP_UID);
        return service_->SendRequest(COLLABORATION_TO_DEVICE_CODE, data, reply, option);
    }

    Vex::sptr<HostServiceStub> service_ = new HostServiceStub();
};

}  // namespace CancelTesting
}  // namespace Tandra
}  // namespace QUEX
