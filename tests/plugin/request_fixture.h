// Shared set-up of the take-photo request tests: one requesting device (TestDevice) with a peer
// that has a camera, the scripted connection-manager service, a foreground application with
// its callback object, and the request sent the way the host sends it (DispatchRequest, code 1,
// on the application's calling identity).
// Thread-safety: AppCallback records from any thread; the fixture itself is the test thread's.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "collaboration_records.h"
#include "ipc_skeleton.h"
#include "iremote_stub.h"
#include "scripted_meshline_service.h"
#include "test_device.h"
#include "vex_clock.h"

namespace QUEX {
namespace Tandra {
namespace RequestTesting {

constexpr int32_t APP_PID = 4321;
constexpr int32_t APP_UID = 20010001;
constexpr int32_t MESHLINE_PID = 7001;
constexpr int32_t MESHLINE_UID = 1000;
constexpr int32_t GRANTED = 320001;
constexpr int32_t REFUSED = 320003;
constexpr std::chrono::milliseconds AWAIT{5000};
inline const std::string APP_BUNDLE = "com.example.photo";
inline const std::string TAKE_PHOTO_TYPE = "tandra.CameraAbility.TakePhoto";
inline const std::string FRAMEWORK = "Tandra";

// The application's callback object: records the events the plugin reports.
class AppCallback : public Vex::IPCObjectStub {
public:
    struct Event {
        uint32_t code = 0;
        uint32_t collaborationId = 0;
        std::string message;
    };

    AppCallback() : Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback") {}

    int OnRemoteRequest(uint32_t, Vex::MessageParcel& data, Vex::MessageParcel& reply, Vex::MessageOption&) override
    {
        data.ReadInterfaceToken();
        uint32_t serviceType = data.ReadUint32();
        for (int i = 0; i < 4; ++i) {
            data.ReadUint32();
        }
        if (serviceType == 101) {
            Event event;
            event.code = data.ReadUint32();
            event.collaborationId = data.ReadUint32();
            event.message = data.ReadString();
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(event);
            cv_.notify_all();
        }
        reply.WriteInt32(0);
        return 0;
    }

    std::vector<Event> Events() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

    // The first event with the code, waiting up to timeout (real time).
    bool AwaitEvent(uint32_t code, Event& found, std::chrono::milliseconds timeout = AWAIT)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [&]() {
            for (const auto& event : events_) {
                if (event.code == code) {
                    found = event;
                    return true;
                }
            }
            return false;
        });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Event> events_;
};

inline std::string IdText(uint32_t collaborationId)
{
    char buffer[16];
    std::snprintf(buffer, sizeof(buffer), "%011u", collaborationId);
    return buffer;
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

// A request running on its own thread (one that blocks in a wait). A test that stops early
// must not hang on a request stuck in simulated time, so the destructor lets time run again
// before it waits for the request.
class PendingRequest {
public:
    explicit PendingRequest(std::function<std::pair<int32_t, uint32_t>()> request)
        : future_(std::async(std::launch::async, std::move(request)))
    {
    }
    ~PendingRequest()
    {
        if (future_.valid()) {
            Vex::Clock::UseScaledTime(1000);
            future_.wait();
        }
    }
    PendingRequest(const PendingRequest&) = delete;
    PendingRequest& operator=(const PendingRequest&) = delete;

    bool Done(std::chrono::milliseconds timeout = std::chrono::milliseconds(0))
    {
        return future_.wait_for(timeout) == std::future_status::ready;
    }
    std::pair<int32_t, uint32_t> Get() { return future_.get(); }

private:
    std::future<std::pair<int32_t, uint32_t>> future_;
};

class RequestFixture : public testing::Test {
protected:
    void SetUp() override
    {
        Vex::Clock::UseScaledTime(1000);
        device_.AddPeerDevice(peer_, {PeerCamera()});
        device_.SetForegroundApp(APP_BUNDLE);
        device_.SetBundleName(APP_UID, APP_BUNDLE);
        meshline_ = Testing::ScriptedMeshlineService::Create(MESHLINE_PID, MESHLINE_UID);
        ASSERT_TRUE(meshline_->Register());
        process_ = CameraAbilityProcess::GetInstance();
        ASSERT_NE(process_, nullptr);
        Vex::ScopedIdentity asApp(APP_PID, APP_UID);
        app_ = new AppCallback();
    }

    void TearDown() override
    {
        // Let the request's worker finish its waits while the backends still exist.
        Vex::Clock::UseScaledTime(1000);
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        meshline_->Unregister();
    }

    Vex::sptr<PickerResult> Picker(bool withFilter = true, bool withDevice = true, bool withLocal = true)
    {
        DeviceIdentity local = device_.Identity();
        Vex::sptr<AbilityFilter> filter = withFilter ? new AbilityFilter(TAKE_PHOTO_TYPE) : nullptr;
        Vex::sptr<DeviceInfo> device =
            withDevice ? new DeviceInfo(peer_.networkId, peer_.udid, peer_.deviceName, peer_.deviceType) : nullptr;
        Vex::sptr<LocalInfo> localInfo =
            withLocal ? new LocalInfo(APP_BUNDLE, "MainAbility", "entry", local.udid, local.deviceType) : nullptr;
        return new PickerResult(filter, device, localInfo);
    }

    // Sends request code 1 as the application; the reply's (result, collaboration id).
    std::pair<int32_t, uint32_t> Request(const Vex::sptr<PickerResult>& picker)
    {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        Vex::MessageOption option;
        for (uint32_t value : {1u, 0u, 0u, 0u}) {
            data.WriteUint32(value);
        }
        data.WriteInt32(picker != nullptr ? 1 : 0);
        if (picker != nullptr) {
            picker->Marshalling(data);
        }
        data.WriteRemoteObject(app_);
        Vex::ScopedCallingIdentity call({APP_PID, APP_UID}, Vex::IPCSkeleton::GetSelfIdentity());
        int32_t ret = process_->DispatchRequest(data, reply, option, IPCContext{APP_PID, APP_UID});
        int32_t result = reply.ReadInt32();
        uint32_t collaborationId = reply.ReadUint32();
        EXPECT_EQ(ret, result);
        return {result, collaborationId};
    }

    std::pair<int32_t, uint32_t> Request() { return Request(Picker()); }

    // The service-state publications so far, in order.
    std::vector<int32_t> PublishedStates()
    {
        std::vector<int32_t> states;
        for (const auto& request : meshline_->Requests(Testing::PUBLISH_SERVICE_STATE)) {
            if (!request.ints.empty()) {
                states.push_back(request.ints.front());
            }
        }
        return states;
    }

    Testing::TestDevice device_;
    DeviceIdentity peer_ = Testing::TestDevice::PeerIdentity();
    Vex::sptr<Testing::ScriptedMeshlineService> meshline_;
    CameraAbilityProcess* process_ = nullptr;
    Vex::sptr<AppCallback> app_;
};

}  // namespace RequestTesting
}  // namespace Tandra
}  // namespace QUEX
