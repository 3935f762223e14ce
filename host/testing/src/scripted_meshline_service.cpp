#include "scripted_meshline_service.h"

#include <utility>

#include "ipc_skeleton.h"
#include "system_ability_manager.h"

namespace QUEX::Tandra::Testing {


ScriptedMeshlineService::ScriptedMeshlineService() : IPCObjectStub(SERVICE_TOKEN) {}

sptr<ScriptedMeshlineService> ScriptedMeshlineService::Create()
{
    return sptr<ScriptedMeshlineService>(new ScriptedMeshlineService());
}

sptr<ScriptedMeshlineService> ScriptedMeshlineService::Create(int32_t pid, int32_t uid)
{
    Vex::ScopedIdentity owner(pid, uid);
    return sptr<ScriptedMeshlineService>(new ScriptedMeshlineService());
}

ScriptedMeshlineService::~ScriptedMeshlineService()
{
    {
        std::lock_guard<std::mutex> lock(actionMutex_);
        stopping_ = true;
    }
    actionCv_.notify_all();
    if (actionThread_.joinable()) {
        if (actionThread_.get_id() == std::this_thread::get_id()) {
            actionThread_.detach();
        } else {
            actionThread_.join();
        }
    }
}

bool ScriptedMeshlineService::Register()
{
    sptr<Vex::ISystemAbilityManager> manager = Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    return manager != nullptr && manager->AddSystemAbility(SYSTEM_ABILITY_ID, this) == 0;
}

void ScriptedMeshlineService::Unregister()
{
    sptr<Vex::ISystemAbilityManager> manager = Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager != nullptr) {
        manager->RemoveSystemAbility(SYSTEM_ABILITY_ID);
    }
}

void ScriptedMeshlineService::SetResult(uint32_t operation, int32_t result)
{
    std::lock_guard<std::mutex> lock(mutex_);
    script_.results[operation] = result;
}

void ScriptedMeshlineService::SetSecondValue(uint32_t operation, int32_t value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    script_.secondValues[operation] = value;
}

void ScriptedMeshlineService::SetTaskList(std::vector<TaskValues> tasks)
{
    std::lock_guard<std::mutex> lock(mutex_);
    script_.tasks = std::move(tasks);
}

void ScriptedMeshlineService::SetReplyWriter(uint32_t operation, std::function<void(MessageParcel&)> writer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (writer) {
        script_.replyWriters[operation] = std::move(writer);
    } else {
        script_.replyWriters.erase(operation);
    }
}

void ScriptedMeshlineService::SetSendFailure(uint32_t operation, int32_t error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (error != 0) {
        script_.sendFailures[operation] = error;
    } else {
        script_.sendFailures.erase(operation);
    }
}

void ScriptedMeshlineService::OnRequest(uint32_t operation, std::function<void(const RecordedRequest&)> action)
{
    std::lock_guard<std::mutex> lock(mutex_);
    script_.actions[operation].push_back(std::move(action));
}

void ScriptedMeshlineService::AnswerApplyResource(int32_t serviceResult, std::string reason)
{
    OnRequest(APPLY_ADVANCED_RESOURCE, [this, serviceResult, reason](const RecordedRequest& request) {
        if (request.strings.size() < 2) {
            return;
        }
        CallApplyResult(request.callback, request.strings[0], request.strings[1], reason, 0, serviceResult);
    });
}

std::vector<RecordedRequest> ScriptedMeshlineService::Requests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::vector<RecordedRequest> ScriptedMeshlineService::Requests(uint32_t operation) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<RecordedRequest> matching;
    for (const auto& request : requests_) {
        if (request.operation == operation) {
            matching.push_back(request);
        }
    }
    return matching;
}

size_t ScriptedMeshlineService::RequestCount(uint32_t operation) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    size_t count = 0;
    for (const auto& request : requests_) {
        count += request.operation == operation ? 1 : 0;
    }
    return count;
}

