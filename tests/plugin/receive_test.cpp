// The requesting side's receive path: the state machine it consults, what one received buffer
// gives the application (length checks and peer codes), the photo-data wait, and the serving
// side's wait for its data channel. Whole batches are in the endings tests' collaboration.
#include <future>

#include "callback_skeleton_proxy.h"
#include "requesting_fixture.h"
#include "session_manager.h"

namespace QUEX::Tandra::RequestingTesting {
namespace {
using namespace std::chrono_literals;
using Vex::Clock;

class ReceiveTest : public RequestingDeviceTest {
protected:
    // A collaboration as the take-photo request leaves it: a control session to the peer, its
    // record in state 0 with the application's callback, the session id, the death recipient.
    int32_t StartCollaboration(uint32_t id)
    {
        auto info = std::make_shared<ServiceInfo>(0, 0, IdText(id) + "-" + peer_.networkId, "{}");
        auto [result, sessionId] =
            SessionManager::CollaborationToDeviceByCtrlSession(device_.Identity().udid, peer_.networkId, info);
        EXPECT_EQ(result, 0);
        auto state = std::make_shared<CameraProcessState>(
            id, peer_.networkId, Vex::sptr<CallbackSkeletonProxy>(new CallbackSkeletonProxy(app_)));
        EXPECT_TRUE(process_->AddCameraProcess(id, state));
        EXPECT_TRUE(process_->AddSessionId(id, sessionId));
        EXPECT_EQ(process_->RegistDeathRecipientByCollaborationId(id, 101, app_, state), 0);
        return sessionId;
    }
};

TEST_F(ReceiveTest, StateMachineTakesEveryCodeFromEveryState)
{
    constexpr int REFUSE = -1;
    constexpr int STAY = -2;  // accepted, state unchanged
    constexpr int R = CameraProcessState::STATUS_RECEIVING;
    constexpr int F = CameraProcessState::STATUS_FINISHED;
    struct Row {
        std::vector<uint32_t> codes;
        int after[3];  // from waiting, receiving, finished
    };
    const Row rows[] = {
        {{CODE_PHOTO_COUNT}, {R, REFUSE, REFUSE}},
        {{CODE_PHOTO}, {R, R, REFUSE}},
        {{CODE_PHOTO_FAILED}, {REFUSE, F, REFUSE}},
        {{CODE_DISCONNECTED_BEFORE_SEND}, {F, REFUSE, REFUSE}},
        {{CODE_LAST_PHOTO, 1001201903, 1001201904, 1001201907, 1001201909, 1001201911, 1001201917}, {F, F, REFUSE}},
        {{CODE_CAMERA_STARTED}, {STAY, STAY, STAY}},
        // EVENT_LAST_PHOTO is an application code, never a peer's.
        {{1001201902, 1001201906, 1001201908, 1001201910, 1001201913, 1001201914, 1001201915, 1001201916,
          EVENT_LAST_PHOTO, 12345},
         {REFUSE, REFUSE, REFUSE}}};
    uint32_t id = 100;
    for (const Row& row : rows) {
        for (uint32_t code : row.codes) {
            for (uint32_t from : {0u, 1u, 2u}) {
                SCOPED_TRACE(testing::Message() << "code " << code << " from " << from);
                auto state = std::make_shared<CameraProcessState>(++id, peer_.networkId, nullptr);
                state->SetStatus(from);
                ASSERT_TRUE(process_->AddCameraProcess(id, state));
                const int expected = row.after[from];
                EXPECT_EQ(process_->CheckAndUpdateState(id, code), expected != REFUSE);
                EXPECT_EQ(state->GetStatus(), expected < 0 ? from : static_cast<uint32_t>(expected));
                process_->EraseCameraProcess(id);
            }
        }
    }
    EXPECT_FALSE(process_->CheckAndUpdateState(99999, CODE_CAMERA_STARTED));
}

// What reaches the application for one received buffer. It passes the length check exactly when
// size + 8 is its length, except for the photo count whose size is a count. Failures are mapped
// by the state the collaboration is left in; 1001201911 moves the state but is not reported,
// 1001201908 is refused by the state machine, and unknown or local codes are dropped.
TEST_F(ReceiveTest, OneBufferReachesTheApplicationCheckedAndMapped)
{
    constexpr uint32_t NONE = 0;
    struct Row {
        const char* name;
        bool afterCount;  // photos were already announced (state 1)
        std::string bytes;
        uint32_t serviceType;
        uint32_t code;
        std::string text;
    };
    const std::string hundred = PhotoBytes(100, 7);
    const std::vector<Row> rows = {
        {"code, size 0", false, CameraMessage(1001201905, 0), 101, 1001202001, "state"},
        {"code, size 1", false, CameraMessage(1001201905, 1), 101, 1001, "error"},
        {"count above the buffer", false, CameraMessage(1001201912, 5000), 101, 1001202006, "5000"},
        {"count of 2^32-1", false, CameraMessage(1001201912, 0xFFFFFFFFu), 101, 1001202006, "4294967295"},
        {"photo exact", false, CameraMessage(1001201918, 100, hundred), 102, 1001202007, ""},
        {"photo a byte long", false, CameraMessage(1001201918, 100, hundred + "x"), 101, 1001, "error"},
        {"photo a byte short", false, CameraMessage(1001201918, 100, hundred.substr(1)), 101, 1001, "error"},
        {"size + 8 wraps to 0", false, CameraMessage(1001200000, 0xFFFFFFF8u), 101, 1001, "error"},
        {"shorter than a header", false, CameraMessage(1001201905, 0).substr(0, 7), 101, 1001, "error"},
        {"1001201903", false, CameraMessage(1001201903, 0), 101, 1001202002, "errorcode"},
        {"1001201904", false, CameraMessage(1001201904, 0), 101, 1001202002, "errorcode"},
        {"1001201907", false, CameraMessage(1001201907, 0), 101, 1001202004, "errorcode"},
        {"1001201909", false, CameraMessage(1001201909, 0), 101, 1001202002, "errorcode"},
        {"1001201917 receiving", true, CameraMessage(1001201917, 0), 101, 1001202002, "errorcode"},
        {"1001201901 receiving", true, CameraMessage(1001201901, 0), 101, 1001202009, "errorcode"},
        {"1001201911", false, CameraMessage(1001201911, 0), 0, NONE, ""},
        {"1001201908", false, CameraMessage(1001201908, 0), 0, NONE, ""},
        {"1001201919", false, CameraMessage(1001201919, 0), 0, NONE, ""},
        {"1001201902", false, CameraMessage(1001201902, 0), 0, NONE, ""},
        {"1001201914 receiving", true, CameraMessage(1001201914, 0), 0, NONE, ""}};
    uint32_t id = 10;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const int32_t sessionId = StartCollaboration(++id);
        if (row.afterCount) {
            device_.Peer().SendOnSession(sessionId, CameraMessage(CODE_PHOTO_COUNT, 2));
        }
        ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().SendOnSession(sessionId, row.bytes)));
        const std::vector<AppCall> calls = app_->Calls(0, id);
        const size_t first = row.afterCount ? 1 : 0;
        if (row.code == NONE) {
            EXPECT_EQ(calls.size(), first);
            continue;
        }
        ASSERT_EQ(calls.size(), first + 1);
        EXPECT_EQ(calls[first].serviceType, row.serviceType);
        EXPECT_EQ(calls[first].code, row.code);
        EXPECT_EQ(calls[first].text, row.text);
    }
    // No buffer at all is malformed too.
    StartCollaboration(++id);
    process_->OnDataReceived(id, nullptr, 8);
    ASSERT_EQ(app_->Calls(0, id).size(), 1u);
    EXPECT_EQ(app_->Calls(0, id)[0].code, 1001u);
}

