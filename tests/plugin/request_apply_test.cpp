// The resource application of the take-photo request: the connection manager's decision
// arrives through the 506 callback; anything but a grant within 15 seconds fails the request,
// and only one application per peer may be in flight.
#include <ostream>

#include "request_fixture.h"

namespace QUEX {
namespace Tandra {
namespace RequestTesting {
namespace {

struct DecisionCase {
    const char* name;
    // Scripts the service's answer to the application.
    std::function<void(Testing::ScriptedMeshlineService& service)> script;
    int32_t expected;
};

void PrintTo(const DecisionCase& c, std::ostream* os)
{
    *os << c.name;
}

class RequestDecisionTest : public RequestFixture, public testing::WithParamInterface<DecisionCase> {};

TEST_P(RequestDecisionTest, AnythingButAGrantFailsTheRequestAndUndoesTheSubscription)
{
    GetParam().script(*meshline_);

    auto [result, collaborationId] = Request();

    EXPECT_EQ(result, GetParam().expected);
    EXPECT_EQ(collaborationId, 0u);
    auto unsubscribe = meshline_->WaitForRequest(Testing::UNSUBSCRIBE_NOTIFY_DISCONNECT);
    ASSERT_TRUE(unsubscribe.has_value());
    EXPECT_EQ(unsubscribe->strings, (std::vector<std::string>{peer_.networkId, FRAMEWORK}));
    EXPECT_EQ(process_->QueryCameraProcess(peer_.networkId), nullptr);
    EXPECT_EQ(process_->QueryCurrentInfoByNetworkId(peer_.networkId), nullptr);
    EXPECT_TRUE(device_.Peer().Sessions().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Decisions, RequestDecisionTest,
    testing::Values(
        DecisionCase{"Refused", [](Testing::ScriptedMeshlineService& s) { s.AnswerApplyResource(REFUSED); }, 320003},
        // A service result the callback does not know becomes decision 0: no decision.
        DecisionCase{"UnknownResult", [](Testing::ScriptedMeshlineService& s) { s.AnswerApplyResource(320002); },
                     320003},
        DecisionCase{"GrantForAnotherService",
                     [](Testing::ScriptedMeshlineService& s) {
                         Testing::ScriptedMeshlineService* service = &s;
                         s.OnRequest(Testing::APPLY_ADVANCED_RESOURCE, [service](const Testing::RecordedRequest& r) {
                             service->CallApplyResult(r.callback, r.strings.at(0), "OtherService", "", 0, GRANTED);
                         });
                     },
                     320003},
        DecisionCase{"GrantForAnotherDevice",
                     [](Testing::ScriptedMeshlineService& s) {
                         Testing::ScriptedMeshlineService* service = &s;
                         s.OnRequest(Testing::APPLY_ADVANCED_RESOURCE, [service](const Testing::RecordedRequest& r) {
                             service->CallApplyResult(r.callback, "OTHERNETWORKID", FRAMEWORK, "", 0, GRANTED);
                         });
                     },
                     320003},
        DecisionCase{"NoDecision", [](Testing::ScriptedMeshlineService&) {}, 320003},
        // The connection manager's own refusal is passed on unchanged.
        DecisionCase{"RejectedByService",
                     [](Testing::ScriptedMeshlineService& s) { s.SetResult(Testing::APPLY_ADVANCED_RESOURCE, 1234); },
                     1234}),
    [](const testing::TestParamInfo<DecisionCase>& info) { return std::string(info.param.name); });

using RequestApplyTest = RequestFixture;

TEST_F(RequestApplyTest, DecisionWaitLastsExactlyFifteenSeconds)
{
    Vex::Clock::UseSimulatedTime();
    const size_t waitersBefore = Vex::Clock::WaitingCount();
    PendingRequest request([this]() { return Request(); });
    ASSERT_TRUE(meshline_->WaitForRequest(Testing::APPLY_ADVANCED_RESOURCE).has_value());
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(waitersBefore + 1));

    Vex::Clock::Advance(std::chrono::seconds(15) - std::chrono::milliseconds(1));
    EXPECT_FALSE(request.Done());

    Vex::Clock::Advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(request.Done(AWAIT));
    EXPECT_EQ(request.Get(), (std::pair<int32_t, uint32_t>{320003, 0}));
}

TEST_F(RequestApplyTest, NoConnectionManagerFailsTheApplication)
{
    meshline_->Unregister();

    auto [result, collaborationId] = Request();

    EXPECT_EQ(result, 32);
    EXPECT_EQ(collaborationId, 0u);
}

TEST_F(RequestApplyTest, OneApplicationPerPeerAndLaterRequestsJoinTheCollaboration)
{
    // The first application stays undecided until the test answers it.
    Vex::Clock::UseSimulatedTime();
    PendingRequest first([this]() { return Request(); });
    auto apply = meshline_->WaitForRequest(Testing::APPLY_ADVANCED_RESOURCE);
    ASSERT_TRUE(apply.has_value());

    EXPECT_EQ(Request(), (std::pair<int32_t, uint32_t>{1001, 0}));
    EXPECT_EQ(meshline_->RequestCount(Testing::APPLY_ADVANCED_RESOURCE), 1u);
    EXPECT_FALSE(first.Done());

    auto reply = meshline_->CallApplyResult(apply->callback, peer_.networkId, FRAMEWORK, "", 0, GRANTED);
    EXPECT_EQ(reply.status, 0);
    ASSERT_TRUE(first.Done(AWAIT));
    auto [firstResult, collaborationId] = first.Get();
    ASSERT_EQ(firstResult, 0);
    ASSERT_NE(collaborationId, 0u);

    meshline_->AnswerApplyResource(GRANTED);
    EXPECT_EQ(Request(), (std::pair<int32_t, uint32_t>{0, collaborationId}));
    EXPECT_EQ(meshline_->RequestCount(Testing::APPLY_ADVANCED_RESOURCE), 2u);
}

}  // namespace
}  // namespace RequestTesting
}  // namespace Tandra
}  // namespace QUEX
