// The host's small services as the plugin relies on them: session keys, collaboration ids,
// the callback envelope, record parcels, ability lookups, the launcher, env wrapping.
#include <gtest/gtest.h>

#include <set>

#include "ability_manager.h"
#include "callback_skeleton_proxy.h"
#include "collaboration_records.h"
#include "device_context.h"
#include "dfx_helper.h"
#include "host_types.h"
#include "listener_manager.h"
#include "soft_bus_adapter.h"
#include "start_ability_adapter.h"
#include "tandra_service_utils.h"
#include "test_device.h"

namespace QUEX {
namespace Tandra {
namespace {

using namespace std::chrono_literals;
using Testing::TestDevice;

std::string SessionName(uint32_t id, const std::string& networkId)
{
    char text[12] = {};
    snprintf(text, sizeof(text), "%011u", id);
    return std::string(text) + "-" + networkId;
}

TEST(FetchCollaborationIdTest, SessionNamesRoundTrip)
{
    auto manager = ListenerManager::GetInstance();
    for (uint32_t id : {1u, 7u, 123456789u, UINT32_MAX}) {
        EXPECT_EQ(manager->FetchCollaborationId(SessionName(id, "PEERNETWORKID0001")), std::make_pair(HOST_OK, id))
            << id;
    }
    EXPECT_EQ(manager->FetchCollaborationId("00000000007-"), std::make_pair(HOST_OK, 7u));
}

TEST(FetchCollaborationIdTest, MalformedKeysAreRefused)
{
    auto manager = ListenerManager::GetInstance();
    for (const char* key :
         {"", "7-net", "0000000007-net", "00000000007net", "0000000000x-net", "04294967296-net", "-0000000007-net"}) {
        EXPECT_EQ(manager->FetchCollaborationId(key), std::make_pair(HOST_ERR_INVALID_PARAM, 0u)) << key;
    }
}

TEST(CollaborationIdTest, IdsAreNonZeroAndUniqueWhileInUse)
{
    std::set<uint32_t> inUse;
    for (int i = 0; i < 1000; ++i) {
        uint32_t id = TandraServiceUtils::ObtainIdleCollaborationId();
        EXPECT_NE(id, 0u);
        EXPECT_TRUE(inUse.insert(id).second) << id;
    }
    for (auto it = inUse.begin(); it != inUse.end();) {  // end every other collaboration
        TandraServiceUtils::ReleaseCollaborationId(*it);
        it = inUse.erase(it);
        if (it != inUse.end()) {
            ++it;
        }
    }
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(inUse.insert(TandraServiceUtils::ObtainIdleCollaborationId()).second);
    }
}

TEST(DfxHelperTest, AnonymousIdsAndHexText)
{
    const std::pair<const char*, const char*> ids[] = {
        {"", "**"}, {"abcdefgh", "**"}, {"abcdefghi", "abcd**fghi"}, {"PEERNETWORKID0001", "PEER**0001"}};
    for (const auto& [id, shown] : ids) {
        EXPECT_EQ(DfxHelper::GetAnonymousID(id), shown) << id;
    }
    EXPECT_EQ(TandraServiceUtils::ConvertHexToString(0), "0");
    EXPECT_EQ(TandraServiceUtils::ConvertHexToString(14), "e");
    EXPECT_EQ(TandraServiceUtils::ConvertHexToString(0xABCDEF12), "abcdef12");
}

// An application's callback object that keeps the last request.
class CallbackStub : public Vex::IPCObjectStub {
public:
    CallbackStub() : Vex::IPCObjectStub(ICollaborationCallback::GetDescriptor()) {}
    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption&) override
    {
        lastCode = code;
        token = data.ReadInterfaceToken();
        for (uint32_t& value : envelope) {
            value = data.ReadUint32();
        }
        eventCode = data.ReadUint32();
        collaborationId = data.ReadUint32();
        text = data.ReadString();
        reply.WriteInt32(0);
        return Vex::ERR_NONE;
    }
    uint32_t lastCode = 0;
    std::u16string token;
    uint32_t envelope[5] = {};
    uint32_t eventCode = 0;
    uint32_t collaborationId = 0;
    std::string text;
};

TEST(CallbackSkeletonProxyTest, EnvelopeDecodesFieldByField)
{
    Vex::sptr<CallbackStub> stub = new CallbackStub();
    Vex::sptr<ICollaborationCallback> callback =
        Vex::iface_cast<ICollaborationCallback>(Vex::sptr<Vex::IRemoteObject>(stub));
    ASSERT_NE(callback, nullptr);

    Vex::MessageParcel data;
    int32_t code = CallbackSkeletonProxy::BuildCollaborationCallbackCode(data, 101, 104, 1, 2, 3);
    ASSERT_EQ(code, 101);
    data.WriteUint32(1001202006);
    data.WriteUint32(7);
    data.WriteString("3");
    Vex::MessageParcel reply;
    Vex::MessageOption option;
    ASSERT_EQ(callback->SendRequest(static_cast<uint32_t>(code), data, reply, option), Vex::ERR_NONE);

    EXPECT_EQ(stub->lastCode, 101u);
    EXPECT_EQ(stub->token, u"quex.ITandra.ITandraCallback");
    EXPECT_EQ(std::vector<uint32_t>(stub->envelope, stub->envelope + 5), (std::vector<uint32_t>{101, 104, 1, 2, 3}));
    EXPECT_EQ(stub->eventCode, 1001202006u);
    EXPECT_EQ(stub->collaborationId, 7u);
    EXPECT_EQ(stub->text, "3");
    EXPECT_EQ(reply.ReadInt32(), 0);
}

TEST(CallbackSkeletonProxyTest, EnvelopeWriteFailureIsReported)
{
    Vex::MessageParcel data;
    data.SetMaxCapacity(8);
    EXPECT_EQ(CallbackSkeletonProxy::BuildCollaborationCallbackCode(data, 102, 105, 0, 0, 0), -1);
}

TEST(RecordsTest, PickerResultRoundTripsWithAllOrSomeMembers)
{
    Vex::sptr<AbilityFilter> filter = new AbilityFilter("camera", "com.example.cam", "MainAbility");
    Vex::sptr<DeviceInfo> device = new DeviceInfo("PEERNET", "PEERUDID", "tablet", 0x11);
    Vex::sptr<LocalInfo> local = new LocalInfo("com.example.photo", "PhotoAbility", "entry", "LOCALNET", 0x0E);
    for (bool withDevice : {true, false}) {
        PickerResult original(filter, withDevice ? device : nullptr, local);
        Vex::Parcel parcel;
        ASSERT_TRUE(original.Marshalling(parcel));
        Vex::sptr<PickerResult> copy = PickerResult::Unmarshalling(parcel);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(parcel.GetReadableBytes(), 0u);
        EXPECT_EQ(copy->GetAbilityFilter()->GetAbilityType(), "camera");
        EXPECT_EQ(copy->GetAbilityFilter()->GetBundleName(), "com.example.cam");
        EXPECT_EQ(copy->GetAbilityFilter()->GetAbilityName(), "MainAbility");
        ASSERT_EQ(copy->GetDeviceInfo() != nullptr, withDevice);
        if (withDevice) {
            EXPECT_EQ(copy->GetDeviceInfo()->GetDeviceNetworkId(), "PEERNET");
            EXPECT_EQ(copy->GetDeviceInfo()->GetDeviceUdid(), "PEERUDID");
            EXPECT_EQ(copy->GetDeviceInfo()->GetDeviceName(), "tablet");
            EXPECT_EQ(copy->GetDeviceInfo()->GetDeviceType(), 0x11u);
        }
        EXPECT_EQ(copy->GetLocalDeviceInfo()->GetLocalBundleName(), "com.example.photo");
        EXPECT_EQ(copy->GetLocalDeviceInfo()->GetLocalAbilityName(), "PhotoAbility");
        EXPECT_EQ(copy->GetLocalDeviceInfo()->GetLocalModuleName(), "entry");
        EXPECT_EQ(copy->GetLocalDeviceInfo()->GetLocalDeviceId(), "LOCALNET");
        EXPECT_EQ(copy->GetLocalDeviceInfo()->GetLocalDeviceType(), 0x0Eu);
    }
}

TEST(RecordsTest, DeviceInfoLayoutIsFixed)
{
    Vex::Parcel parcel;
    parcel.WriteString("NET");
    parcel.WriteString("UDID");
    parcel.WriteString("name");
    parcel.WriteUint32(0x0E);
    Vex::sptr<DeviceInfo> info = DeviceInfo::Unmarshalling(parcel);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->GetDeviceNetworkId(), "NET");
    EXPECT_EQ(info->GetDeviceType(), 0x0Eu);
}