void ScriptedMeshlineService::ClearRequests()
{
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.clear();
}

std::optional<RecordedRequest> ScriptedMeshlineService::WaitForRequest(uint32_t operation, size_t nth,
                                                                       std::chrono::milliseconds timeout)
{
    const RecordedRequest* found = nullptr;
    auto nthOfOperation = [&]() {
        size_t seen = 0;
        for (const auto& request : requests_) {
            if (request.operation == operation && ++seen == nth) {
                found = &request;
                return true;
            }
        }
        return false;
    };
    std::unique_lock<std::mutex> lock(mutex_);
    if (!requestArrived_.wait_for(lock, timeout, nthOfOperation)) {
        return std::nullopt;
    }
    return *found;
}

bool ScriptedMeshlineService::WaitForActions(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(actionMutex_);
    return actionCv_.wait_for(lock, timeout, [this]() { return actionQueue_.empty() && !actionRunning_; });
}

RecordedRequest ScriptedMeshlineService::Decode(uint32_t code, MessageParcel& data) const
{
    RecordedRequest request;
    request.code = code;
    request.callingPid = Vex::IPCSkeleton::GetCallingPid();
    request.callingUid = Vex::IPCSkeleton::GetCallingUid();
    request.bytes.assign(data.GetData(), data.GetData() + data.GetDataSize());
    static_cast<MeshlineWire::Request&>(request) = MeshlineWire::DecodeRequest(data);
    return request;
}

int ScriptedMeshlineService::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&)
{
    RecordedRequest request = Decode(code, data);
    int32_t failure = 0;
    std::vector<std::function<void(const RecordedRequest&)>> actions;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        request.sequence = nextSequence_++;
        auto failed = script_.sendFailures.find(request.operation);
        if (failed == script_.sendFailures.end()) {
            failed = script_.sendFailures.find(ALL_OPERATIONS);
        }
        if (failed != script_.sendFailures.end()) {
            failure = failed->second;
        }
        auto scripted = script_.actions.find(request.operation);
        if (scripted != script_.actions.end()) {
            actions = scripted->second;
        }
        requests_.push_back(request);
    }
    requestArrived_.notify_all();

    if (code != MESHLINE_CODE) {
        return Vex::ERR_UNKNOWN_TRANSACTION;
    }
    if (request.token != SERVICE_TOKEN || !IsKnownOperation(request.operation)) {
        return Vex::ERR_INVALID_DATA;
    }
    if (failure != 0) {
        return failure;
    }
    WriteReply(request, reply);
    for (auto& action : actions) {
        QueueAction([action, request]() { action(request); });
    }
    return Vex::ERR_NONE;
}

void ScriptedMeshlineService::WriteReply(const RecordedRequest& request, MessageParcel& reply)
{
    std::function<void(MessageParcel&)> writer;
    int32_t result = 0;
    int32_t secondValue = 0;
    std::vector<TaskValues> tasks;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto custom = script_.replyWriters.find(request.operation);
        if (custom != script_.replyWriters.end()) {
            writer = custom->second;
        }
        auto scripted = script_.results.find(request.operation);
        result = scripted != script_.results.end() ? scripted->second : 0;
        auto second = script_.secondValues.find(request.operation);
        secondValue = second != script_.secondValues.end() ? second->second : 0;
        tasks = script_.tasks;
    }
    if (writer) {
        writer(reply);
        return;
    }
    switch (request.operation) {
        case CHECK_CONFLICT:
            WriteTaskList(reply, tasks, result);
            break;
        case SUBSCRIBE_SERVICE_STATE_WITH_PID:
        case UNSUBSCRIBE_SERVICE_STATE_WITH_PID:
            reply.WriteInt32(result);
            reply.WriteInt32(secondValue);
            break;
        default:
            reply.WriteInt32(result);
            break;
    }
}

