// After the grant: the reply, the control session that carries the command text, the wait for
// the peer's first answer, and the cases in which the session must not stay.
#include <json/json.h>

#include <map>
#include <memory>
#include <ostream>

#include "request_fixture.h"
#include "vex_sys_event.h"

namespace QUEX {
namespace Tandra {
namespace RequestTesting {
namespace {

class RequestSessionTest : public RequestFixture {
protected:
    void SetUp() override
    {
        RequestFixture::SetUp();
        meshline_->AnswerApplyResource(GRANTED);
    }

    // The device's session of the collaboration, once its open has completed.
    Testing::SessionRecord OpenedSession()
    {
        EXPECT_TRUE(device_.Peer().AwaitCondition([this]() {
            auto sessions = device_.Peer().SessionsOpenedByDevice();
            return !sessions.empty() && sessions.front().openDone;
        }));
        auto sessions = device_.Peer().SessionsOpenedByDevice();
        return sessions.empty() ? Testing::SessionRecord{} : sessions.front();
    }
};

TEST_F(RequestSessionTest, ReplyComesFirstThenTheSessionCarriesTheCommandText)
{
    // Holding the open shows that the reply does not wait for the peer.
    device_.Peer().HoldSessionOpens();
    auto [result, collaborationId] = Request();
    ASSERT_EQ(result, 0);
    ASSERT_NE(collaborationId, 0u);
    auto state = process_->QueryCameraProcess(collaborationId);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->GetNetworId(), peer_.networkId);
    EXPECT_EQ(state->GetStatus(), CameraProcessState::STATUS_WAITING);

    ASSERT_TRUE(device_.Peer().AwaitSessionOpenAttempts(1));
    EXPECT_EQ(PublishedStates(), std::vector<int32_t>{2});
    device_.Peer().ReleaseSessionOpens();
    auto session = OpenedSession();

    EXPECT_EQ(session.sessionName, IdText(collaborationId) + "-" + peer_.networkId);
    EXPECT_EQ(session.peerNetworkId, peer_.networkId);
    Json::Value command;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    ASSERT_TRUE(reader->parse(session.commandText.data(), session.commandText.data() + session.commandText.size(),
                              &command, nullptr));
    ASSERT_TRUE(command.isArray());
    ASSERT_EQ(command.size(), 1u);
    EXPECT_EQ(command[0]["localInfo"]["localBundleName"].asString(), APP_BUNDLE);
    EXPECT_EQ(command[0]["localInfo"]["localDeviceId"].asString(), device_.Identity().udid);
    EXPECT_EQ(command[0]["extraData"]["peerBundleName"].asString(), "com.peer.camera");
    EXPECT_EQ(command[0]["extraData"]["peerAbilityName"].asString(), "CameraAbility");

    // State 4 once the session is up, and the session is the collaboration's.
    ASSERT_TRUE(meshline_->WaitForRequest(Testing::PUBLISH_SERVICE_STATE, 2).has_value());
    EXPECT_EQ(PublishedStates(), (std::vector<int32_t>{2, 4}));
    EXPECT_EQ(process_->QuerySessionId(collaborationId), session.sessionId);
    EXPECT_TRUE(app_->Events().empty());
}

TEST_F(RequestSessionTest, NoAnswerWithin180SecondsReachesTheApplication)
{
    Vex::Clock::UseSimulatedTime();
    const size_t waitersBefore = Vex::Clock::WaitingCount();
    auto [result, collaborationId] = Request();
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(meshline_->WaitForRequest(Testing::PUBLISH_SERVICE_STATE, 2).has_value());
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(waitersBefore + 1));

    Vex::Clock::Advance(std::chrono::seconds(180) - std::chrono::milliseconds(1));
    AppCallback::Event event;
    EXPECT_FALSE(app_->AwaitEvent(1001202008, event, std::chrono::milliseconds(0)));

