// In-process IPC: proxies through iface_cast, caller identity, one-way requests, death notices,
// system abilities and the bundle manager.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "ability_manager_client.h"
#include "bundle_mgr.h"
#include "ipc_skeleton.h"
#include "iremote_broker.h"
#include "iremote_proxy.h"
#include "iremote_stub.h"
#include "process_registry.h"
#include "system_ability_manager.h"

namespace Vex {
namespace {

constexpr auto TIMEOUT = std::chrono::seconds(10);

class ITestService : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"test.ITestService");
    enum : uint32_t { ECHO = 1 };
    virtual int32_t Echo(int32_t value) = 0;
};

class TestProxy : public IRemoteProxy<ITestService> {
public:
    explicit TestProxy(const sptr<IRemoteObject>& object) : IRemoteProxy<ITestService>(object) {}
    int32_t Echo(int32_t value) override
    {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInterfaceToken(GetDescriptor());
        data.WriteInt32(value);
        int32_t result = Remote()->SendRequest(ECHO, data, reply, option);
        return result != ERR_NONE ? result : reply.ReadInt32();
    }
};

// An interface whose proxy nobody registers.
class IUnregistered : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(u"test.IUnregistered");
};

BrokerDelegator<TestProxy> g_testDelegator;
BrokerDelegator<AppExecFwk::BundleMgrProxy> g_bundleDelegator;

struct RequestSeen {
    Identity calling;
    Identity self;
    std::thread::id thread;
    int32_t value;
};

class TestStub : public IRemoteStub<ITestService> {
public:
    int32_t Echo(int32_t value) override { return value + 1; }
    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (code != ECHO) {
            return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
        }
        if (data.ReadInterfaceToken() != GetDescriptor()) {
            return ERR_INVALID_DATA;
        }
        int32_t value = data.ReadInt32();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            seen_.push_back(RequestSeen{IPCSkeleton::GetCallingIdentity(), IPCSkeleton::GetSelfIdentity(),
                                        std::this_thread::get_id(), value});
        }
        cv_.notify_all();
        reply.WriteInt32(Echo(value));
        return ERR_NONE;
    }
    std::vector<RequestSeen> WaitForRequests(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait_for(lock, TIMEOUT, [&] { return seen_.size() >= count; });
        return seen_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<RequestSeen> seen_;
};

class CountingRecipient : public IRemoteObject::DeathRecipient {
public:
    explicit CountingRecipient(std::function<void(const wptr<IRemoteObject>&)> hook = nullptr) : hook_(std::move(hook))
    {
    }
    void OnRemoteDied(const wptr<IRemoteObject>& object) override
    {
        if (hook_) {
            hook_(object);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ++calls_;
        thread_ = std::this_thread::get_id();
        object_ = object.GetRefPtr();
    }
    int Calls() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    std::thread::id Thread() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return thread_;
    }
    IRemoteObject* Object() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return object_;
    }

private:
    std::function<void(const wptr<IRemoteObject>&)> hook_;
    mutable std::mutex mutex_;
    int calls_ = 0;
    std::thread::id thread_;
    IRemoteObject* object_ = nullptr;
};

// Revives the pid first, so that tests also pass when repeated in one process.
sptr<TestStub> MakeStubOwnedBy(int32_t pid, int32_t uid)
{
    if (ProcessRegistry::Get().IsDead(pid) && pid != 5001) {
        ProcessRegistry::Get().Revive(pid);
    }
    ScopedIdentity owner(pid, uid);
    return new TestStub();
}

TEST(IfaceCastTest, BuildsTheRegisteredProxyAroundALocalStub)
{
    sptr<TestStub> stub = new TestStub();
    sptr<ITestService> service = iface_cast<ITestService>(stub->AsObject());
    ASSERT_NE(service, nullptr);
    EXPECT_NE(dynamic_cast<TestProxy*>(service.GetRefPtr()), nullptr);  // parcels, not a shortcut
    EXPECT_EQ(service->AsObject(), stub->AsObject());
    EXPECT_EQ(service->Echo(41), 42);
    EXPECT_EQ(stub->WaitForRequests(1).size(), 1u);
}

struct CastCase {
    const char* name;
    std::function<sptr<IRemoteObject>()> object;
};

void PrintTo(const CastCase& c, std::ostream* os)
{
    *os << c.name;
}

class IfaceCastRefusalTest : public testing::TestWithParam<CastCase> {};

