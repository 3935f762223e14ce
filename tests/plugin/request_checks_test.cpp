// The take-photo request's checks of the caller and the picker result, and what it asks the
// connection manager for before the collaboration exists.
#include "request_fixture.h"
#include "vex_log.h"

namespace QUEX {
namespace Tandra {
namespace RequestTesting {
namespace {

using RequestChecksTest = RequestFixture;

TEST_F(RequestChecksTest, CallerAndPickerAreCheckedBeforeAnythingIsAsked)
{
    struct Case {
        const char* name;
        std::function<void()> arrange;
        Vex::sptr<PickerResult> picker;
        int32_t expected;
        const char* log;
    };
    const std::vector<Case> cases = {
        {"another app in the foreground", [&]() { device_.SetForegroundApp("com.other.app"); }, Picker(), 1020,
         "The top ability is com.other.app now,request ability is com.example.photo"},
        {"nothing in the foreground", [&]() { device_.SetForegroundApp(""); }, Picker(), 1020, nullptr},
        {"foreground checked before Wi-Fi",
         [&]() {
             device_.SetForegroundApp("com.other.app");
             device_.Env().SetWifiState(false);
         },
         Picker(), 1020, nullptr},
        {"Wi-Fi off", [&]() { device_.Env().SetWifiState(false); }, Picker(), 2013, nullptr},
        {"no ability filter", []() {}, Picker(false, true, true), 1001,
         "abilityFilter = 1, deviceInfo = 0, localInfo = 0"},
        {"no device", []() {}, Picker(true, false, true), 1001, "abilityFilter = 0, deviceInfo = 1, localInfo = 0"},
        {"no local info", []() {}, Picker(true, true, false), 1001, "abilityFilter = 0, deviceInfo = 0, localInfo = 1"},
        {"empty picker", []() {}, Picker(false, false, false), 1001,
         "abilityFilter = 1, deviceInfo = 1, localInfo = 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        device_.SetForegroundApp(APP_BUNDLE);
        device_.Env().SetWifiState(true);
        c.arrange();
        Vex::LogCapture log;

        auto [result, collaborationId] = Request(c.picker);

        EXPECT_EQ(result, c.expected);
        EXPECT_EQ(collaborationId, 0u);
        if (c.log != nullptr) {
            EXPECT_TRUE(log.Contains(c.log));
        }
    }
    EXPECT_TRUE(meshline_->Requests().empty());
}

TEST_F(RequestChecksTest, SubscribesPublishesAndAppliesForCameraAndDisplayOfThePeer)
{
    meshline_->AnswerApplyResource(GRANTED);

    auto [result, collaborationId] = Request();
    ASSERT_EQ(result, 0);
    ASSERT_NE(collaborationId, 0u);

    auto subscribes = meshline_->Requests(Testing::SUBSCRIBE_NOTIFY_DISCONNECT);
    auto publishes = meshline_->Requests(Testing::PUBLISH_SERVICE_STATE);
    auto applies = meshline_->Requests(Testing::APPLY_ADVANCED_RESOURCE);
    ASSERT_EQ(subscribes.size(), 1u);
    ASSERT_GE(publishes.size(), 1u);
    ASSERT_EQ(applies.size(), 1u);
    EXPECT_LT(subscribes[0].sequence, publishes[0].sequence);
    EXPECT_LT(publishes[0].sequence, applies[0].sequence);

    EXPECT_EQ(subscribes[0].strings, (std::vector<std::string>{peer_.networkId, FRAMEWORK, "disconnect"}));
    EXPECT_NE(subscribes[0].callback, nullptr);
    EXPECT_EQ(publishes[0].strings, (std::vector<std::string>{peer_.networkId, FRAMEWORK, ""}));
    EXPECT_EQ(publishes[0].ints, std::vector<int32_t>{2});

    const auto& apply = applies[0];
    EXPECT_TRUE(apply.complete);
    EXPECT_EQ(apply.strings, (std::vector<std::string>{peer_.networkId, FRAMEWORK}));
    ASSERT_TRUE(apply.resource.present);
    ASSERT_EQ(apply.resource.remote.size(), 2u);
    EXPECT_TRUE(apply.resource.remote[0].present);
    EXPECT_EQ(apply.resource.remote[0].type, 1u);
    EXPECT_TRUE(apply.resource.remote[0].canShare);
    EXPECT_TRUE(apply.resource.remote[1].present);
    EXPECT_EQ(apply.resource.remote[1].type, 4u);
    EXPECT_FALSE(apply.resource.remote[1].canShare);
    EXPECT_TRUE(apply.resource.local.empty());
    const auto& comm = apply.resource.communication;
    ASSERT_TRUE(comm.present);
    EXPECT_EQ(comm.minBandwidth, 0x1400000);
    EXPECT_EQ(comm.maxLatency, 19000);
    EXPECT_EQ(comm.minLatency, 2000);
    EXPECT_EQ(comm.maxWaitTime, 10);
    EXPECT_EQ(comm.maxBuffer, 0x8000000);
    EXPECT_EQ(comm.dataType, "DATA_TYPE_BYTES");
    // A granted application keeps its disconnect subscription.
    EXPECT_EQ(meshline_->RequestCount(Testing::UNSUBSCRIBE_NOTIFY_DISCONNECT), 0u);
}

}  // namespace
}  // namespace RequestTesting
}  // namespace Tandra
}  // namespace QUEX