void ScriptedMeshlineService::QueueAction(std::function<void()> action)
{
    std::lock_guard<std::mutex> lock(actionMutex_);
    if (stopping_) {
        return;
    }
    actionQueue_.push_back(std::move(action));
    if (!actionThread_.joinable()) {
        actionThread_ = std::thread([this]() { RunActions(); });
    }
    actionCv_.notify_all();
}

void ScriptedMeshlineService::RunActions()
{
    std::unique_lock<std::mutex> lock(actionMutex_);
    while (true) {
        actionCv_.wait(lock, [this]() { return stopping_ || !actionQueue_.empty(); });
        if (stopping_) {
            return;
        }
        std::function<void()> action = std::move(actionQueue_.front());
        actionQueue_.pop_front();
        actionRunning_ = true;
        lock.unlock();
        action();
        lock.lock();
        actionRunning_ = false;
        actionCv_.notify_all();
    }
}

void ScriptedMeshlineService::WriteCallbackHeader(MessageParcel& data, uint32_t serviceType, uint32_t subServiceType,
                                                  uint32_t operateCode, uint32_t subOperateCode, uint32_t command)
{
    MeshlineWire::WriteCallbackHeader(data, serviceType, subServiceType, operateCode, subOperateCode, command);
}

CallbackReply ScriptedMeshlineService::CallRaw(const sptr<IRemoteObject>& callback, uint32_t code, MessageParcel& data)
{
    CallbackReply answer;
    if (callback == nullptr) {
        answer.status = Vex::ERR_INVALID_DATA;
        return answer;
    }
    MessageParcel reply;
    MessageOption option;
    {
        // Callbacks come from the service's process, whichever thread triggers them.
        Vex::ScopedIdentity asService(GetOwnerPid(), GetOwnerUid());
        answer.status = callback->SendRequest(code, data, reply, option);
    }
    answer.replied = reply.ReadInt32(answer.value);
    return answer;
}

CallbackReply ScriptedMeshlineService::CallMeshline(const sptr<IRemoteObject>& callback,
                                                    const std::function<void(MessageParcel&)>& write)
{
    MessageParcel data;
    write(data);
    return CallRaw(callback, MESHLINE_CODE, data);
}

CallbackReply ScriptedMeshlineService::CallDisconnectDevice(const sptr<IRemoteObject>& callback,
                                                            const std::string& deviceId, uint32_t serviceType)
{
    return CallMeshline(callback, [&](MessageParcel& data) { WriteDisconnectDevice(data, deviceId, serviceType); });
}

CallbackReply ScriptedMeshlineService::CallStateNotify(const sptr<IRemoteObject>& callback, int32_t state,
                                                       const std::vector<uint32_t>& ids,
                                                       const std::vector<ServiceStateValues>& infos)
{
    return CallMeshline(callback, [&](MessageParcel& data) { WriteStateNotify(data, state, ids, infos); });
}

CallbackReply ScriptedMeshlineService::CallServiceStateChanged(const sptr<IRemoteObject>& callback,
                                                               const std::string& first, const std::string& second,
                                                               const std::string& third, int32_t state, int32_t value)
{
    return CallMeshline(callback, [&](MessageParcel& data) {
        WriteServiceStateChanged(data, first, second, third, state, value);
    });
}

CallbackReply ScriptedMeshlineService::CallDisconnected(const sptr<IRemoteObject>& callback, const std::string& first,
                                                        const std::string& second, const std::string& third,
                                                        int32_t value)
{
    return CallMeshline(callback, [&](MessageParcel& data) { WriteDisconnected(data, first, second, third, value); });
}

CallbackReply ScriptedMeshlineService::CallApplyResult(const sptr<IRemoteObject>& callback, const std::string& first,
                                                       const std::string& second, const std::string& third,
                                                       int32_t value, int32_t serviceResult)
{
    return CallMeshline(callback, [&](MessageParcel& data) {
        WriteApplyResult(data, first, second, third, value, serviceResult);
    });
}

}  // namespace QUEX::Tandra::Testing
