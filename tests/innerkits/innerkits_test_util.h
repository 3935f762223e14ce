// Shared pieces of the innerkits tests: a system ability manager that counts lookups, a
// callback that records every event it is given, and a fixture that gives each test a fresh
// manager and a cold proxy cache.
// Thread-safety: RecordingCallback and CountingSystemAbilityManager may be used from any
// thread (death notices arrive on the platform's own thread).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "callback_skeleton.h"
#include "meshline_manager.h"
#include "process_registry.h"
#include "scripted_meshline_service.h"
#include "system_ability_manager.h"
#include "tandrakit_proxy.h"

namespace QUEX::Tandra::Testing {

using Vex::ISystemAbilityManager;
using Vex::SystemAbilityManager;
using Vex::SystemAbilityManagerClient;

class CountingSystemAbilityManager : public ISystemAbilityManager {
public:
    explicit CountingSystemAbilityManager(sptr<ISystemAbilityManager> inner) : inner_(std::move(inner)) {}

    sptr<IRemoteObject> GetSystemAbility(int32_t id) override
    {
        ++lookups_;
        return inner_->GetSystemAbility(id);
    }
    sptr<IRemoteObject> CheckSystemAbility(int32_t id) override
    {
        ++lookups_;
        return inner_->CheckSystemAbility(id);
    }
    int32_t AddSystemAbility(int32_t id, const sptr<IRemoteObject>& ability) override
    {
        return inner_->AddSystemAbility(id, ability);
    }
    int32_t RemoveSystemAbility(int32_t id) override { return inner_->RemoveSystemAbility(id); }

    int Lookups() const { return lookups_.load(); }

private:
    sptr<ISystemAbilityManager> inner_;
    std::atomic<int> lookups_{0};
};

// Records every event; the results it returns can be chosen.
class RecordingCallback : public CallbackSkeleton {
public:
    struct Event {
        uint32_t code;
        uint32_t eventId;
        std::string data;
    };
    struct Data {
        uint32_t code;
        uint32_t type;
        uint32_t length;
        char first;
        char last;
    };

    int32_t OnEvent(uint32_t code, uint32_t eventId, std::string& data) override
    {
        Record([&] { events_.push_back({code, eventId, data}); });
        return result_;
    }
    int32_t OnDataCallback(uint32_t code, uint32_t type, uint32_t length, std::unique_ptr<char[]> bytes) override
    {
        char first = length > 0 ? bytes[0] : 0;
        char last = length > 0 ? bytes[length - 1] : 0;
        Record([&] { data_.push_back({code, type, length, first, last}); });
        return result_;
    }
    int32_t DisconnectDevice(std::string deviceId, uint32_t serviceType) override
    {
        Record([&] { calls_.push_back("DisconnectDevice " + deviceId + " " + std::to_string(serviceType)); });
        return result_;
    }
    int32_t StateNotify(int32_t state, std::vector<uint32_t> ids, std::vector<sptr<ServiceStateInfo>> infos) override
    {
        std::string text = "StateNotify " + std::to_string(state);
        for (uint32_t id : ids) {
            text += " id" + std::to_string(id);
        }
        for (const auto& info : infos) {
            text += " " + info->GetDeviceId() + ":" + std::to_string(info->GetLinkType()) + ":" +
                    std::to_string(info->GetConnectState());
        }
        Record([&] { calls_.push_back(text); });
        return result_;
    }
    int32_t OnServiceStateChanged(std::string first, std::string second, std::string third, int32_t state,
                                  int32_t value) override
    {
        Record([&] {
            calls_.push_back("OnServiceStateChanged " + first + "|" + second + "|" + third + "|" +
                             std::to_string(state) + "|" + std::to_string(value));
        });
        return result_;
    }
    int32_t OnDisconnected(std::string first, int32_t value) override
    {
        Record([&] { calls_.push_back("OnDisconnected " + first + "|" + std::to_string(value)); });
        return result_;
    }
    int32_t OnDisconnected(std::string second, std::string third) override
    {
        Record([&] { calls_.push_back("OnDisconnected " + second + "|" + third); });
        return result_;
    }
    int32_t ApplyResult(std::string first, std::string second, std::string third, int32_t value,
                        int32_t resultCode) override
    {
        Record([&] {
            calls_.push_back("ApplyResult " + first + "|" + second + "|" + third + "|" + std::to_string(value) + "|" +
                             std::to_string(resultCode));
        });
        return result_;
    }
    void OnCollaborationAbilityState(int32_t state) override
    {
        Record([&] { calls_.push_back("AbilityState " + std::to_string(state)); });
    }
    void OnCollaborationAbilityData(int32_t type, const uint8_t* buffer, uint32_t length) override
    {
        std::string bytes(reinterpret_cast<const char*>(buffer), length);
        Record([&] { calls_.push_back("AbilityData " + std::to_string(type) + " " + bytes); });
    }

    std::vector<std::string> Calls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    std::vector<Event> Events()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    std::vector<Data> DataCalls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return data_;
    }
    // Waits (real time) until count events arrived.
    bool WaitForEvents(size_t count, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000))
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
    }

    // What every event answers.
    void SetResult(int32_t result) { result_ = result; }

private:
    void Record(const std::function<void()>& append)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            append();
        }
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    std::vector<Event> events_;
    std::vector<Data> data_;
    std::atomic<int32_t> result_{0};
};

constexpr int32_t SERVICE_PID = 4100;
constexpr int32_t SECOND_SERVICE_PID = 4200;
constexpr int32_t SERVICE_UID = 5100;

// A fresh, counting system ability manager and a cold proxy cache for every test.
class InnerkitsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        saManager_ = new CountingSystemAbilityManager(new SystemAbilityManager());
        SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(saManager_);
        TandraProxy::DestoryInstance();
    }
    void TearDown() override
    {
        Vex::ProcessRegistry::Get().WaitForDeathNotices();
        MeshlineManager::GetInstance().DestroyMeshlineManagerInstance();
        TandraProxy::DestoryInstance();
        if (service_ != nullptr) {
            service_->Unregister();
        }
        // Lets the whole binary run in one process too.
        Vex::ProcessRegistry::Get().Revive(SERVICE_PID);
        Vex::ProcessRegistry::Get().Revive(SECOND_SERVICE_PID);
    }
    // A registered scripted service owned by its own process.
    ScriptedMeshlineService& StartService(int32_t pid = SERVICE_PID)
    {
        service_ = ScriptedMeshlineService::Create(pid, SERVICE_UID);
        EXPECT_TRUE(service_->Register());
        return *service_;
    }

    sptr<CountingSystemAbilityManager> saManager_;
    sptr<ScriptedMeshlineService> service_;
};

}  // namespace QUEX::Tandra::Testing