TEST_P(IfaceCastRefusalTest, GivesNull)
{
    sptr<IRemoteObject> object = GetParam().object();
    EXPECT_EQ(iface_cast<ITestService>(object), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Objects, IfaceCastRefusalTest,
    testing::Values(
        CastCase{"Null", [] { return sptr<IRemoteObject>(); }},
        CastCase{"OtherDescriptor", [] { return sptr<IRemoteObject>(new IPCObjectStub(u"test.IOther")); }},
        CastCase{"DescriptorPrefix", [] { return sptr<IRemoteObject>(new IPCObjectStub(u"test.ITestServic")); }},
        CastCase{"DescriptorLonger", [] { return sptr<IRemoteObject>(new IPCObjectStub(u"test.ITestService2")); }},
        CastCase{"NoDescriptor", [] { return sptr<IRemoteObject>(new IPCObjectStub()); }}),
    [](const testing::TestParamInfo<CastCase>& info) { return std::string(info.param.name); });

TEST(IfaceCastTest, InterfaceWithoutRegisteredProxyGivesNull)
{
    sptr<IRemoteObject> object = new IPCObjectStub(IUnregistered::GetDescriptor());
    EXPECT_EQ(iface_cast<IUnregistered>(object), nullptr);
}

TEST(BrokerRegistrationTest, FirstRegistrationWinsAndOnlyItsOwnerRemovesIt)
{
    auto creator = [](const sptr<IRemoteObject>&) -> sptr<IRemoteBroker> { return nullptr; };
    int owner = 0;
    int other = 0;
    EXPECT_FALSE(BrokerRegistration::Get().Register(ITestService::GetDescriptor(), creator, &owner));
    BrokerRegistration::Get().Unregister(ITestService::GetDescriptor(), &other);
    sptr<TestStub> stub = new TestStub();
    EXPECT_NE(iface_cast<ITestService>(stub->AsObject()), nullptr);
    EXPECT_TRUE(BrokerRegistration::Get().Register(u"test.Fresh", creator, &owner));
    BrokerRegistration::Get().Unregister(u"test.Fresh", &owner);
    EXPECT_TRUE(BrokerRegistration::Get().Register(u"test.Fresh", creator, &other));
}

TEST(IdentityTest, SyncRequestRunsOnCallersThreadAsTheOwnerWithTheCallerVisible)
{
    sptr<TestStub> stub = MakeStubOwnedBy(1001, 2001);
    EXPECT_EQ(stub->GetOwnerPid(), 1001);
    ScopedIdentity app(3001, 4001);
    sptr<ITestService> service = iface_cast<ITestService>(stub->AsObject());
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->Echo(1), 2);
    std::vector<RequestSeen> seen = stub->WaitForRequests(1);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].calling.pid, 3001);
    EXPECT_EQ(seen[0].calling.uid, 4001);
    EXPECT_EQ(seen[0].self.pid, 1001);
    EXPECT_EQ(seen[0].self.uid, 2001);
    EXPECT_EQ(seen[0].thread, std::this_thread::get_id());
    // Outside a request the thread is itself again.
    EXPECT_EQ(IPCSkeleton::GetCallingPid(), 3001);
    EXPECT_EQ(IPCSkeleton::GetSelfUid(), 4001);
}

TEST(IdentityTest, ThreadsStartAsTheRealProcess)
{
    EXPECT_EQ(IPCSkeleton::GetCallingPid(), getpid());
    EXPECT_EQ(IPCSkeleton::GetCallingUid(), static_cast<int32_t>(getuid()));
    {
        ScopedIdentity app(3001, 4001);
        EXPECT_EQ(IPCSkeleton::GetSelfPid(), 3001);
    }
    EXPECT_EQ(IPCSkeleton::GetSelfPid(), getpid());
}

TEST(IdentityTest, OneWayRequestRunsOnAnIpcThreadWithItsOwnCopyOfTheData)
{
    sptr<TestStub> stub = MakeStubOwnedBy(1002, 2002);
    {
        ScopedIdentity app(3002, 4002);
        MessageParcel data;
        MessageParcel reply;
        MessageOption option(MessageOption::TF_ASYNC);
        data.WriteInterfaceToken(ITestService::GetDescriptor());
        data.WriteInt32(77);
        EXPECT_EQ(stub->SendRequest(ITestService::ECHO, data, reply, option), ERR_NONE);
        EXPECT_EQ(reply.GetDataSize(), 0u);
    }  // the caller's parcel is gone before the request may run
    std::vector<RequestSeen> seen = stub->WaitForRequests(1);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].value, 77);
    EXPECT_NE(seen[0].thread, std::this_thread::get_id());
    EXPECT_EQ(seen[0].calling.pid, 3002);
    EXPECT_EQ(seen[0].calling.uid, 4002);
    EXPECT_EQ(seen[0].self.pid, 1002);
}

