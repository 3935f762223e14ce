// The service proxy: the request envelope on the wire, the cached lookup of system ability 70633, and the service's
// death reaching the one death recipient and dropping the cache.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"

namespace QUEX::Tandra::Testing {
namespace {

void AppendUint32(std::vector<uint8_t>& bytes, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

using TandraProxyTest = InnerkitsTest;

// The token is its length in UTF-16 units, the units, a NUL unit and zero padding to 4 bytes;
// then service type, operation and three zero codes.
TEST_F(TandraProxyTest, MeshlineRequestEnvelopeIsTokenThenFiveUint32)
{
    ScriptedMeshlineService& service = StartService();
    ASSERT_EQ(MeshlineManager::GetInstance().UnSubscribeServiceState(), 0);

    auto request = service.WaitForRequest(UNSUBSCRIBE_SERVICE_STATE);
    ASSERT_TRUE(request.has_value());
    const std::u16string token = u"quex.ITandra.ITandraService";
    std::vector<uint8_t> expected;
    AppendUint32(expected, static_cast<uint32_t>(token.size()));
    for (char16_t unit : token + u'\0') {
        expected.push_back(static_cast<uint8_t>(unit));
        expected.push_back(static_cast<uint8_t>(unit >> 8));
    }
    expected.resize((expected.size() + 3) / 4 * 4, 0);
    for (uint32_t value : {501u, 9u, 0u, 0u, 0u}) {
        AppendUint32(expected, value);
    }
    EXPECT_EQ(request->bytes, expected);
}

// A race cannot be forced from outside; many rounds of two threads that leave a spinning gate
// together make a lost double check show up within a run.
TEST_F(TandraProxyTest, ColdCacheRaceLooksUpOnce)
{
    StartService();
    for (int round = 0; round < 500; ++round) {
        TandraProxy::DestoryInstance();
        int before = saManager_->Lookups();
        std::atomic<int> ready{0};
        sptr<TandraProxy> proxies[2];
        auto lookUp = [&](int index) {
            ++ready;
            while (ready.load() < 2) {
                std::this_thread::yield();
            }
            proxies[index] = TandraProxy::GetInstance();
        };
        std::thread first(lookUp, 0);
        std::thread second(lookUp, 1);
        first.join();
        second.join();
        ASSERT_EQ(saManager_->Lookups(), before + 1) << "round " << round;
        ASSERT_NE(proxies[0], nullptr);
        ASSERT_EQ(proxies[0], proxies[1]);
    }
    EXPECT_EQ(TandraProxy::GetTandraRemoteObject(), sptr<IRemoteObject>(service_.GetRefPtr()));
}

// The cache holds a found service until DestoryInstance; a failed lookup is never cached.
TEST_F(TandraProxyTest, DestroyedCacheLooksTheServiceUpAnew)
{
    ScriptedMeshlineService& service = StartService();
    sptr<TandraProxy> first = TandraProxy::GetInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(TandraProxy::GetInstance(), first);
    EXPECT_EQ(saManager_->Lookups(), 1);

    TandraProxy::DestoryInstance();
    EXPECT_NE(TandraProxy::GetInstance(), nullptr);
    EXPECT_EQ(saManager_->Lookups(), 2);

    TandraProxy::DestoryInstance();
    service.Unregister();
    EXPECT_EQ(TandraProxy::GetInstance(), nullptr);
    EXPECT_EQ(TandraProxy::GetInstance(), nullptr);
    EXPECT_EQ(saManager_->Lookups(), 4);
    EXPECT_EQ(TandraProxy::GetTandraRemoteObject(), nullptr);

    // Another interface under the id is no service either.
    saManager_->AddSystemAbility(TandraProxy::TANDRA_SA_ID, new Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback"));
    EXPECT_EQ(TandraProxy::GetInstance(), nullptr);
}

void KillService(int32_t pid)
{
    Vex::ProcessRegistry::Get().DeclareDead(pid);
    ASSERT_TRUE(Vex::ProcessRegistry::Get().WaitForDeathNotices());
}

TEST_F(TandraProxyTest, DeathReachesTheCallbackAndDropsTheProxy)
{
    StartService();
    sptr<RecordingCallback> callback = new RecordingCallback();
    ASSERT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("camera", callback), 0);
    ASSERT_EQ(saManager_->Lookups(), 1);

    KillService(SERVICE_PID);
    EXPECT_EQ(callback->Calls(), std::vector<std::string>{"Event 1012|0|camera"});

    // A new service takes the id; the next request finds it instead of the dead one.
    service_->Unregister();
    ScriptedMeshlineService& replacement = StartService(SECOND_SERVICE_PID);
    EXPECT_EQ(MeshlineManager::GetInstance().NotifyAllState(), 0);
    EXPECT_EQ(saManager_->Lookups(), 2);
    EXPECT_EQ(replacement.RequestCount(NOTIFY_ALL_STATE), 1u);

    // And the recipient watches the new service once registered again.
    ASSERT_EQ(MeshlineManager::GetInstance().RegisterServiceDeathRecipient("camera", callback), 0);
    KillService(SECOND_SERVICE_PID);
    EXPECT_EQ(callback->Calls().size(), 2u);
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