    Vex::Clock::Advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(app_->AwaitEvent(1001202008, event));
    EXPECT_EQ(event.collaborationId, collaborationId);
    EXPECT_EQ(event.message, "errorcode");
}

TEST_F(RequestSessionTest, SessionThatCannotOpenIsReportedToTheApplication)
{
    constexpr int32_t OPEN_FAILURE = 1013;
    device_.Peer().FailSessionOpens(OPEN_FAILURE);
    Vex::SysEventCapture events;

    auto [result, collaborationId] = Request();
    ASSERT_EQ(result, 0);

    AppCallback::Event event;
    ASSERT_TRUE(app_->AwaitEvent(1001202002, event));
    EXPECT_EQ(event.collaborationId, collaborationId);
    EXPECT_EQ(event.message, "errorcode");
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    for (int32_t state : PublishedStates()) {
        EXPECT_NE(state, 4);
    }
    // The failure is reported as a failed request stage with the session's error.
    bool reported = false;
    for (const auto& record : events.Records()) {
        std::map<std::string, Vex::SysEventValue> params(record.params.begin(), record.params.end());
        if (params["FUNC"] == Vex::SysEventValue(std::string("HandleSendTakePhotoReqError"))) {
            reported = params["BIZ_STAGE"] == Vex::SysEventValue(int32_t{4}) &&
                       params["STAGE_RES"] == Vex::SysEventValue(int32_t{2}) &&
                       params["ERROR_CODE"] == Vex::SysEventValue(OPEN_FAILURE);
        }
    }
    EXPECT_TRUE(reported);
}

enum class CancelKind { FINISHED, ERASED };

void PrintTo(CancelKind kind, std::ostream* os)
{
    *os << (kind == CancelKind::FINISHED ? "finished" : "erased");
}

class RequestCancelTest : public RequestSessionTest, public testing::WithParamInterface<CancelKind> {};

TEST_P(RequestCancelTest, CancelBeforeTheSessionIsUpStopsTheSession)
{
    device_.Peer().HoldSessionOpens();
    auto [result, collaborationId] = Request();
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(device_.Peer().AwaitSessionOpenAttempts(1));

    // What a cancel leaves behind while the session is still being opened.
    if (GetParam() == CancelKind::FINISHED) {
        process_->QueryCameraProcess(collaborationId)->SetStatus(CameraProcessState::STATUS_FINISHED);
    } else {
        process_->EraseCameraProcess(collaborationId);
    }
    device_.Peer().ReleaseSessionOpens();
    auto session = OpenedSession();

    ASSERT_TRUE(device_.Peer().AwaitSessionClosedByDevice(session.sessionId));
    ASSERT_TRUE(AsynThreadPool::WaitIdle());
    auto closes = device_.Peer().SessionsClosedByDevice();
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_FALSE(closes[0].notifyPeer);
    EXPECT_EQ(process_->QuerySessionId(collaborationId), -2);
    EXPECT_EQ(PublishedStates(), std::vector<int32_t>{2});
    EXPECT_TRUE(app_->Events().empty());
}

INSTANTIATE_TEST_SUITE_P(Cancels, RequestCancelTest, testing::Values(CancelKind::FINISHED, CancelKind::ERASED),
                         [](const testing::TestParamInfo<CancelKind>& info) {
                             return std::string(info.param == CancelKind::FINISHED ? "Finished" : "Erased");
                         });

TEST_F(RequestSessionTest, PeerDisconnectNoticeEndsTheCollaboration)
{
    auto [result, collaborationId] = Request();
    ASSERT_EQ(result, 0);
    auto subscribe = meshline_->WaitForRequest(Testing::SUBSCRIBE_NOTIFY_DISCONNECT);
    ASSERT_TRUE(subscribe.has_value());
    OpenedSession();

    auto reply = meshline_->CallDisconnected(subscribe->callback, "", peer_.networkId, "disconnect", 0);

    EXPECT_EQ(reply.status, 0);
    AppCallback::Event event;
    ASSERT_TRUE(app_->AwaitEvent(1001202001, event));
    EXPECT_EQ(event.collaborationId, collaborationId);
    EXPECT_EQ(event.message, "state");
}

}  // namespace
}  // namespace RequestTesting
}  // namespace Tandra
}  // namespace QUEX
