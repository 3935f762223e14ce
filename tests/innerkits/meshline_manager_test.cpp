// The Meshline client against the scripted service: for every operation its checks, what
// travels, and its result on a missing service, a failed send and the service's answer; then
// the replies that carry more than a result.
#include <gtest/gtest.h>

#include <functional>

#include "innerkits_test_util.h"
#include "ipc_result_codes.h"
#include "vex_log.h"

namespace QUEX::Tandra::Testing {
namespace {

MeshlineManager& Manager()
{
    return MeshlineManager::GetInstance();
}

// The callback handed to the operations that carry one; made lazily, after the fixture.
sptr<CallbackSkeleton>& Callback()
{
    static sptr<CallbackSkeleton> callback;
    return callback;
}

sptr<ResourceRequest> CameraResourceRequest()
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

struct Refusal {
    const char* line;
    std::function<int32_t()> call;
};

struct OperationCase {
    const char* name;
    uint32_t operation;
    std::function<int32_t()> call;  // with arguments that pass the checks
    std::vector<Refusal> refusals;
    int32_t refusedResult;
    int32_t noServiceResult;
    std::vector<std::string> strings;  // what the service must decode
    std::vector<uint32_t> uints;
    std::vector<int32_t> ints;
    bool carriesCallback;
};

const std::vector<OperationCase>& Cases()
{
    static const std::vector<OperationCase> cases = {
        {"RegisterDeviceStateManagerCallback",
         REGISTER_DEVICE_STATE_MANAGER_CALLBACK,
         [] { return Manager().RegisterDeviceStateManagerCallback("dev", 7, Callback()); },
         {{"callback is null", [] { return Manager().RegisterDeviceStateManagerCallback("dev", 7, nullptr); }}},
         1001,
         1012,
         {"dev"},
         {7},
         {},
         true},
        {"UnRegisterDeviceStateManagerCallback",
         UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK,
         [] { return Manager().UnRegisterDeviceStateManagerCallback("dev", 7); },
         {{"deviceId is 1.", [] { return Manager().UnRegisterDeviceStateManagerCallback("", 7); }}},
         1001,
         1012,
         {"dev"},
         {7},
         {},
         false},
        {"NotifyDeviceConnectState",
         NOTIFY_DEVICE_CONNECT_STATE,
         [] { return Manager().NotifyDeviceConnectState("dev", 7, new ServiceStateInfo("dev", 2, 3)); },
         {{"deviceId is 1 or serviceStateInfo is 0.",
           [] { return Manager().NotifyDeviceConnectState("", 7, new ServiceStateInfo("dev", 2, 3)); }},
          {"deviceId is 0 or serviceStateInfo is 1.",
           [] { return Manager().NotifyDeviceConnectState("dev", 7, nullptr); }}},
         1001,
         1012,
         {"dev"},
         {7},
         {},
         false},
        {"CheckConflict",
         CHECK_CONFLICT,
         [] { return CheckConflictFor("dev"); },
         {{"deviceId is 1.", [] { return CheckConflictFor(""); }}},
         1001,
         1012,
         {"dev"},
         {7, 2},
         {},
         false},
        {"DisconnectCurrentDevice",
         DISCONNECT_CURRENT_DEVICE,
         [] { return Manager().DisconnectCurrentDevice("dev", 7, 2); },
         {{"deviceId is 1.", [] { return Manager().DisconnectCurrentDevice("", 7, 2); }}},
         1001,
         1012,
         {"dev"},
         {7, 2},
         {},
         false},
        {"RegisterDeviceStateSubscriber",
         REGISTER_DEVICE_STATE_SUBSCRIBER,
         [] { return Manager().RegisterDeviceStateSubscriber(Callback()); },
         {{"callback is null", [] { return Manager().RegisterDeviceStateSubscriber(nullptr); }}},
         1001,
         1012,
         {},
         {},
         {},
         true},
        {"UnRegisterDeviceStateSubscriber",
         UNREGISTER_DEVICE_STATE_SUBSCRIBER,
         [] { return Manager().UnRegisterDeviceStateSubscriber(); },
         {},
         1001,
         1012,
         {},
         {},
         {},
         false},
        {"SubscribeServiceState",
         SUBSCRIBE_SERVICE_STATE,
         [] { return Manager().SubscribeServiceState(Callback()); },
         {{"callback is null or eventName is empty.", [] { return Manager().SubscribeServiceState(nullptr); }}},
         1001,
         1012,
         {},
         {},
         {},
         true},
        {"UnSubscribeServiceState",
         UNSUBSCRIBE_SERVICE_STATE,
         [] { return Manager().UnSubscribeServiceState(); },
         {},
         1001,
         1012,
         {},
         {},
         {},
         false},
        {"SubscribeNotifyDisconnect",
         SUBSCRIBE_NOTIFY_DISCONNECT,
         [] { return Manager().SubscribeNotifyDisconnect("net", "Tandra", "disconnect", Callback()); },
         {{"callback is null or param is empty.",
           [] { return Manager().SubscribeNotifyDisconnect("", "Tandra", "disconnect", Callback()); }},
          {"callback is null or param is empty.",
           [] { return Manager().SubscribeNotifyDisconnect("net", "", "disconnect", Callback()); }},
          {"callback is null or param is empty.",
           [] { return Manager().SubscribeNotifyDisconnect("net", "Tandra", "", Callback()); }},
          {"callback is null or param is empty.",
           [] { return Manager().SubscribeNotifyDisconnect("net", "Tandra", "disconnect", nullptr); }}},
         1001,
         1012,
         {"net", "Tandra", "disconnect"},
         {},
         {},
         true},
        {"UnSubscribeNotifyDisconnect",
         UNSUBSCRIBE_NOTIFY_DISCONNECT,
         [] { return Manager().UnSubscribeNotifyDisconnect("net", "Tandra"); },
         {{"param is empty.", [] { return Manager().UnSubscribeNotifyDisconnect("", "Tandra"); }},
          {"param is empty.", [] { return Manager().UnSubscribeNotifyDisconnect("net", ""); }}},
         1001,
         1012,
         {"net", "Tandra"},
         {},
         {},
         false},
        {"PublishServiceState",
         PUBLISH_SERVICE_STATE,
         [] { return Manager().PublishServiceState("net", "Tandra", "", 2); },
         {{"param is error.", [] { return Manager().PublishServiceState("", "Tandra", "x", 2); }},
          {"param is error.", [] { return Manager().PublishServiceState("net", "", "x", 2); }},
          {"param is error.", [] { return Manager().PublishServiceState("net", "Tandra", "x", 0); }},
          {"param is error.", [] { return Manager().PublishServiceState("net", "Tandra", "x", 5); }}},
         1001,
         1012,
         {"net", "Tandra", ""},
         {},
         {2},
         false},
        {"ApplyAdvancedResource",
         APPLY_ADVANCED_RESOURCE,
         [] { return Manager().ApplyAdvancedResource("peer", "Tandra", CameraResourceRequest(), Callback()); },
         {{"callback is null or param is empty.",
           [] { return Manager().ApplyAdvancedResource("peer", "Tandra", nullptr, Callback()); }},
          {"callback is null or param is empty.",
           [] { return Manager().ApplyAdvancedResource("", "Tandra", CameraResourceRequest(), Callback()); }},
          {"callback is null or param is empty.",
           [] { return Manager().ApplyAdvancedResource("peer", "", CameraResourceRequest(), Callback()); }},
          {"callback is null or param is empty.",
           [] { return Manager().ApplyAdvancedResource("peer", "Tandra", CameraResourceRequest(), nullptr); }}},
         22,
         32,
         {"peer", "Tandra"},
         {},
         {},
         true},
        {"NotifyAllState",
         NOTIFY_ALL_STATE,
         [] { return Manager().NotifyAllState(); },
         {},
         1001,
         1012,
         {},
         {},
         {},
         false},
        {"SubscribeServiceStateWithPid",
         SUBSCRIBE_SERVICE_STATE_WITH_PID,
         [] { return Manager().SubscribeServiceStateWithPid(Callback()).first; },
         {{"callback is null or eventName is empty.",
           [] { return Manager().SubscribeServiceStateWithPid(nullptr).first; }}},
         1001,
         1012,
         {},
         {},
         {},
         true},
        {"UnSubscribeServiceStateWithPid",
         UNSUBSCRIBE_SERVICE_STATE_WITH_PID,
         [] { return Manager().UnSubscribeServiceStateWithPid().first; },
         {},
         1001,
         1012,
         {},
         {},
         {},
         false},
    };
    return cases;
}

class MeshlineOperationTest : public InnerkitsTest, public ::testing::WithParamInterface<OperationCase> {
protected:
    void SetUp() override
    {
        InnerkitsTest::SetUp();
        Callback() = new RecordingCallback();
    }
    void TearDown() override
    {
        Callback() = nullptr;
        InnerkitsTest::TearDown();
    }
};

TEST_P(MeshlineOperationTest, ChecksRefuseBeforeAnythingIsSent)
{
    const OperationCase& c = GetParam();
    ScriptedMeshlineService& service = StartService();
    for (const Refusal& refusal : c.refusals) {
        LogCapture log;
        EXPECT_EQ(refusal.call(), c.refusedResult) << refusal.line;
        EXPECT_TRUE(log.Contains(refusal.line)) << refusal.line;
    }
    EXPECT_TRUE(service.Requests().empty());
    EXPECT_EQ(saManager_->Lookups(), 0);
}

TEST_P(MeshlineOperationTest, MissingServiceFailedSendAndServiceAnswer)
{
    const OperationCase& c = GetParam();
    EXPECT_EQ(c.call(), c.noServiceResult);

    ScriptedMeshlineService& service = StartService();
    service.SetSendFailure(c.operation);
    EXPECT_EQ(c.call(), IpcResult::IPC_SEND_FAILED);

    service.SetSendFailure(c.operation, 0);
    service.SetResult(c.operation, 4242);
    EXPECT_EQ(c.call(), 4242);
}

TEST_P(MeshlineOperationTest, ServiceDecodesTheArgumentsFromTheLayout)
{
    const OperationCase& c = GetParam();
    ScriptedMeshlineService& service = StartService();
    ASSERT_EQ(c.call(), 0);

    auto request = service.WaitForRequest(c.operation);
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->code, 501u);
    EXPECT_EQ(request->serviceType, 501u);
    EXPECT_EQ(request->operation, c.operation);
    EXPECT_EQ(request->operateCode, 0u);
    EXPECT_EQ(request->subOperateCode, 0u);
    EXPECT_EQ(request->command, 0u);
    EXPECT_TRUE(request->complete);
    EXPECT_EQ(request->unreadBytes, 0u);
    EXPECT_EQ(request->strings, c.strings);
    EXPECT_EQ(request->uints, c.uints);
    EXPECT_EQ(request->ints, c.ints);
    if (c.carriesCallback) {
        EXPECT_EQ(request->callback, Callback()->AsObject());
    } else {
        EXPECT_EQ(request->callback, nullptr);
    }
}

void PrintTo(const OperationCase& c, std::ostream* out)
{
    *out << c.name;
}

INSTANTIATE_TEST_SUITE_P(AllOperations, MeshlineOperationTest, ::testing::ValuesIn(Cases()),
                         [](const auto& info) { return std::string(info.param.name); });

using MeshlineReplyTest = InnerkitsTest;

TEST_F(MeshlineReplyTest, PublishServiceStateSendsStatesOneToFour)
{
    ScriptedMeshlineService& service = StartService();
    for (int32_t state = 1; state <= 4; ++state) {
        EXPECT_EQ(Manager().PublishServiceState("net", "Tandra", "", state), 0);
    }
    auto requests = service.Requests(PUBLISH_SERVICE_STATE);
    ASSERT_EQ(requests.size(), 4u);
    for (int32_t state = 1; state <= 4; ++state) {
        EXPECT_EQ(requests[state - 1].ints, std::vector<int32_t>{state});
    }
}

TEST_F(MeshlineReplyTest, ResourceRequestTravelsFieldForField)
{
    ScriptedMeshlineService& service = StartService();
    sptr<CallbackSkeleton> callback = new RecordingCallback();
    ASSERT_EQ(Manager().ApplyAdvancedResource("peer", "Tandra", CameraResourceRequest(), callback), 0);

    auto request = service.WaitForRequest(APPLY_ADVANCED_RESOURCE);
    ASSERT_TRUE(request.has_value());
    const ResourceRequestValues& resource = request->resource;
    ASSERT_TRUE(resource.present);
    ASSERT_EQ(resource.remote.size(), 2u);
    EXPECT_TRUE(resource.remote[0].present);
    EXPECT_EQ(resource.remote[0].type, 1u);
    EXPECT_TRUE(resource.remote[0].canShare);
    EXPECT_EQ(resource.remote[1].type, 4u);
    EXPECT_FALSE(resource.remote[1].canShare);
    EXPECT_TRUE(resource.local.empty());
    const CommunicationValues& communication = resource.communication;
    ASSERT_TRUE(communication.present);
    EXPECT_EQ(communication.minBandwidth, 20971520);
    EXPECT_EQ(communication.maxLatency, 19000);
    EXPECT_EQ(communication.minLatency, 2000);
    EXPECT_EQ(communication.maxWaitTime, 10);
    EXPECT_EQ(communication.maxBuffer, 134217728);
    EXPECT_EQ(communication.dataType, "DATA_TYPE_BYTES");
}

TEST_F(MeshlineReplyTest, ServiceStateInfoTravelsFieldForField)
{
    ScriptedMeshlineService& service = StartService();
    ASSERT_EQ(Manager().NotifyDeviceConnectState("dev", 7, new ServiceStateInfo("peer", 5, 3)), 0);
    auto request = service.WaitForRequest(NOTIFY_DEVICE_CONNECT_STATE);
    ASSERT_TRUE(request.has_value());
    EXPECT_TRUE(request->serviceState.present);
    EXPECT_EQ(request->serviceState.deviceId, "peer");
    EXPECT_EQ(request->serviceState.linkType, 5u);
    EXPECT_EQ(request->serviceState.connectState, 3u);
}

TEST_F(MeshlineReplyTest, PidBoundOperationsReturnBothReplyValues)
{
    ScriptedMeshlineService& service = StartService();
    sptr<CallbackSkeleton> callback = new RecordingCallback();
    service.SetResult(SUBSCRIBE_SERVICE_STATE_WITH_PID, 3);
    service.SetSecondValue(SUBSCRIBE_SERVICE_STATE_WITH_PID, 77);
    service.SetSecondValue(UNSUBSCRIBE_SERVICE_STATE_WITH_PID, 78);
    EXPECT_EQ(Manager().SubscribeServiceStateWithPid(callback), std::make_pair(3, 77));
    EXPECT_EQ(Manager().UnSubscribeServiceStateWithPid(), std::make_pair(0, 78));

    service.SetSendFailure(ScriptedMeshlineService::ALL_OPERATIONS);
    EXPECT_EQ(Manager().UnSubscribeServiceStateWithPid(), std::make_pair(IpcResult::IPC_SEND_FAILED, 0));
}

TEST_F(MeshlineReplyTest, CheckConflictSkipsAbsentTasksAndAppends)
{
    ScriptedMeshlineService& service = StartService();
    TaskValues task;
    task.deviceId = "peer";
    task.serviceType = 3;
    task.linkType = 2;
    task.connectState = 1;
    task.canDisconnectFlag = 1;
    TaskValues absent;
    absent.present = false;
    service.SetTaskList({absent, task});
    service.SetResult(CHECK_CONFLICT, 9);

    std::vector<sptr<DistributeTaskInfo>> tasks{new DistributeTaskInfo("earlier", 0, 0)};
    EXPECT_EQ(Manager().CheckConflict("peer", 3, 2, tasks), 9);
    ASSERT_EQ(tasks.size(), 2u);
    EXPECT_EQ(tasks[0]->GetDeviceId(), "earlier");
    EXPECT_EQ(tasks[1]->GetDeviceId(), "peer");
    EXPECT_EQ(tasks[1]->GetServiceType(), 3u);
    EXPECT_EQ(tasks[1]->GetLinkType(), 2u);
    EXPECT_EQ(tasks[1]->GetConnectState(), 1u);
    EXPECT_EQ(tasks[1]->GetCanDisconnectFlag(), 1u);
}

TEST_F(MeshlineReplyTest, CheckConflictRefusesAListTheReplyCannotHold)
{
    struct Case {
        const char* name;
        std::function<void(MessageParcel&)> reply;
    };
    const Case cases[] = {
        // 3 entries need at least 24 bytes; 20 follow the count.
        {"CountTooLarge",
         [](MessageParcel& reply) {
             reply.WriteUint32(3);
             for (int i = 0; i < 5; ++i) {
                 reply.WriteInt32(0);
             }
         }},
        {"NoCount", [](MessageParcel&) {}},
    };
    ScriptedMeshlineService& service = StartService();
    for (const Case& c : cases) {
        service.SetReplyWriter(CHECK_CONFLICT, c.reply);
        std::vector<sptr<DistributeTaskInfo>> tasks{new DistributeTaskInfo("earlier", 0, 0)};
        EXPECT_EQ(Manager().CheckConflict("peer", 3, 2, tasks), IpcResult::IPC_SEND_FAILED) << c.name;
        EXPECT_EQ(tasks.size(), 1u) << c.name;
    }
}

}  // namespace
}  // namespace QUEX::Tandra::Testing
