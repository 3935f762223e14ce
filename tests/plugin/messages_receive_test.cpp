// The requesting side's receive path against a scripted peer: length checks, the dispatch of
// peer codes to the application's callback, a whole photo batch, and the photo-data wait.
// Time is simulated, so the 10-second photo wait never ends unless a test advances it.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "asyn_thread_pool.h"
#include "camera_ability_process.h"
#include "ipc_skeleton.h"
#include "messages_app_callback.h"
#include "scripted_meshline_service.h"
#include "session_manager.h"
#include "test_device.h"
#include "vex_clock.h"

namespace QUEX {
namespace Tandra {
namespace {
using namespace MessagesTesting;
using Testing::TestDevice;

constexpr int32_t APP_PID = 4321;
constexpr int32_t APP_UID = 20010001;
constexpr int32_t MESHLINE_PID = 7001;
constexpr int32_t MESHLINE_UID = 1000;
constexpr uint32_t DEATH_KIND_REQUESTER = 101;

class MessagesReceiveTest : public testing::Test {
protected:
    void SetUp() override
    {
        Vex::Clock::UseSimulatedTime();
        meshline_ = Testing::ScriptedMeshlineService::Create(MESHLINE_PID, MESHLINE_UID);
        ASSERT_TRUE(meshline_->Register());
        process_ = CameraAbilityProcess::GetInstance();
        ASSERT_NE(process_, nullptr);
        Vex::ScopedIdentity asApp(APP_PID, APP_UID);
        app_ = new AppCallback();
    }

    void TearDown() override
    {
        // Let waits still parked on the pool run out while the backends exist.
        Vex::Clock::UseScaledTime(1000);
        EXPECT_TRUE(AsynThreadPool::WaitIdle());
        meshline_->Unregister();
    }

    // A collaboration as the take-photo request leaves it: a control session to the peer,
    // its record in state 0 with the application's callback, the session id and the
    // application watched for death.
    int32_t StartCollaboration(uint32_t collaborationId)
    {
        auto info = std::make_shared<ServiceInfo>(0, 0, IdText(collaborationId) + "-" + peerId_, "{}");
        auto [result, sessionId] =
            SessionManager::CollaborationToDeviceByCtrlSession(device_.Identity().udid, peerId_, info);
        EXPECT_EQ(result, 0);
        auto state = std::make_shared<CameraProcessState>(
            collaborationId, peerId_, Vex::sptr<CallbackSkeletonProxy>(new CallbackSkeletonProxy(app_)));
        EXPECT_TRUE(process_->AddCameraProcess(collaborationId, state));
        EXPECT_TRUE(process_->AddSessionId(collaborationId, sessionId));
        EXPECT_EQ(process_->RegistDeathRecipientByCollaborationId(collaborationId, DEATH_KIND_REQUESTER, app_, state),
                  0);
        return sessionId;
    }

    std::vector<AppCall> CallsFor(uint32_t collaborationId)
    {
        std::vector<AppCall> out;
        for (const AppCall& call : app_->Calls()) {
            if (call.collaborationId == collaborationId) {
                out.push_back(call);
            }
        }
        return out;
    }

