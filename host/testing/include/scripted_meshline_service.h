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
#include "meshline_wire.h"

namespace QUEX::Tandra::Testing {

using Vex::IRemoteObject;
using Vex::MessageOption;
using Vex::MessageParcel;
using Vex::sptr;

using namespace MeshlineWire;

// One request as it arrived: the decoded request and how it came.
struct RecordedRequest : MeshlineWire::Request {
    uint64_t sequence = 0;  // arrival order across all operations, from 1
    uint32_t code = 0;      // the request code of SendRequest
    int32_t callingPid = 0;
    int32_t callingUid = 0;
    std::vector<uint8_t> bytes;  // the whole data parcel as sent
};

// What a callback answered.
struct CallbackReply {
    int32_t status = 0;    // the result of SendRequest (the stub's own result)
    bool replied = false;  // the reply carried an Int32
    int32_t value = 0;     // that Int32
};

class ScriptedMeshlineService : public Vex::IPCObjectStub {
public:
    static constexpr int32_t SYSTEM_ABILITY_ID = MeshlineWire::SYSTEM_ABILITY_ID;
    static constexpr uint32_t MESHLINE_CODE = MeshlineWire::MESHLINE_CODE;
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
    CallbackReply CallMeshline(const sptr<IRemoteObject>& callback, const std::function<void(MessageParcel&)>& write);

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