// The photo wait: started by the count, given a whole new period by every photo; when photos
// stop coming its time-out reaches the application as the failure of a transfer in progress.
TEST_F(ReceiveTest, PhotoWaitRefreshedByEveryPhotoThenTimesOut)
{
    const int32_t sessionId = StartCollaboration(31);
    auto& peer = device_.Peer();
    const std::string photo = PhotoBytes(64, 9);
    const auto start = Clock::Now();
    peer.SendOnSession(sessionId, CameraMessage(CODE_PHOTO_COUNT, 3));
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    // Each photo 9 s after the one before: no gap reaches 10 s although the batch takes longer.
    for (int i = 0; i < 2; ++i) {
        Clock::Advance(9s);
        ASSERT_TRUE(peer.AwaitDelivered(peer.SendOnDataChannel(sessionId, CameraMessage(CODE_PHOTO, 64, photo))));
    }
    Clock::Advance(9999ms);
    EXPECT_FALSE(app_->Await(1, 1001202009, 0ms));
    Clock::Advance(1ms);
    ASSERT_TRUE(app_->Await(1, 1001202009));
    EXPECT_EQ(Clock::Now() - start, 28s);
    const std::vector<AppCall> calls = app_->Calls(0, 31);
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].code, EVENT_PHOTO_COUNT);
    EXPECT_EQ(calls[1].code, EVENT_PHOTO);
    EXPECT_EQ(calls[2].code, EVENT_PHOTO);
    EXPECT_EQ(calls[3].text, "errorcode");  // 2010 (photo data stopped) while receiving
}