    TestDevice device_;
    const std::string peerId_ = TestDevice::PeerIdentity().networkId;
    Vex::sptr<Testing::ScriptedMeshlineService> meshline_;
    CameraAbilityProcess* process_ = nullptr;
    Vex::sptr<AppCallback> app_;
};

// What reaches the application for one received buffer: the buffer passes the length check
// exactly when size + 8 is its length, except for the photo count whose size is a count.
TEST_F(MessagesReceiveTest, LengthCheckAtItsEdges)
{
    struct Row {
        const char* name;
        std::string bytes;
        uint32_t serviceType;
        uint32_t code;
        std::string text;
    };
    const std::string hundred = PhotoBytes(100, 7);
    const std::vector<Row> rows = {
        {"code message, size 0", CameraMessage(1001201905, 0), 101, 1001202001, "state"},
        {"code message, size 1", CameraMessage(1001201905, 1), 101, 1001, "error"},
        {"count above the buffer", CameraMessage(1001201912, 5000), 101, 1001202006, "5000"},
        {"count of 2^32-1", CameraMessage(1001201912, 0xFFFFFFFFu), 101, 1001202006, "4294967295"},
        {"photo exact", CameraMessage(1001201918, 100, hundred), 102, 1001202007, ""},
        {"photo one byte long", CameraMessage(1001201918, 100, hundred + "x"), 101, 1001, "error"},
        {"photo one byte short", CameraMessage(1001201918, 100, hundred.substr(1)), 101, 1001, "error"},
        {"size + 8 wraps to 0", CameraMessage(1001200000, 0xFFFFFFF8u), 101, 1001, "error"},
        {"shorter than a header", CameraMessage(1001201905, 0).substr(0, 7), 101, 1001, "error"},
    };
    uint32_t collaborationId = 10;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ++collaborationId;
        int32_t sessionId = StartCollaboration(collaborationId);
        ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().SendOnSession(sessionId, row.bytes)));
        std::vector<AppCall> calls = CallsFor(collaborationId);
        ASSERT_FALSE(calls.empty());
        EXPECT_EQ(calls[0].serviceType, row.serviceType);
        EXPECT_EQ(calls[0].code, row.code);
        EXPECT_EQ(calls[0].text, row.text);
    }

    // No buffer at all is malformed too.
    ++collaborationId;
    StartCollaboration(collaborationId);
    process_->OnDataReceived(collaborationId, nullptr, 8);
    std::vector<AppCall> calls = CallsFor(collaborationId);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].code, 1001u);
    EXPECT_EQ(calls[0].text, "error");
}

// Which peer codes reach the application, and as what: failures are mapped by the state the
// collaboration is left in; 1001201911 moves the state but is not reported, 1001201908 is
// refused by the state machine, and unknown or local codes are dropped.
TEST_F(MessagesReceiveTest, PeerCodesReachTheApplicationMapped)
{
    constexpr uint32_t NONE = 0;
    struct Row {
        uint32_t code;
        bool afterCount;  // photos were already announced (state 1)
        uint32_t reported;
        const char* text;
    };
    const std::vector<Row> rows = {
        {1001201903, false, 1001202002, "errorcode"},
        {1001201904, false, 1001202002, "errorcode"},
        {1001201907, false, 1001202004, "errorcode"},
        {1001201909, false, 1001202002, "errorcode"},
        {1001201917, true, 1001202002, "errorcode"},
        {1001201901, true, 1001202009, "errorcode"},
        {1001201905, false, 1001202001, "state"},
        {1001201911, false, NONE, ""},
        {1001201908, false, NONE, ""},
        {1001201919, false, NONE, ""},
        {1001201902, false, NONE, ""},
        {1001201914, true, NONE, ""},
    };
    uint32_t collaborationId = 40;
    for (const Row& row : rows) {
        SCOPED_TRACE("code " + std::to_string(row.code));
        ++collaborationId;
        int32_t sessionId = StartCollaboration(collaborationId);
        if (row.afterCount) {
            device_.Peer().SendOnSession(sessionId, CameraMessage(1001201912, 2));
        }
        ASSERT_TRUE(device_.Peer().AwaitDelivered(device_.Peer().SendOnSession(sessionId, CameraMessage(row.code, 0))));
        std::vector<AppCall> reports;
        for (const AppCall& call : CallsFor(collaborationId)) {
            if (call.code != 1001202006) {
                reports.push_back(call);
            }
        }
        if (row.reported == NONE) {
            EXPECT_TRUE(reports.empty());
            continue;
        }
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].code, row.reported);
        EXPECT_EQ(reports[0].text, row.text);
    }
}

