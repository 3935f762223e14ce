// The singleton's registries: inserts never overwrite, lookups answer with the documented
// sentinels, and collaboration ids are read back from session names strictly.
#include <gtest/gtest.h>

#include <memory>

#include "camera_ability_process.h"

namespace QUEX {
namespace Tandra {
namespace {

CameraAbilityProcess& Process()
{
    return *CameraAbilityProcess::GetInstance();
}

std::shared_ptr<CameraProcessState> NewState(uint32_t id, const std::string& networkId)
{
    return std::make_shared<CameraProcessState>(id, networkId, nullptr);
}

TEST(SpineRegistryTest, SecondInsertKeepsTheFirstValue)
{
    auto first = NewState(501, "NET-A");
    EXPECT_TRUE(Process().AddCameraProcess(501, first));
    EXPECT_FALSE(Process().AddCameraProcess(501, NewState(501, "NET-B")));
    EXPECT_EQ(Process().QueryCameraProcess(501), first);

    EXPECT_TRUE(Process().AddSessionId(501, 11));
    EXPECT_FALSE(Process().AddSessionId(501, 12));
    EXPECT_EQ(Process().QuerySessionId(501), 11);

    auto info = std::make_shared<CurrentApplyDeviceInfo>();
    EXPECT_TRUE(Process().AddCurrentInfo("NET-A", info));
    EXPECT_FALSE(Process().AddCurrentInfo("NET-A", std::make_shared<CurrentApplyDeviceInfo>()));
    EXPECT_EQ(Process().QueryCurrentInfoByNetworkId("NET-A"), info);

    auto context = std::make_shared<PutPhotoContext>(21);
    EXPECT_TRUE(Process().AddPutPhotoContext(21, context));
    EXPECT_FALSE(Process().AddPutPhotoContext(21, std::make_shared<PutPhotoContext>(21)));
    EXPECT_EQ(Process().QueryPutPhotoContext(21), context);
}

TEST(SpineRegistryTest, ErasedEntriesAreGoneAndErasingTwiceReportsNothing)
{
    ASSERT_TRUE(Process().AddCameraProcess(601, NewState(601, "NET-C")));
    ASSERT_TRUE(Process().AddSessionId(601, 31));
    ASSERT_TRUE(Process().AddCurrentInfo("NET-C", std::make_shared<CurrentApplyDeviceInfo>()));
    auto context = std::make_shared<PutPhotoContext>(41);
    ASSERT_TRUE(Process().AddPutPhotoContext(41, context));

    EXPECT_TRUE(Process().EraseCameraProcess(601));
    EXPECT_FALSE(Process().EraseCameraProcess(601));
    EXPECT_EQ(Process().QueryCameraProcess(601), nullptr);
    EXPECT_FALSE(Process().QueryCollaborationId(601));

    EXPECT_TRUE(Process().EraseSessionId(601));
    EXPECT_FALSE(Process().EraseSessionId(601));
    EXPECT_TRUE(Process().EraseCurrentInfo("NET-C"));
    EXPECT_FALSE(Process().EraseCurrentInfo("NET-C"));
    EXPECT_EQ(Process().QueryCurrentInfoByNetworkId("NET-C"), nullptr);

    EXPECT_EQ(Process().RemovePhotoContext(41), context);
    EXPECT_EQ(Process().RemovePhotoContext(41), nullptr);
    EXPECT_FALSE(Process().ErasePutPhotoContext(41));
}

TEST(SpineRegistryTest, UnknownSessionIdIsMinusTwo)
{
    EXPECT_EQ(Process().QuerySessionId(987654), -2);
    ASSERT_TRUE(Process().AddSessionId(987654, 0));
    EXPECT_EQ(Process().QuerySessionId(987654), 0);
}

TEST(SpineRegistryTest, CameraProcessLookupsByNetworkIdTakeTheLowestMatchingId)
{
    auto high = NewState(720, "NET-SHARED");
    auto low = NewState(710, "NET-SHARED");
    ASSERT_TRUE(Process().AddCameraProcess(720, high));
    ASSERT_TRUE(Process().AddCameraProcess(710, low));
    ASSERT_TRUE(Process().AddCameraProcess(730, nullptr));

    EXPECT_EQ(Process().QueryCameraProcess(std::string("NET-SHARED")), low);
    EXPECT_EQ(Process().QueryCameraProcess(std::string("NET-NONE")), nullptr);
    EXPECT_EQ(Process().QueryCameraProcess(720, "NET-SHARED"), high);
    EXPECT_EQ(Process().QueryCameraProcess(720, "NET-OTHER"), nullptr);
    EXPECT_EQ(Process().QueryCameraProcess(730, "NET-SHARED"), nullptr);
    EXPECT_TRUE(Process().QueryCollaborationId(710));
    // An id registered without a record does not count as a collaboration.
    EXPECT_FALSE(Process().QueryCollaborationId(730));
}

TEST(SpineRegistryTest, QueryIsDeathRecipientClaimsThePidUntilErased)
{
    EXPECT_FALSE(Process().QueryIsDeathRecipient(4242));
    EXPECT_TRUE(Process().QueryIsDeathRecipient(4242));
    EXPECT_FALSE(Process().QueryIsDeathRecipient(4343));
    Process().EraseDeathRecipientPid(4242);
    EXPECT_TRUE(Process().QueryIsDeathRecipient(4343));
    EXPECT_FALSE(Process().QueryIsDeathRecipient(4242));
}

TEST(SpineRegistryTest, CollaborationDataInfoStartsClearedAndIsReplacedWhole)
{
    EXPECT_EQ(Process().GetCollaborationDataInfo(), std::make_pair(0, std::string()));
    Process().SetCollaborationDataInfo(77, "com.example.camera");
    EXPECT_EQ(Process().GetCollaborationDataInfo(), std::make_pair(77, std::string("com.example.camera")));
    Process().SetCollaborationDataInfo(78, "");
    EXPECT_EQ(Process().GetCollaborationDataInfo(), std::make_pair(78, std::string()));
    Process().ClearCollaborationDataInfo();
    EXPECT_EQ(Process().GetCollaborationDataInfo(), std::make_pair(0, std::string()));
}

TEST(SpineRegistryTest, ResolveCollaborationIdAcceptsOnlyADecimalIdBeforeTheDash)
{
    const std::pair<std::string, uint32_t> cases[] = {
        {"12-abc", 12},
        {"00000000007-PEERNETWORKID0001", 7},
        {"4294967295-x", 4294967295u},
        {"000000000012-x", 12},  // twelve digits still fit
        {"12-", 12},
        {"1-2-3", 1},
        {"", 0},
        {"-12", 0},
        {"12", 0},
        {"1a-x", 0},
        {" 1-x", 0},
        {"+1-x", 0},
        {"4294967296-x", 0},
        {"0000000000012-x", 0},  // thirteen digits, whatever their value
        {"1234567890123-x", 0},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(CameraAbilityProcess::ResolveCollaborationId(text), expected);
    }
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