// A photo that takes longer than the wait to cross a slow link is not lost: a period in which
// its bytes kept arriving grants another; a period without any ends the wait.
TEST_F(ReceiveTest, PhotoWaitLastsWhileAPhotosBytesArrive)
{
    LogWaiter log;
    const int32_t sessionId = StartCollaboration(32);
    const auto start = Clock::Now();
    device_.Peer().SendOnSession(sessionId, CameraMessage(CODE_PHOTO_COUNT, 1));
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    for (int period = 0; period < 2; ++period) {
        Clock::Advance(5s);
        env_->bus_.received += 1 << 20;
        Clock::Advance(5s);
        ASSERT_TRUE(log.Recorder<std::string>::Await(
            [](const std::string& line) { return line.find("photo bytes still arriving") != std::string::npos; },
            static_cast<size_t>(period + 1)));
        ASSERT_TRUE(Clock::AwaitWaiters(1));
    }
    Clock::Advance(9999ms);
    EXPECT_FALSE(app_->Await(1, 1001202009, 0ms));
    Clock::Advance(1ms);
    ASSERT_TRUE(app_->Await(1, 1001202009));
    EXPECT_EQ(Clock::Now() - start, 30s);
}

// The serving side waits up to 10 s for its data channel; simulated time stands still, so
// anything but an immediate answer where one is due would hang.
TEST_F(ReceiveTest, QueryDataChannelAnswersAtOnceWakesEarlyOrTimesOut)
{
    using Result = std::pair<int32_t, int32_t>;
    auto query = [this](std::shared_ptr<PutPhotoContext> context) {
        return std::async(std::launch::async, [this, context]() { return process_->QueryDataChannel(context); });
    };
    struct Row {
        int32_t status;
        int32_t code;
        bool registered;
        Result expected;
    };
    const Row rows[] = {{PutPhotoContext::CHANNEL_UNSETTLED, 0, true, {0, 77}},
                        {PutPhotoContext::CHANNEL_OPENED, 0, true, {0, 77}},
                        {PutPhotoContext::CHANNEL_FAILED, -5, false, {-5, -1}},
                        {PutPhotoContext::CHANNEL_CANCELLED, 0, false, {0, -1}}};
    int32_t sessionId = 10;
    for (const Row& row : rows) {
        auto context = std::make_shared<PutPhotoContext>(++sessionId);
        context->ChangeTransmitChanelStatus(row.status, row.code);
        if (row.registered) {
            ASSERT_TRUE(process_->AddDataChannelId(sessionId, 77));
        }
        auto result = query(context);
        ASSERT_EQ(result.wait_for(AWAIT), std::future_status::ready) << row.status;
        EXPECT_EQ(result.get(), row.expected) << row.status;
    }

    const auto start = Clock::Now();
    auto early = query(std::make_shared<PutPhotoContext>(30));
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    ASSERT_TRUE(process_->AddDataChannelId(30, 1234));
    process_->Releaselock();
    ASSERT_EQ(early.wait_for(AWAIT), std::future_status::ready);
    EXPECT_EQ(early.get(), Result(0, 1234));
    EXPECT_EQ(Clock::Now(), start);

    auto never = std::make_shared<PutPhotoContext>(32);
    never->ChangeTransmitChanelStatus(PutPhotoContext::CHANNEL_OPENED, 0);  // said open, never registered
    auto late = query(never);
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    Clock::Advance(9999ms);
    EXPECT_EQ(late.wait_for(0ms), std::future_status::timeout);
    Clock::Advance(1ms);
    ASSERT_EQ(late.wait_for(AWAIT), std::future_status::ready);
    EXPECT_EQ(late.get(), Result(461440990, -1));
}

}  // namespace
}  // namespace QUEX::Tandra::RequestingTesting