// One batch as the serving side sends it: the count on the control channel and again on the
// data channel, then three photos on the data channel.
TEST_F(MessagesReceiveTest, BatchReachesTheApplicationIntact)
{
    constexpr uint32_t ID = 21;
    int32_t sessionId = StartCollaboration(ID);
    Vex::sptr<Vex::IRemoteObject::DeathRecipient> recipient =
        process_->QueryCameraProcess(ID)->GetDeathRecipientObject();
    ASSERT_NE(recipient, nullptr);

    // Above and below the parcel's inline limit for raw data.
    const std::vector<std::string> photos = {PhotoBytes(100000, 1), PhotoBytes(10, 2), PhotoBytes(40000, 3)};
    auto& peer = device_.Peer();
    peer.SendOnSession(sessionId, CameraMessage(1001201912, 3));
    peer.SendOnDataChannel(sessionId, CameraMessage(1001201912, 3));
    peer.SendOnDataChannel(sessionId, CameraMessage(1001201918, photos[0].size(), photos[0]));
    peer.SendOnDataChannel(sessionId, CameraMessage(1001201918, photos[1].size(), photos[1]));
    ASSERT_TRUE(
        peer.AwaitDelivered(peer.SendOnDataChannel(sessionId, CameraMessage(1001200000, photos[2].size(), photos[2]))));

    std::vector<AppCall> calls = CallsFor(ID);
    ASSERT_EQ(calls.size(), 4u);
    // The count once: its data-channel copy was dropped.
    EXPECT_EQ(calls[0].serviceType, 101u);
    EXPECT_EQ(calls[0].subServiceType, 104u);
    EXPECT_EQ(calls[0].code, 1001202006u);
    EXPECT_EQ(calls[0].text, "3");
    const uint32_t statuses[] = {1001202007, 1001202007, 1001202000};
    for (size_t i = 0; i < photos.size(); ++i) {
        SCOPED_TRACE("photo " + std::to_string(i));
        const AppCall& photo = calls[i + 1];
        EXPECT_EQ(photo.serviceType, 102u);
        EXPECT_EQ(photo.subServiceType, 105u);
        EXPECT_EQ(photo.code, statuses[i]);
        EXPECT_EQ(photo.size, photos[i].size());
        EXPECT_TRUE(photo.rawReadable);
        EXPECT_TRUE(photo.bytes == photos[i]);
    }

    // After the last photo the collaboration is over on both sides: the peer is told through
    // the control session's close, and nothing of it is left here.
    std::vector<Testing::CloseRecord> closes = peer.SessionsClosedByDevice();
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].id, sessionId);
    EXPECT_TRUE(closes[0].notifyPeer);
    EXPECT_EQ(process_->QueryCameraProcess(ID), nullptr);
    EXPECT_EQ(process_->QuerySessionId(ID), -2);
    EXPECT_FALSE(app_->RemoveDeathRecipient(recipient));  // already removed
}

// The photo wait: started by the count, given a whole new period by every photo, and when
// photos stop coming its time-out reaches the application as the mapped failure of a transfer
// in progress.
TEST_F(MessagesReceiveTest, PhotoWaitRefreshedByEveryPhotoThenTimesOut)
{
    constexpr uint32_t ID = 31;
    int32_t sessionId = StartCollaboration(ID);
    auto& peer = device_.Peer();
    const std::string photo = PhotoBytes(64, 9);
    const std::string photoMessage = CameraMessage(1001201918, photo.size(), photo);
    const auto start = Vex::Clock::Now();
    peer.SendOnSession(sessionId, CameraMessage(1001201912, 3));
    ASSERT_TRUE(Vex::Clock::AwaitWaiters(1));  // the wait for photo data is in place

    // Two photos, each 9 s after the one before: neither gap reaches the 10 s limit although
    // the whole batch takes longer than one period.
    for (int i = 0; i < 2; ++i) {
        Vex::Clock::Advance(std::chrono::seconds(9));
        ASSERT_TRUE(peer.AwaitDelivered(peer.SendOnDataChannel(sessionId, photoMessage)));
    }
    Vex::Clock::Advance(std::chrono::milliseconds(9999));
    EXPECT_FALSE(app_->AwaitCode(1001202009, std::chrono::milliseconds(0)));
    Vex::Clock::Advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(app_->AwaitCode(1001202009));
    EXPECT_EQ(Vex::Clock::Now() - start, std::chrono::seconds(28));

    std::vector<AppCall> calls = CallsFor(ID);
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].code, 1001202006u);
    EXPECT_EQ(calls[1].code, 1001202007u);
    EXPECT_EQ(calls[2].code, 1001202007u);
    EXPECT_EQ(calls[3].serviceType, 101u);
    EXPECT_EQ(calls[3].code, 1001202009u);  // 2010 (photo data stopped) while receiving
    EXPECT_EQ(calls[3].text, "errorcode");
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
