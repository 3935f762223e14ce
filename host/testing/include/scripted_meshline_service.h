// ScriptedMeshlineService: the host's scripted backend of the connection-manager service
// (system ability 70633, "quex.ITandra.ITandraService"), serving the Meshline operations
// (request code 501, operations 1 to 16). It decodes every request from the wire layouts alone,
// sharing no code with the client, so a disagreement between the two sides shows up; records
// each request as plain values; answers with scripted results; and calls recorded callback
// objects back ("quex.ITandra.ITandraCallback", code 501, sub-services 502 to 506).
//
// Thread-safety: every member may be called from any thread, and requests may arrive on many
// threads at once. Scripted actions (OnRequest, AnswerApplyResource) run on the service's own
// thread, after the request that triggered them has been answered.
//
// Typical use in a component test:
//   auto service = ScriptedMeshlineService::Create(kServicePid, kServiceUid);
//   service->Register();
//   service->AnswerApplyResource(320001);             // grant every resource application
//   ... drive the plugin ...
//   auto apply = service->WaitForRequest(MeshlineOp::APPLY_ADVANCED_RESOURCE);
//   ASSERT_TRUE(apply.has_value());
//   EXPECT_EQ(apply->strings.at(1), "Tandra");
//   service->CallDisconnected(apply->callback, "", networkId, "disconnect", 0);
//   service->Unregister();
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "iremote_stub.h"

namespace QUEX::Tandra::Testing {

using Vex::IRemoteObject;
using Vex::MessageOption;
using Vex::MessageParcel;
using Vex::sptr;

// Operation codes: the sub-service type, second Uint32 of the request envelope.
enum MeshlineOp : uint32_t {
    REGISTER_DEVICE_STATE_MANAGER_CALLBACK = 1,
    UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK = 2,
    NOTIFY_DEVICE_CONNECT_STATE = 3,
    CHECK_CONFLICT = 4,
    DISCONNECT_CURRENT_DEVICE = 5,
    REGISTER_DEVICE_STATE_SUBSCRIBER = 6,
    UNREGISTER_DEVICE_STATE_SUBSCRIBER = 7,
    SUBSCRIBE_SERVICE_STATE = 8,
    UNSUBSCRIBE_SERVICE_STATE = 9,
    SUBSCRIBE_NOTIFY_DISCONNECT = 10,
    UNSUBSCRIBE_NOTIFY_DISCONNECT = 11,
    PUBLISH_SERVICE_STATE = 12,
    APPLY_ADVANCED_RESOURCE = 13,
    NOTIFY_ALL_STATE = 14,
    SUBSCRIBE_SERVICE_STATE_WITH_PID = 15,
    UNSUBSCRIBE_SERVICE_STATE_WITH_PID = 16,
};

// Sub-service types of the Meshline callbacks.
enum MeshlineCallbackEvent : uint32_t {
    DISCONNECT_DEVICE_EVENT = 502,
    STATE_NOTIFY_EVENT = 503,
    SERVICE_STATE_CHANGED_EVENT = 504,
    DISCONNECTED_EVENT = 505,
    APPLY_RESULT_EVENT = 506,
};

struct HardwareValues {
    bool present = false;
    uint32_t type = 0;
    bool canShare = false;
};

struct CommunicationValues {
    bool present = false;
    int32_t minBandwidth = 0;
    int32_t maxLatency = 0;
    int32_t minLatency = 0;
    int32_t maxWaitTime = 0;
    int32_t maxBuffer = 0;
    int32_t maxIdleTime = 0;
    int32_t firstPackage = 0;
    int32_t transReliability = 0;
    std::string dataType;
};

struct ResourceRequestValues {
    bool present = false;
    std::vector<HardwareValues> remote;
    std::vector<HardwareValues> local;
    CommunicationValues communication;
};

struct ServiceStateValues {
    bool present = false;
    std::string deviceId;
    uint32_t linkType = 0;
    uint32_t connectState = 0;
};

// One task of a CheckConflict answer; present false writes an absent entry.
struct TaskValues {
    bool present = true;
    std::string deviceId;
    uint32_t serviceType = 0;
    uint32_t linkType = 0;
    uint32_t connectState = 0;
    uint32_t canDisconnectFlag = 0;
};

// One request as it arrived.
struct RecordedRequest {
    uint64_t sequence = 0;  // arrival order across all operations, from 1
    uint32_t code = 0;      // the request code of SendRequest
    int32_t callingPid = 0;
    int32_t callingUid = 0;
    std::u16string token;
    // The envelope after the token.
    uint32_t serviceType = 0;
    uint32_t operation = 0;
    uint32_t operateCode = 0;
    uint32_t subOperateCode = 0;
    uint32_t command = 0;
    // The operation's arguments, by kind, in the order they were written.
    std::vector<std::string> strings;
    std::vector<uint32_t> uints;
    std::vector<int32_t> ints;
    sptr<IRemoteObject> callback;     // the callback object, when the operation carries one
    ServiceStateValues serviceState;  // NOTIFY_DEVICE_CONNECT_STATE
    ResourceRequestValues resource;   // APPLY_ADVANCED_RESOURCE
    bool complete = false;            // every item of the operation's layout was readable
    size_t unreadBytes = 0;           // bytes left after the layout (a client writing too much)
    std::vector<uint8_t> bytes;       // the whole data parcel as sent
};

// What a callback answered.
struct CallbackReply {
    int32_t status = 0;    // the result of SendRequest (the stub's own result)
    bool replied = false;  // the reply carried an Int32
    int32_t value = 0;     // that Int32
};

class ScriptedMeshlineService : public Vex::IPCObjectStub {
public:
    static constexpr int32_t SYSTEM_ABILITY_ID = 70633;
    static constexpr uint32_t MESHLINE_CODE = 501;
    static constexpr uint32_t ALL_OPERATIONS = 0;
    static constexpr std::chrono::milliseconds DEFAULT_WAIT{5000};

