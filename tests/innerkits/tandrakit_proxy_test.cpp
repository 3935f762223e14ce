// The service proxy: the request envelope on the wire, the request code of each operation,
// and the cached lookup of system ability 70633.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"
#include "vex_log.h"

namespace QUEX::Tandra::Testing {
namespace {

void AppendUint32(std::vector<uint8_t>& bytes, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

// The parcel layout of a UTF-16 interface token: length in units, the units, a NUL unit,
// zero padding to 4 bytes.
std::vector<uint8_t> TokenBytes(const std::u16string& token)
{
    std::vector<uint8_t> bytes;
    AppendUint32(bytes, static_cast<uint32_t>(token.size()));
    for (char16_t unit : token) {
        bytes.push_back(static_cast<uint8_t>(unit));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    }
    bytes.push_back(0);
    bytes.push_back(0);
    while (bytes.size() % 4 != 0) {
        bytes.push_back(0);
    }
    return bytes;
}

using TandraProxyTest = InnerkitsTest;

TEST_F(TandraProxyTest, MeshlineRequestEnvelopeIsTokenThenFiveUint32)
{
    ScriptedMeshlineService& service = StartService();
    ASSERT_EQ(MeshlineManager::GetInstance().UnSubscribeServiceState(), 0);

    auto request = service.WaitForRequest(UNSUBSCRIBE_SERVICE_STATE);
    ASSERT_TRUE(request.has_value());
    std::vector<uint8_t> expected = TokenBytes(u"quex.ITandra.ITandraService");
    for (uint32_t value : {501u, 9u, 0u, 0u, 0u}) {
        AppendUint32(expected, value);
    }
    EXPECT_EQ(request->bytes, expected);
    EXPECT_EQ(request->code, 501u);
}

TEST_F(TandraProxyTest, EachEventSendsItsRequestCode)
{
    using Event = int32_t (TandraProxy::*)(MessageParcel&, MessageParcel&, MessageOption&);
    const std::vector<std::pair<Event, uint32_t>> events = {
        {&TandraProxy::GetCollaborationServiceEvent, 1},
        {&TandraProxy::CollaborationToDeviceEvent, 101},
        {&TandraProxy::DevicePickerEvent, 201},
        {&TandraProxy::CommonDataChannelEvent, 301},
        {&TandraProxy::SurfaceTransferEvent, 601},
        {&TandraProxy::IConnectDownMessageEvent, 401},
        {&TandraProxy::MeshlineEvent, 501},
    };
    ScriptedMeshlineService& service = StartService();
    sptr<TandraProxy> proxy = TandraProxy::GetInstance();
    ASSERT_NE(proxy, nullptr);
    for (const auto& [event, code] : events) {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        ASSERT_EQ(TandraProxy::BuildCollaborationServiceCode(data, code, 9, 0, 0, 0), 0);
        // The scripted service serves only the Meshline code and refuses the others.
        int32_t expected = code == 501 ? 0 : IpcResult::SEND_REQUEST_FAILED;
        EXPECT_EQ(((*proxy).*event)(data, reply, option), expected) << code;
    }
    auto requests = service.Requests();
    ASSERT_EQ(requests.size(), events.size());
    for (size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(requests[i].code, events[i].second);
    }
}

TEST_F(TandraProxyTest, ProxyWithoutRemoteObjectRefusesToSend)
{
    TandraProxy proxy(nullptr);
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    EXPECT_EQ(proxy.MeshlineEvent(data, reply, option), IpcResult::REMOTE_NULL);
}

// A race cannot be forced from outside; many rounds of two threads that leave a spinning gate
// together make a lost double check show up within a run.
TEST_F(TandraProxyTest, ColdCacheRaceLooksUpOnce)
{
    constexpr int rounds = 500;
    StartService();
    for (int round = 0; round < rounds; ++round) {
        TandraProxy::DestoryInstance();
        int before = saManager_->Lookups();
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        sptr<TandraProxy> proxies[2];
        auto lookUp = [&](int index) {
            ++ready;
            while (!go.load()) {
                std::this_thread::yield();
            }
            proxies[index] = TandraProxy::GetInstance();
        };
        std::thread first(lookUp, 0);
        std::thread second(lookUp, 1);
        while (ready.load() < 2) {
            std::this_thread::yield();
        }
        go = true;
        first.join();
        second.join();
        ASSERT_EQ(saManager_->Lookups(), before + 1) << "round " << round;
        ASSERT_NE(proxies[0], nullptr);
        ASSERT_EQ(proxies[0], proxies[1]);
    }
    EXPECT_EQ(TandraProxy::GetTandraRemoteObject(), sptr<IRemoteObject>(service_.GetRefPtr()));
}

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
    LogCapture log;
    EXPECT_EQ(TandraProxy::GetInstance(), nullptr);
    EXPECT_EQ(TandraProxy::GetTandraRemoteObject(), nullptr);
    EXPECT_TRUE(log.Contains("failed to get TANDRA_SA_ID"));
}

// Nothing is cached on failure: each call goes back to the manager.
TEST_F(TandraProxyTest, FailedLookupsAreNotCached)
{
    struct Case {
        const char* line;
        std::function<void()> arrange;
    };
    sptr<IRemoteObject> stranger = new Vex::IPCObjectStub(u"quex.ITandra.ITandraCallback");
    const Case cases[] = {
        {"failed to get TANDRA_SA_ID", [] {}},
        {"failed to iface cast", [&] { saManager_->AddSystemAbility(TandraProxy::TANDRA_SA_ID, stranger); }},
        {"failed to get system manager",
         [] { SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(nullptr); }},
    };
    for (const Case& c : cases) {
        c.arrange();
        LogCapture log;
        int before = saManager_->Lookups();
        EXPECT_EQ(TandraProxy::GetInstance(), nullptr) << c.line;
        EXPECT_EQ(TandraProxy::GetInstance(), nullptr) << c.line;
        EXPECT_EQ(log.Count(c.line), 2u) << c.line;
        if (std::string(c.line) != "failed to get system manager") {
            EXPECT_EQ(saManager_->Lookups(), before + 2) << c.line;
        }
    }
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
