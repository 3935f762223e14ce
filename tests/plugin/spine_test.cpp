// The plugin's spine: dispatch and load-time registration, its registries and id parsing, timed
// waits on a simulated clock, the UI error codes, and the behaviour events with their limit.
#include <future>
#include <map>

#include "camera_ability_listener.h"
#include "dfx_helper.h"
#include "listener_manager.h"
#include "pending.h"
#include "plugin_loader.h"
#include "requesting_fixture.h"
#include "tandra_dfx.h"
#include "vex_sys_event.h"

namespace QUEX::Tandra::RequestingTesting {
namespace {
using namespace std::chrono_literals;
using Vex::Clock;
using Vex::SysEventValue;

using SpineTest = RequestingDeviceTest;

int32_t Dispatch(Vex::MessageParcel& data, Vex::MessageParcel& reply)
{
    Vex::MessageOption option;
    return CameraAbilityProcess::GetInstance()->DispatchRequest(data, reply, option, {100, 200});
}

TEST_F(SpineTest, DispatchAnswersUnknownCodesAndIncompleteTakePhotoRequests)
{
    for (uint32_t code : {0u, 6u, 11u, 0xFFFFFFFFu}) {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        WriteHeader(data, code);
        EXPECT_EQ(Dispatch(data, reply), 1005) << code;
        EXPECT_EQ(reply.GetWritePosition(), 0u);
    }
    for (const auto& [withPicker, withCallback] : {std::pair{false, true}, {true, false}, {false, false}}) {
        SCOPED_TRACE(testing::Message() << "picker " << withPicker << " callback " << withCallback);
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        WriteHeader(data, 1);
        data.WriteInt32(withPicker ? 1 : 0);
        if (withPicker) {
            Picker()->Marshalling(data);
        }
        if (withCallback) {
            data.WriteRemoteObject(Vex::sptr<Vex::IRemoteObject>(app_.GetRefPtr()));
        }
        EXPECT_EQ(Dispatch(data, reply), 1001);
        EXPECT_EQ(reply.ReadInt32(), 1001);
        EXPECT_EQ(reply.ReadUint32(), 0u);
        EXPECT_EQ(reply.GetReadableBytes(), 0u);
    }
    EXPECT_TRUE(meshline_->Requests().empty());
}

TEST_F(SpineTest, LoadingTheLibraryRegistersTheOneInstanceOnce)
{
    // Linking the library already ran its initialisers: the host knows the plugin.
    EXPECT_EQ(PluginLoader::GetLoader().GetPlugin(PLUGIN_TYPE_CAMERA), process_);
    EXPECT_EQ(PluginLoader::GetLoader().LoadPlugin(TANDRA_CAMERA_LIBRARY_PATH), 0);
    EXPECT_EQ(PluginLoader::GetLoader().GetPlugin(PLUGIN_TYPE_CAMERA), process_);
    EXPECT_EQ(CameraAbilityProcess::GetInstance(), process_);
    size_t listeners = 0;
    for (const auto& listener : ListenerManager::GetInstance()->GetListeners()) {
        listeners += std::dynamic_pointer_cast<CameraAbilityProcessListener>(listener) != nullptr ? 1 : 0;
    }
    EXPECT_EQ(listeners, 1u);
}

TEST_F(SpineTest, RegistriesKeepTheFirstValueAndAnswerWithSentinels)
{
    auto first = std::make_shared<CameraProcessState>(501, "NET-A", nullptr);
    EXPECT_TRUE(process_->AddCameraProcess(501, first));
    EXPECT_FALSE(process_->AddCameraProcess(501, std::make_shared<CameraProcessState>(501, "NET-B", nullptr)));
    EXPECT_EQ(process_->QueryCameraProcess(501), first);
    EXPECT_EQ(process_->QuerySessionId(501), -2);
    EXPECT_TRUE(process_->AddSessionId(501, 11));
    EXPECT_FALSE(process_->AddSessionId(501, 12));
    EXPECT_EQ(process_->QuerySessionId(501), 11);
    // The first query claims the pid; later ones find it claimed.
    EXPECT_FALSE(process_->QueryIsDeathRecipient(4242));
    EXPECT_TRUE(process_->QueryIsDeathRecipient(4242));
    EXPECT_EQ(process_->QueryDataChannelId(77), -1);
    EXPECT_TRUE(process_->AddDataChannelId(77, 1001));
    EXPECT_FALSE(process_->AddDataChannelId(77, 1002));
    EXPECT_EQ(process_->QueryDataChannelId(77), 1001);
    EXPECT_TRUE(process_->EraseDataChannelId(77));
    EXPECT_FALSE(process_->EraseDataChannelId(77));
}

// Stops and disconnect notices that find nothing to stop answer 1001 and send nothing.
TEST_F(SpineTest, StopsWithNothingToStopAnswer1001)
{
    EXPECT_EQ(process_->ProcessDisconnect(peer_.networkId), 1001);
    EXPECT_EQ(process_->SendStopTakePhotoReq(501, ""), 1001);
    EXPECT_EQ(process_->SendStopTakePhotoReq(501, peer_.networkId), 1001);  // no session id
    EXPECT_TRUE(app_->Calls().empty());
    EXPECT_TRUE(env_->bus_.Closes().empty());
    EXPECT_TRUE(meshline_->Requests().empty());
}

// The header on the wire, written out by hand: code then size, each four bytes, least
// significant first, and nothing between them and the payload.
TEST_F(SpineTest, HeaderBytesOnTheWire)
{
    Collaboration collaboration = Start();
    ASSERT_EQ(process_->SendCodeBack(CODE_CAMERA_STARTED, collaboration.sessionId), 0);
    CameraMsgHeader count{CODE_PHOTO_COUNT, 0x01020304};
    ASSERT_EQ(process_->SendMsgHeaderByControlChannel(collaboration.sessionId, count), 0);
    auto sent = device_.Peer().SentOnSession(collaboration.sessionId);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].bytes, std::string("\xff\x20\xad\x3b\x00\x00\x00\x00", 8));
    EXPECT_EQ(sent[1].bytes, std::string("\xf8\x20\xad\x3b\x04\x03\x02\x01", 8));
    EXPECT_EQ(sent[0].type, 2u);