TEST(DeathTest, DeadOwnerRefusesRequestsAndRecipients)
{
    ProcessRegistry::Get().Revive(5001);
    sptr<TestStub> stub = MakeStubOwnedBy(5001, 1);
    ProcessRegistry::Get().DeclareDead(5001);
    EXPECT_TRUE(ProcessRegistry::Get().IsDead(5001));
    EXPECT_TRUE(stub->IsObjectDead());
    MessageParcel data;
    MessageParcel reply;
    MessageOption sync;
    MessageOption async(MessageOption::TF_ASYNC);
    EXPECT_EQ(stub->SendRequest(ITestService::ECHO, data, reply, sync), ERR_DEAD_OBJECT);
    EXPECT_EQ(stub->SendRequest(ITestService::ECHO, data, reply, async), ERR_DEAD_OBJECT);
    EXPECT_FALSE(stub->AddDeathRecipient(new CountingRecipient()));
    EXPECT_FALSE(stub->AddDeathRecipient(nullptr));

    // A process declared dead owns only dead objects until its pid is reused.
    EXPECT_TRUE(MakeStubOwnedBy(5001, 1)->IsObjectDead());
    ProcessRegistry::Get().Revive(5001);
    EXPECT_FALSE(MakeStubOwnedBy(5001, 1)->IsObjectDead());
    EXPECT_TRUE(stub->IsObjectDead());
}

TEST(DeathTest, RecipientsOfTheDeadProcessFireOnceOnTheNoticeThread)
{
    sptr<TestStub> first = MakeStubOwnedBy(5101, 1);
    sptr<TestStub> second = MakeStubOwnedBy(5101, 1);
    sptr<TestStub> bystander = MakeStubOwnedBy(5102, 1);
    std::atomic<bool> reAddRefused{false};
    sptr<CountingRecipient> onFirst = new CountingRecipient([&](const wptr<IRemoteObject>& object) {
        // Calling back into the object from the notice must not deadlock.
        sptr<IRemoteObject> strong = object.promote();
        reAddRefused = strong != nullptr && !strong->AddDeathRecipient(new CountingRecipient());
    });
    sptr<CountingRecipient> onSecond = new CountingRecipient();
    sptr<CountingRecipient> onBystander = new CountingRecipient();
    ASSERT_TRUE(first->AddDeathRecipient(onFirst));
    ASSERT_TRUE(second->AddDeathRecipient(onSecond));
    ASSERT_TRUE(bystander->AddDeathRecipient(onBystander));

    ProcessRegistry::Get().DeclareDead(5101);
    ProcessRegistry::Get().DeclareDead(5101);
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());

    EXPECT_EQ(onFirst->Calls(), 1);
    EXPECT_EQ(onSecond->Calls(), 1);
    EXPECT_EQ(onBystander->Calls(), 0);
    EXPECT_NE(onFirst->Thread(), std::this_thread::get_id());
    EXPECT_EQ(onFirst->Object(), static_cast<IRemoteObject*>(first.GetRefPtr()));
    EXPECT_TRUE(reAddRefused);
    EXPECT_FALSE(first->RemoveDeathRecipient(onFirst));  // delivered: no longer attached
}

TEST(DeathTest, RemovedRecipientIsNeverCalled)
{
    sptr<TestStub> stub = MakeStubOwnedBy(5201, 1);
    sptr<CountingRecipient> removedEarly = new CountingRecipient();
    ASSERT_TRUE(stub->AddDeathRecipient(removedEarly));
    EXPECT_TRUE(stub->RemoveDeathRecipient(removedEarly));
    EXPECT_FALSE(stub->RemoveDeathRecipient(removedEarly));

    // The first notice holds the notice thread while the second recipient is removed: a notice
    // already queued must still honour the removal.
    std::mutex mutex;
    std::condition_variable cv;
    bool entered = false;
    bool release = false;
    sptr<CountingRecipient> blocker = new CountingRecipient([&](const wptr<IRemoteObject>&) {
        std::unique_lock<std::mutex> lock(mutex);
        entered = true;
        cv.notify_all();
        cv.wait_for(lock, TIMEOUT, [&] { return release; });
    });
    sptr<CountingRecipient> removedWhileQueued = new CountingRecipient();
    ASSERT_TRUE(stub->AddDeathRecipient(blocker));
    ASSERT_TRUE(stub->AddDeathRecipient(removedWhileQueued));

    ProcessRegistry::Get().DeclareDead(5201);
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(cv.wait_for(lock, TIMEOUT, [&] { return entered; }));
    }
    EXPECT_TRUE(stub->RemoveDeathRecipient(removedWhileQueued));
    {
        std::lock_guard<std::mutex> lock(mutex);
        release = true;
    }
    cv.notify_all();
    ASSERT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_EQ(blocker->Calls(), 1);
    EXPECT_EQ(removedWhileQueued->Calls(), 0);
    EXPECT_EQ(removedEarly->Calls(), 0);
}

