// Shared pieces of the innerkits tests: a system ability manager that counts lookups, a
// callback that records every call it is given as a line of text, and a fixture that gives each
// test a fresh manager and a cold proxy cache.
// Thread-safety: RecordingCallback and CountingSystemAbilityManager may be used from any
// thread (death notices arrive on the platform's own thread).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "callback_skeleton.h"
#include "meshline_manager.h"
#include "process_registry.h"
#include "scripted_meshline_service.h"
#include "system_ability_manager.h"
#include "tandrakit_proxy.h"

namespace QUEX::Tandra::Testing {

using Vex::SystemAbilityManagerClient;

class CountingSystemAbilityManager : public Vex::ISystemAbilityManager {
public:
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
    sptr<Vex::SystemAbilityManager> inner_ = new Vex::SystemAbilityManager();
    std::atomic<int> lookups_{0};
};

// "a|b|c": the arguments of one call, in order.
template <typename... T>
std::string Join(const T&... parts)
{
    std::ostringstream out;
    const char* separator = "";
    ((out << separator << parts, separator = "|"), ...);
    return out.str();
}

// Records every call as "<Operation> <arguments>"; every call answers the chosen result. A death
// notice has reached it once ProcessRegistry::WaitForDeathNotices returns.
class RecordingCallback : public CallbackSkeleton {
public:
    int32_t OnEvent(uint32_t code, uint32_t eventId, std::string& data) override
    {
        return Record("Event " + Join(code, eventId, data));
    }
    int32_t OnDataCallback(uint32_t code, uint32_t type, uint32_t length, std::unique_ptr<char[]> bytes) override
    {
        return Record("Data " +
                      Join(code, type, length, length > 0 ? bytes[0] : '-', length > 0 ? bytes[length - 1] : '-'));
    }
    int32_t DisconnectDevice(std::string deviceId, uint32_t serviceType) override
    {
        return Record("DisconnectDevice " + Join(deviceId, serviceType));
    }
    int32_t OnServiceStateChanged(std::string first, std::string second, std::string third, int32_t state,
                                  int32_t value) override
    {
        return Record("OnServiceStateChanged " + Join(first, second, third, state, value));
    }
    int32_t OnDisconnected(std::string first, int32_t value) override
    {
        return Record("OnDisconnected " + Join(first, value));
    }
    int32_t OnDisconnected(std::string second, std::string third) override
    {
        return Record("OnDisconnected " + Join(second, third));
    }
    int32_t ApplyResult(std::string first, std::string second, std::string third, int32_t value,
                        int32_t resultCode) override
    {
        return Record("ApplyResult " + Join(first, second, third, value, resultCode));
    }

    void OnCollaborationAbilityState(int32_t state) override { Record("AbilityState " + Join(state)); }
    void OnCollaborationAbilityData(int32_t type, const uint8_t* buffer, uint32_t length) override
    {
        Record("AbilityData " +
               Join(type, length, length > 0 ? std::string(reinterpret_cast<const char*>(buffer), length) : "-"));
    }

    std::vector<std::string> Calls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    void SetResult(int32_t result) { result_ = result; }

private:
    int32_t Record(std::string call)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(std::move(call));
        return result_;
    }

    std::mutex mutex_;
    std::vector<std::string> calls_;
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
        saManager_ = new CountingSystemAbilityManager();
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