    // A photo as the requesting side reads it: the payload starts right after the eight bytes.
    PeerSends(collaboration, std::string("\xf8\x20\xad\x3b\x01\x00\x00\x00", 8));
    AwaitPhotoWait();
    PeerSends(collaboration, std::string("\x80\x19\xad\x3b\x03\x00\x00\x00xyz", 11), true);
    ASSERT_TRUE(app_->Await(1, EVENT_LAST_PHOTO));
    EXPECT_EQ(app_->Calls(102).at(0).bytes, "xyz");
}

TEST(SpineIdTest, ResolveCollaborationIdAcceptsOnlyADecimalIdBeforeTheDash)
{
    // clang-format off
    const std::pair<std::string, uint32_t> accepted[] = {{"12-abc", 12}, {"00000000007-PEERNETWORKID0001", 7},
        {"4294967295-x", 4294967295u}, {"000000000012-x", 12}, {"12-", 12}, {"1-2-3", 1}};
    // clang-format on
    for (const auto& [text, expected] : accepted) {
        EXPECT_EQ(CameraAbilityProcess::ResolveCollaborationId(text), expected) << text;
    }
    for (const char* text : {"", "-12", "12", "1a-x", " 1-x", "+1-x", "4294967296-x", "0000000000012-x"}) {
        EXPECT_EQ(CameraAbilityProcess::ResolveCollaborationId(text), 0u) << text;
    }
}

// Runs Start on a thread: the status and the simulated time the wait took.
std::future<std::pair<int32_t, Clock::Duration>> StartWaiting(Pending<int32_t>& pending, int32_t seconds)
{
    return std::async(std::launch::async, [&pending, seconds]() {
        const auto begin = Clock::Now();
        const int32_t status = pending.Start(seconds).first;
        return std::make_pair(status, Clock::Now() - begin);
    });
}