TEST(DeathTest, StubsDestroyedWhileTheirProcessDies)
{
    // Races stub construction and destruction against DeclareDead; the sanitizer builds turn a
    // lifetime or locking fault here into a failure.
    constexpr int32_t PID = 5301;
    constexpr int ROUNDS = 300;
    std::atomic<int> notices{0};
    std::thread churn([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            sptr<TestStub> stub = MakeStubOwnedBy(PID, 1);
            stub->AddDeathRecipient(new CountingRecipient([&](const wptr<IRemoteObject>&) { ++notices; }));
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        ProcessRegistry::Get().DeclareDead(PID);
        ProcessRegistry::Get().Revive(PID);
    }
    churn.join();
    EXPECT_TRUE(ProcessRegistry::Get().WaitForDeathNotices());
    EXPECT_LE(notices.load(), ROUNDS);
}

TEST(SystemAbilityTest, BundleManagerIsRegisteredOnceAndAnswersThroughItsProxy)
{
    sptr<AppExecFwk::BundleMgrService> service = AppExecFwk::BundleMgrService::GetOrRegister();
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(AppExecFwk::BundleMgrService::GetOrRegister(), service);
    EXPECT_EQ(service->GetOwnerPid(), getpid());
    service->SetBundleName(20010001, "com.example.photo");

    sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    ASSERT_NE(manager, nullptr);
    sptr<IRemoteObject> object = manager->GetSystemAbility(BUNDLE_MGR_SERVICE_SYS_ABILITY_ID);
    ASSERT_NE(object, nullptr);
    sptr<AppExecFwk::IBundleMgr> bundles = iface_cast<AppExecFwk::IBundleMgr>(object);
    ASSERT_NE(bundles, nullptr);
    std::string name;
    EXPECT_TRUE(bundles->GetBundleNameForUid(20010001, name));
    EXPECT_EQ(name, "com.example.photo");
    EXPECT_FALSE(bundles->GetBundleNameForUid(20010002, name));
    service->RemoveBundle(20010001);
    EXPECT_FALSE(bundles->GetBundleNameForUid(20010001, name));
}

TEST(SystemAbilityTest, AbilitiesComeAndGoAndDieWithTheirProcess)
{
    sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    ASSERT_NE(manager, nullptr);
    constexpr int32_t SA_ID = 70633;
    EXPECT_EQ(manager->GetSystemAbility(SA_ID), nullptr);
    EXPECT_NE(manager->AddSystemAbility(SA_ID, nullptr), ERR_NONE);
    sptr<TestStub> stub = MakeStubOwnedBy(5401, 1);
    EXPECT_EQ(manager->AddSystemAbility(SA_ID, stub->AsObject()), ERR_NONE);
    EXPECT_EQ(manager->CheckSystemAbility(SA_ID), stub->AsObject());
    ProcessRegistry::Get().DeclareDead(5401);
    EXPECT_EQ(manager->GetSystemAbility(SA_ID), nullptr);

    SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(nullptr);
    EXPECT_EQ(SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager(), nullptr);
    EXPECT_EQ(AppExecFwk::BundleMgrService::GetOrRegister(), nullptr);
    SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(manager);
}

TEST(AbilityManagerClientTest, TopAbilityIsWhatWasLastSet)
{
    auto client = AAFwk::AbilityManagerClient::GetInstance();
    EXPECT_TRUE(client->GetTopAbility().GetBundleName().empty());
    client->SetTopAbility(AppExecFwk::ElementName("dev", "com.example.photo", "MainAbility"));
    EXPECT_EQ(AAFwk::AbilityManagerClient::GetInstance()->GetTopAbility().GetAbilityName(), "MainAbility");
}

}  // namespace
}  // namespace Vex
