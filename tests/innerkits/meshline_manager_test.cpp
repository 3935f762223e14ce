// The Meshline client against the scripted service: for every operation its checks, what
// travels, and its result on a missing service, a failed send and the service's answer; then
// the replies that carry more than a result.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"

namespace QUEX::Tandra::Testing {
namespace {

MeshlineManager& Manager()
{
    return MeshlineManager::GetInstance();
}

sptr<ResourceRequest> CameraRequest()
{
    sptr<ResourceRequest> request = new ResourceRequest();
    sptr<CommunicationRequest> communication = new CommunicationRequest(0x1400000, 19000, 2000, 10, 0x8000000);
    communication->SetDataType("DATA_TYPE_BYTES");
    request->SetCommunicationRequest(communication);
    request->SetRemoteHardwareList(
        {new HardwareRequest(HardwareType::CAMERA, true), new HardwareRequest(HardwareType::DISPLAY, false)});
    return request;
}

int32_t CheckConflictFor(const std::string& deviceId)
{
    std::vector<sptr<DistributeTaskInfo>> tasks;
    return Manager().CheckConflict(deviceId, 7, 2, tasks);
}

// "<operation>: <arguments>" as the service decoded them: strings, Uint32s, Int32s, records,
// then the callback object.
std::string Sent(const RecordedRequest& request, const sptr<CallbackSkeleton>& callback)
{
    std::string text = std::to_string(request.operation) + ":";
    for (const auto& value : request.strings) {
        text += " " + value;
    }
    for (int64_t value : request.uints) {
        text += " " + std::to_string(value);
    }
    for (int64_t value : request.ints) {
        text += " " + std::to_string(value);
    }
    const ServiceStateValues& state = request.serviceState;
    if (state.present) {
        text += " state " + Join(state.deviceId, state.linkType, state.connectState);
    }
    const ResourceRequestValues& resource = request.resource;
    for (const auto* list : {&resource.remote, &resource.local}) {
        text += resource.present ? (list == &resource.remote ? " remote" : " local") : "";
        for (const HardwareValues& hardware : *list) {
            text += hardware.present ? " " + std::to_string(hardware.type) + (hardware.canShare ? "+" : "-") : " null";
        }
    }
    const CommunicationValues& c = resource.communication;
    if (c.present) {
        text += " comm " + Join(c.minBandwidth, c.maxLatency, c.minLatency, c.maxWaitTime, c.maxBuffer, c.maxIdleTime,
                                c.firstPackage, c.transReliability, c.dataType);
    }
    if (request.callback != nullptr) {
        text += request.callback == callback->AsObject() ? " callback" : " another object";
    }
    return text;
}

// An operation called with the given callback where it takes one.
using Call = std::function<int32_t(const sptr<CallbackSkeleton>& callback)>;

struct OperationCase {
    const char* name;
    Call call;  // with arguments that pass the checks
    std::vector<Call> refusals;
    std::string sent;  // "<operation>: <arguments>", see Sent
    int32_t refusedResult = IpcResult::INVALID_PARAM;
    int32_t noServiceResult = IpcResult::SERVICE_DEAD;
};

// clang-format off
const OperationCase CASES[] = {
    {"RegisterDeviceStateManagerCallback",
     [](auto& cb) { return Manager().RegisterDeviceStateManagerCallback("dev", 7, cb); },
     {[](auto&) { return Manager().RegisterDeviceStateManagerCallback("dev", 7, nullptr); }}, "1: dev 7 callback"},
    {"UnRegisterDeviceStateManagerCallback",
     [](auto&) { return Manager().UnRegisterDeviceStateManagerCallback("dev", 7); },
     {[](auto&) { return Manager().UnRegisterDeviceStateManagerCallback("", 7); }}, "2: dev 7"},
    {"NotifyDeviceConnectState",
     [](auto&) { return Manager().NotifyDeviceConnectState("dev", 7, new ServiceStateInfo("peer", 5, 3)); },
     {[](auto&) { return Manager().NotifyDeviceConnectState("", 7, new ServiceStateInfo("dev", 2, 3)); },
      [](auto&) { return Manager().NotifyDeviceConnectState("dev", 7, nullptr); }}, "3: dev 7 state peer|5|3"},
    {"CheckConflict",
     [](auto&) { return CheckConflictFor("dev"); }, {[](auto&) { return CheckConflictFor(""); }}, "4: dev 7 2"},
    {"DisconnectCurrentDevice", [](auto&) { return Manager().DisconnectCurrentDevice("dev", 7, 2); },
     {[](auto&) { return Manager().DisconnectCurrentDevice("", 7, 2); }}, "5: dev 7 2"},
    {"RegisterDeviceStateSubscriber", [](auto& cb) { return Manager().RegisterDeviceStateSubscriber(cb); },
     {[](auto&) { return Manager().RegisterDeviceStateSubscriber(nullptr); }}, "6: callback"},
    {"UnRegisterDeviceStateSubscriber", [](auto&) { return Manager().UnRegisterDeviceStateSubscriber(); }, {}, "7:"},
    {"SubscribeServiceState", [](auto& cb) { return Manager().SubscribeServiceState(cb); },
     {[](auto&) { return Manager().SubscribeServiceState(nullptr); }}, "8: callback"},
    {"UnSubscribeServiceState", [](auto&) { return Manager().UnSubscribeServiceState(); }, {}, "9:"},
    {"SubscribeNotifyDisconnect",
     [](auto& cb) { return Manager().SubscribeNotifyDisconnect("net", "Tandra", "disconnect", cb); },
     {[](auto& cb) { return Manager().SubscribeNotifyDisconnect("", "Tandra", "disconnect", cb); },
      [](auto& cb) { return Manager().SubscribeNotifyDisconnect("net", "", "disconnect", cb); },
      [](auto& cb) { return Manager().SubscribeNotifyDisconnect("net", "Tandra", "", cb); },
      [](auto&) { return Manager().SubscribeNotifyDisconnect("net", "Tandra", "disconnect", nullptr); }},
     "10: net Tandra disconnect callback"},
    {"UnSubscribeNotifyDisconnect", [](auto&) { return Manager().UnSubscribeNotifyDisconnect("net", "Tandra"); },
     {[](auto&) { return Manager().UnSubscribeNotifyDisconnect("", "Tandra"); },
      [](auto&) { return Manager().UnSubscribeNotifyDisconnect("net", ""); }}, "11: net Tandra"},
    // States 1 to 4 are published; 0 and 5 are not.
    {"PublishServiceState", [](auto&) { return Manager().PublishServiceState("net", "Tandra", "", 1); },
     {[](auto&) { return Manager().PublishServiceState("", "Tandra", "x", 2); },
      [](auto&) { return Manager().PublishServiceState("net", "", "x", 2); },
      [](auto&) { return Manager().PublishServiceState("net", "Tandra", "x", 0); },
      [](auto&) { return Manager().PublishServiceState("net", "Tandra", "x", 5); }}, "12: net Tandra  1"},
    {"PublishServiceStateFour", [](auto&) { return Manager().PublishServiceState("net", "Tandra", "", 4); }, {},
     "12: net Tandra  4"},
    {"ApplyAdvancedResource",
     [](auto& cb) { return Manager().ApplyAdvancedResource("peer", "Tandra", CameraRequest(), cb); },
     {[](auto& cb) { return Manager().ApplyAdvancedResource("peer", "Tandra", nullptr, cb); },
      [](auto& cb) { return Manager().ApplyAdvancedResource("", "Tandra", CameraRequest(), cb); },
      [](auto& cb) { return Manager().ApplyAdvancedResource("peer", "", CameraRequest(), cb); },
      [](auto&) { return Manager().ApplyAdvancedResource("peer", "Tandra", CameraRequest(), nullptr); }},
     "13: peer Tandra remote 1+ 4- local comm 20971520|19000|2000|10|134217728|0|0|0|DATA_TYPE_BYTES callback",
     IpcResult::APPLY_INVALID_PARAM, IpcResult::APPLY_SERVICE_DEAD},
    {"NotifyAllState", [](auto&) { return Manager().NotifyAllState(); }, {}, "14:"},
    {"SubscribeServiceStateWithPid", [](auto& cb) { return Manager().SubscribeServiceStateWithPid(cb).first; },
     {[](auto&) { return Manager().SubscribeServiceStateWithPid(nullptr).first; }}, "15: callback"},
    {"UnSubscribeServiceStateWithPid",
     [](auto&) { return Manager().UnSubscribeServiceStateWithPid().first; }, {}, "16:"},
};
// clang-format on

class MeshlineOperationTest : public InnerkitsTest, public ::testing::WithParamInterface<OperationCase> {};

TEST_P(MeshlineOperationTest, ChecksResultsAndWhatTravels)
{
    const OperationCase& c = GetParam();
    sptr<CallbackSkeleton> callback = new RecordingCallback();
    EXPECT_EQ(c.call(callback), c.noServiceResult);

    // The checks refuse before the service is even looked up.
    ScriptedMeshlineService& service = StartService();
    int lookups = saManager_->Lookups();
    for (size_t i = 0; i < c.refusals.size(); ++i) {
        EXPECT_EQ(c.refusals[i](callback), c.refusedResult) << "refusal " << i;
    }
    EXPECT_TRUE(service.Requests().empty());
    EXPECT_EQ(saManager_->Lookups(), lookups);

    ASSERT_EQ(c.call(callback), 0);
    ASSERT_EQ(service.Requests().size(), 1u);
    const RecordedRequest request = service.Requests().front();
    EXPECT_EQ(std::tie(request.code, request.serviceType, request.operateCode, request.subOperateCode, request.command),
              std::make_tuple(501u, 501u, 0u, 0u, 0u));
    EXPECT_TRUE(request.complete);
    EXPECT_EQ(request.unreadBytes, 0u);
    EXPECT_EQ(Sent(request, callback), c.sent);

    service.SetResult(request.operation, 4242);
    EXPECT_EQ(c.call(callback), 4242);
    service.SetSendFailure(request.operation);
    EXPECT_EQ(c.call(callback), IpcResult::IPC_SEND_FAILED);
}

INSTANTIATE_TEST_SUITE_P(AllOperations, MeshlineOperationTest, ::testing::ValuesIn(CASES),
                         [](const auto& info) { return std::string(info.param.name); });

using MeshlineReplyTest = InnerkitsTest;

TEST_F(MeshlineReplyTest, PidBoundOperationsReturnBothReplyValues)
{
    ScriptedMeshlineService& service = StartService();
    service.SetResult(SUBSCRIBE_SERVICE_STATE_WITH_PID, 3);
    service.SetSecondValue(SUBSCRIBE_SERVICE_STATE_WITH_PID, 77);
    service.SetSecondValue(UNSUBSCRIBE_SERVICE_STATE_WITH_PID, 78);
    EXPECT_EQ(Manager().SubscribeServiceStateWithPid(new RecordingCallback()), std::make_pair(3, 77));
    EXPECT_EQ(Manager().UnSubscribeServiceStateWithPid(), std::make_pair(0, 78));
    service.SetSendFailure(ScriptedMeshlineService::ALL_OPERATIONS);
    EXPECT_EQ(Manager().UnSubscribeServiceStateWithPid(), std::make_pair(IpcResult::IPC_SEND_FAILED, 0));
}

// Tasks are appended to the caller's list, absent entries skipped; a count the reply cannot hold
// (3 entries need at least 24 bytes, 20 follow it) or no count at all leaves the list as it was.
TEST_F(MeshlineReplyTest, CheckConflictReadsTheTaskList)
{
    ScriptedMeshlineService& service = StartService();
    TaskValues absent;
    absent.present = false;
    service.SetTaskList({absent, TaskValues{true, "peer", 3, 2, 1, 1}});
    service.SetResult(CHECK_CONFLICT, 9);
    std::vector<sptr<DistributeTaskInfo>> tasks{new DistributeTaskInfo("earlier", 0, 0)};
    EXPECT_EQ(Manager().CheckConflict("peer", 3, 2, tasks), 9);
    ASSERT_EQ(tasks.size(), 2u);
    EXPECT_EQ(tasks[0]->GetDeviceId(), "earlier");
    EXPECT_EQ(Join(tasks[1]->GetDeviceId(), tasks[1]->GetServiceType(), tasks[1]->GetLinkType(),
                   tasks[1]->GetConnectState(), tasks[1]->GetCanDisconnectFlag()),
              "peer|3|2|1|1");

    for (size_t bytes : {20u, 0u}) {
        service.SetReplyWriter(CHECK_CONFLICT, [bytes](MessageParcel& reply) {
            if (bytes > 0) {
                reply.WriteUint32(3);
                reply.WriteBuffer(std::string(bytes, '\0').data(), bytes);
            }
        });
        EXPECT_EQ(Manager().CheckConflict("peer", 3, 2, tasks), IpcResult::IPC_SEND_FAILED) << bytes;
        EXPECT_EQ(tasks.size(), 2u) << bytes;
    }
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