TEST(SpinePendingTest, WaitsEndExactlyWhenStoppedOrTimedOut)
{
    Clock::UseSimulatedTime();
    Pending<int32_t> stopped;
    stopped.Stop();
    EXPECT_EQ(stopped.Start(10).first, PENDING_STOPPED);
    Pending<int32_t> zero;
    EXPECT_EQ(zero.Start(0).first, PENDING_TIMEOUT);

    // A refresh at 9 s grants a whole new period from that moment: 19 s in all.
    Pending<int32_t> pending;
    auto waiter = StartWaiting(pending, 10);
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    Clock::Advance(9s);
    pending.Refresh(10);
    Clock::Advance(9999ms);
    EXPECT_EQ(waiter.wait_for(0s), std::future_status::timeout);
    Clock::Advance(1ms);
    ASSERT_EQ(waiter.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(waiter.get(), std::make_pair(PENDING_TIMEOUT, Clock::Duration(19s)));
    Clock::UseRealTime();
}

TEST(SpineErrorCodeTest, MapsEveryKnownCodeWhateverTheStatusAndOthersByStatus)
{
    const uint32_t named[][2] = {{2005, 1001202004},       {1001201907, 1001202004}, {2012, 1001202008},
                                 {1001201901, 1001202009}, {1001201913, 1001202005}, {1001201914, 1001202011},
                                 {3867803653u, 1001202011}};
    for (const auto& [code, ui] : named) {
        for (uint32_t status : {0u, 1u, 2u}) {
            EXPECT_EQ(CameraAbilityProcess::GetErrorCode(status, code), ui) << code << " status " << status;
        }
    }
    for (uint32_t code : {42u, 2010u, 1001u, 1001201909u, 1001201905u}) {
        EXPECT_EQ(CameraAbilityProcess::GetErrorCode(1, code), 1001202009u) << code;
        EXPECT_EQ(CameraAbilityProcess::GetErrorCode(0, code), 1001202002u) << code;
        EXPECT_EQ(CameraAbilityProcess::GetErrorCode(2, code), 1001202002u) << code;
    }
}

TEST_F(SpineTest, EventsHaveOneKeyLayoutFixedValuesAndALimitThatStillLogs)
{
    Vex::VexSysEvent::SetWriteLimit(100, std::chrono::seconds(5));
    Vex::VexSysEvent::ResetWriteLimit();
    Vex::SysEventCapture events;
    DFX::ReportRequestError(TNDR_DFX_SITE, DFX::StageRes::FAILED, 461440990, "PEER", "00000000001-PEER");
    ASSERT_EQ(events.Records().size(), 1u);
    const Vex::SysEventRecord record = events.Records()[0];
    EXPECT_EQ(record.domain, "TANDRA");
    EXPECT_EQ(record.name, "SERVICE_COLLABORATION_EVENT");
    EXPECT_EQ(record.type, 2);
    std::vector<std::string> keys;
    for (const auto& param : record.params) {
        keys.push_back(param.first);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"FUNC", "BIZ_SCENE", "BIZ_STAGE", "ORG_PKG", "STAGE_RES", "ERROR_CODE",
                                              "TRIGGER_MODE", "COMM_SERV", "BIZ", "LOCAL_UDID", "LOCAL_NET_ID",
                                              "LOCAL_DEV_TYPE", "TO_CALL_PKG", "LOCAL_SESS_NAME", "PEER_SESS_NAME",
                                              "IS_TRUST", "BIZ_STATE", "PEER_NET_ID"}));
    const DeviceIdentity local = device_.Identity();
    const std::pair<const char*, SysEventValue> values[] = {
        {"FUNC", SysEventValue(std::string("TestBody"))},
        {"STAGE_RES", SysEventValue(int32_t{2})},
        {"ERROR_CODE", SysEventValue(int32_t{461440990})},
        {"ORG_PKG", SysEventValue(std::string("Tandra"))},
        {"TRIGGER_MODE", SysEventValue(int32_t{1})},
        {"COMM_SERV", SysEventValue(int32_t{1})},
        {"BIZ", SysEventValue(int32_t{1})},
        {"LOCAL_UDID", SysEventValue(DfxHelper::GetAnonymousID(local.udid))},
        {"LOCAL_NET_ID", SysEventValue(DfxHelper::GetAnonymousID(local.networkId))},
        {"LOCAL_DEV_TYPE", SysEventValue(std::string("e"))},  // 0x0E
        {"IS_TRUST", SysEventValue(true)},
        {"PEER_NET_ID", SysEventValue(DfxHelper::GetAnonymousID("PEER"))}};
    std::map<std::string, SysEventValue> params(record.params.begin(), record.params.end());
    for (const auto& [key, value] : values) {
        EXPECT_EQ(params[key], value) << key;
    }

    // One write per call site within the period: the second is dropped, both are logged.
    events.Clear();
    Vex::VexSysEvent::SetWriteLimit(1, std::chrono::seconds(5));
    Vex::LogCapture log;
    for (int i = 0; i < 2; ++i) {
        DFX::ReportStage(TNDR_DFX_SITE, DFX::BizScene::TAKE_PHOTO_COMMAND, DFX::SerCollBizStage::DATA_CHANNEL,
                         DFX::StageRes::SUCCESS);
    }
    EXPECT_EQ(events.Records().size(), 1u);
    EXPECT_EQ(log.Count("event = SERVICE_COLLABORATION_EVENT; stage = 7; res = 1; err = 0"), 2u);
    Vex::VexSysEvent::SetWriteLimit(100, std::chrono::seconds(5));
}

}  // namespace
}  // namespace QUEX::Tandra::RequestingTesting