    // Owned by the calling thread's process.
    static sptr<ScriptedMeshlineService> Create();
    // Owned by the process pid (declare it dead to kill the service).
    static sptr<ScriptedMeshlineService> Create(int32_t pid, int32_t uid);
    ~ScriptedMeshlineService() override;

    // Adds / removes this service as system ability 70633 of the current manager.
    bool Register();
    void Unregister();

    // --- Answers -------------------------------------------------------------------------
    // The Int32 result of an operation (default 0).
    void SetResult(uint32_t operation, int32_t result);
    // The second Int32 of operations 15 and 16 (default 0).
    void SetSecondValue(uint32_t operation, int32_t value);
    // The task list of every CheckConflict answer (default empty).
    void SetTaskList(std::vector<TaskValues> tasks);
    // Replaces the whole reply of an operation (for malformed answers); null restores.
    void SetReplyWriter(uint32_t operation, std::function<void(MessageParcel& reply)> writer);
    // Makes the transport fail the operation (or ALL_OPERATIONS) with error; 0 restores.
    void SetSendFailure(uint32_t operation, int32_t error = Vex::ERR_TRANSACTION_FAILED);
    // Runs action on the service's thread after every later request of the operation.
    void OnRequest(uint32_t operation, std::function<void(const RecordedRequest&)> action);
    // Answers every later resource application with a 506 callback
    // (applicant, service name, reason, 0, serviceResult) on the service's thread.
    void AnswerApplyResource(int32_t serviceResult, std::string reason = "");

    // --- Recorded requests ---------------------------------------------------------------
    std::vector<RecordedRequest> Requests() const;
    std::vector<RecordedRequest> Requests(uint32_t operation) const;
    size_t RequestCount(uint32_t operation) const;
    void ClearRequests();
    // The nth (from 1) request of the operation, waiting up to timeout (real time) for it.
    std::optional<RecordedRequest> WaitForRequest(uint32_t operation, size_t nth = 1,
                                                  std::chrono::milliseconds timeout = DEFAULT_WAIT);
    // Waits until every scripted action queued so far has run.
    bool WaitForActions(std::chrono::milliseconds timeout = DEFAULT_WAIT);

    // --- Calling back, as the service's process ------------------------------------------
    CallbackReply CallDisconnectDevice(const sptr<IRemoteObject>& callback, const std::string& deviceId,
                                       uint32_t serviceType);
    CallbackReply CallStateNotify(const sptr<IRemoteObject>& callback, int32_t state, const std::vector<uint32_t>& ids,
                                  const std::vector<ServiceStateValues>& infos);
    CallbackReply CallServiceStateChanged(const sptr<IRemoteObject>& callback, const std::string& first,
                                          const std::string& second, const std::string& third, int32_t state,
                                          int32_t value);
    CallbackReply CallDisconnected(const sptr<IRemoteObject>& callback, const std::string& first,
                                   const std::string& second, const std::string& third, int32_t value);
    CallbackReply CallApplyResult(const sptr<IRemoteObject>& callback, const std::string& first,
                                  const std::string& second, const std::string& third, int32_t value,
                                  int32_t serviceResult);
    // Sends a parcel built by the caller (see WriteCallbackHeader) with any request code.
    CallbackReply CallRaw(const sptr<IRemoteObject>& callback, uint32_t code, MessageParcel& data);
    // The callback token and the five Uint32 of a callback header.
    static void WriteCallbackHeader(MessageParcel& data, uint32_t serviceType, uint32_t subServiceType,
                                    uint32_t operateCode = 0, uint32_t subOperateCode = 0, uint32_t command = 0);

    int OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

private:
    ScriptedMeshlineService();

    struct Script {
        std::map<uint32_t, int32_t> results;
        std::map<uint32_t, int32_t> secondValues;
        std::vector<TaskValues> tasks;
        std::map<uint32_t, std::function<void(MessageParcel&)>> replyWriters;
        std::map<uint32_t, int32_t> sendFailures;
        std::map<uint32_t, std::vector<std::function<void(const RecordedRequest&)>>> actions;
    };

    RecordedRequest Decode(uint32_t code, MessageParcel& data) const;
    void WriteReply(const RecordedRequest& request, MessageParcel& reply);
    void QueueAction(std::function<void()> action);
    void RunActions();
    CallbackReply CallMeshline(const sptr<IRemoteObject>& callback, uint32_t event,
                               const std::function<void(MessageParcel&)>& writeArguments);

    mutable std::mutex mutex_;
    std::condition_variable requestArrived_;
    Script script_;
    std::vector<RecordedRequest> requests_;
    uint64_t nextSequence_ = 1;

    std::mutex actionMutex_;
    std::condition_variable actionCv_;
    std::deque<std::function<void()>> actionQueue_;
    bool actionRunning_ = false;
    bool stopping_ = false;
    std::thread actionThread_;
};

}  // namespace QUEX::Tandra::Testing