TEST(RecordsTest, TruncatedParcelsYieldNoRecord)
{
    PickerResult original(new AbilityFilter("camera"), new DeviceInfo("N", "U", "D", 1),
                          new LocalInfo("b", "a", "m", "d", 2));
    Vex::Parcel full;
    ASSERT_TRUE(original.Marshalling(full));
    for (size_t cut = 0; cut < full.GetDataSize(); cut += 4) {
        Vex::Parcel truncated;
        truncated.WriteBuffer(full.GetData(), cut);
        EXPECT_EQ(Vex::sptr<PickerResult>(PickerResult::Unmarshalling(truncated)), nullptr) << cut;
    }
}

class DeviceServicesTest : public ::testing::Test {
protected:
    AbilityInfo Ability(const std::string& bundle, const std::string& name, const std::string& type)
    {
        return AbilityInfo{bundle, name, "entry", "", type};
    }
    TestDevice device_;
};

TEST_F(DeviceServicesTest, AbilityLookups)
{
    device_.AddPeerDevice(TestDevice::PeerIdentity(),
                          {Ability("com.peer.gallery", "Main", "gallery"), Ability("com.peer.cam", "Main", "camera"),
                           Ability("com.peer.cam2", "Main", "camera")});
    auto manager = AbilityManager::GetInstance();
    const std::string udid = TestDevice::PeerIdentity().udid;
    auto found = manager->GetRemoteAbilityByAbilityFilter(udid, new AbilityFilter("camera"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->bundleName, "com.peer.cam");
    found = manager->GetRemoteAbilityByAbilityFilter(udid, new AbilityFilter("camera", "com.peer.cam2"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->bundleName, "com.peer.cam2");
    EXPECT_EQ(manager->GetRemoteAbilityByAbilityFilter(udid, new AbilityFilter("camera", "", "Other")), nullptr);
    EXPECT_EQ(manager->GetRemoteAbilityByAbilityFilter("OTHERUDID", new AbilityFilter("camera")), nullptr);

    device_.AddLocalAbility(Ability("com.b", "Z", "camera"));
    device_.AddLocalAbility(Ability("com.a", "Y", "camera"));
    device_.AddLocalAbility(Ability("com.b", "A", "camera"));
    device_.AddLocalAbility(Ability("com.a", "X", "gallery"));
    std::vector<std::string> order;
    for (const AbilityInfo& ability : manager->GetLocalAbilitiesWithAbilityType("camera")) {
        order.push_back(ability.bundleName + "/" + ability.abilityName);
    }
    EXPECT_EQ(order, (std::vector<std::string>{"com.a/Y", "com.b/A", "com.b/Z"}));
}

TEST_F(DeviceServicesTest, BundleManagerNamesTheCallersBundle)
{
    device_.SetBundleName(20010001, "com.example.photo");
    auto bms = AbilityManager::GetInstance()->GetBundleMgr();
    ASSERT_NE(bms, nullptr);
    std::string bundle;
    EXPECT_TRUE(bms->GetBundleNameForUid(20010001, bundle));
    EXPECT_EQ(bundle, "com.example.photo");
    EXPECT_FALSE(bms->GetBundleNameForUid(20010002, bundle));
}

TEST_F(DeviceServicesTest, LauncherRecordsStartsAndCanHoldThem)
{
    auto param = std::make_shared<StartAbilityParam>();
    param->bundleName = "com.example.camera";
    EXPECT_EQ(StartAbilityAdapter::StartAbility(5, param), HOST_OK);
    device_.Launcher().SetResult(HOST_ERR_START_ABILITY);
    device_.Launcher().Block();
    int32_t heldResult = -1;
    std::thread starter([&] { heldResult = StartAbilityAdapter::StartAbility(6, param); });
    ASSERT_TRUE(device_.Launcher().AwaitStarts(2));
    EXPECT_EQ(device_.Launcher().BlockedCount(), 1u);
    device_.Launcher().Unblock();
    starter.join();
    EXPECT_EQ(heldResult, HOST_ERR_START_ABILITY);
    auto starts = device_.Launcher().Starts();
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(starts[1].collaborationSessionId, 6);
    EXPECT_EQ(starts[1].param.bundleName, "com.example.camera");
    EXPECT_EQ(StartAbilityAdapter::StartAbility(7, nullptr), HOST_ERR_INVALID_PARAM);
}

TEST_F(DeviceServicesTest, AWrapperOverridesOneOperationAndForwardsTheRest)
{
    class NoWifi : public DeviceEnvWrapper {
    public:
        using DeviceEnvWrapper::DeviceEnvWrapper;
        bool IsWifiActive() override { return false; }
    };
    auto previous = DeviceContext::Get().InstallEnv(std::make_shared<NoWifi>(device_.EnvPtr()));
    EXPECT_FALSE(SoftBusAdapter::IsWifiActive());
    EXPECT_EQ(TandraServiceUtils::GetLocalNetworkId(), TestDevice::DefaultIdentity().networkId);
    EXPECT_EQ(TandraServiceUtils::GetLocalDeviceType(), 0x0Eu);
    DeviceContext::Get().InstallEnv(previous);
    EXPECT_TRUE(SoftBusAdapter::IsWifiActive());
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
