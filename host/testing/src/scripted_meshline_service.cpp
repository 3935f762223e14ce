#include "scripted_meshline_service.h"

#include <utility>

#include "ipc_skeleton.h"
#include "system_ability_manager.h"

namespace QUEX::Tandra::Testing {

namespace {

const std::u16string SERVICE_TOKEN = u"quex.ITandra.ITandraService";
const std::u16string CALLBACK_TOKEN = u"quex.ITandra.ITandraCallback";

// The arguments after the envelope, one letter per item: S String, U Uint32, I Int32,
// O remote object, P flagged service state, R flagged resource request.
const char* LayoutOf(uint32_t operation)
{
    switch (operation) {
        case REGISTER_DEVICE_STATE_MANAGER_CALLBACK:
            return "SUO";
        case UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK:
            return "SU";
        case NOTIFY_DEVICE_CONNECT_STATE:
            return "SUP";
        case CHECK_CONFLICT:
        case DISCONNECT_CURRENT_DEVICE:
            return "SUU";
        case REGISTER_DEVICE_STATE_SUBSCRIBER:
        case SUBSCRIBE_SERVICE_STATE:
        case SUBSCRIBE_SERVICE_STATE_WITH_PID:
            return "O";
        case UNREGISTER_DEVICE_STATE_SUBSCRIBER:
        case UNSUBSCRIBE_SERVICE_STATE:
        case NOTIFY_ALL_STATE:
        case UNSUBSCRIBE_SERVICE_STATE_WITH_PID:
            return "";
        case SUBSCRIBE_NOTIFY_DISCONNECT:
            return "SSSO";
        case UNSUBSCRIBE_NOTIFY_DISCONNECT:
            return "SS";
        case PUBLISH_SERVICE_STATE:
            return "SSSI";
        case APPLY_ADVANCED_RESOURCE:
            return "SSRO";
        default:
            return nullptr;
    }
}

bool ReadFlag(MessageParcel& data, bool& present)
{
    int32_t flag = 0;
    if (!data.ReadInt32(flag)) {
        return false;
    }
    present = flag != 0;
    return true;
}

bool ReadHardwareList(MessageParcel& data, std::vector<HardwareValues>& list)
{
    uint32_t count = 0;
    if (!data.ReadUint32(count) || count > data.GetReadableBytes() / sizeof(int32_t)) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        HardwareValues entry;
        if (!ReadFlag(data, entry.present)) {
            return false;
        }
        if (entry.present && (!data.ReadUint32(entry.type) || !data.ReadBool(entry.canShare))) {
            return false;
        }
        list.push_back(entry);
    }
    return true;
}

bool ReadCommunication(MessageParcel& data, CommunicationValues& values)
{
    if (!ReadFlag(data, values.present)) {
        return false;
    }
    if (!values.present) {
        return true;
    }
    return data.ReadInt32(values.minBandwidth) && data.ReadInt32(values.maxLatency) &&
           data.ReadInt32(values.minLatency) && data.ReadInt32(values.maxWaitTime) &&
           data.ReadInt32(values.maxBuffer) && data.ReadInt32(values.maxIdleTime) &&
           data.ReadInt32(values.firstPackage) && data.ReadInt32(values.transReliability) &&
           data.ReadString(values.dataType);
}

bool ReadResource(MessageParcel& data, ResourceRequestValues& values)
{
    if (!ReadFlag(data, values.present)) {
        return false;
    }
    if (!values.present) {
        return true;
    }
    return ReadHardwareList(data, values.remote) && ReadHardwareList(data, values.local) &&
           ReadCommunication(data, values.communication);
}

bool ReadServiceState(MessageParcel& data, ServiceStateValues& values)
{
    if (!ReadFlag(data, values.present)) {
        return false;
    }
    if (!values.present) {
        return true;
    }
    return data.ReadString(values.deviceId) && data.ReadUint32(values.linkType) && data.ReadUint32(values.connectState);
}

bool ReadArguments(const char* layout, MessageParcel& data, RecordedRequest& request)
{
    for (const char* item = layout; *item != '\0'; ++item) {
        bool ok = false;
        switch (*item) {
            case 'S': {
                std::string text;
                ok = data.ReadString(text);
                request.strings.push_back(std::move(text));
                break;
            }
            case 'U': {
                uint32_t value = 0;
                ok = data.ReadUint32(value);
                request.uints.push_back(value);
                break;
            }
            case 'I': {
                int32_t value = 0;
                ok = data.ReadInt32(value);
                request.ints.push_back(value);
                break;
            }
            case 'O':
                ok = data.GetReadableBytes() >= sizeof(int32_t);
                request.callback = data.ReadRemoteObject();
                break;
            case 'P':
                ok = ReadServiceState(data, request.serviceState);
                break;
            case 'R':
                ok = ReadResource(data, request.resource);
                break;
            default:
                break;
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

void WriteTask(MessageParcel& reply, const TaskValues& task)
{
    reply.WriteInt32(task.present ? 1 : 0);
    if (task.present) {
        reply.WriteString(task.deviceId);
        reply.WriteUint32(task.serviceType);
        reply.WriteUint32(task.linkType);
        reply.WriteUint32(task.connectState);
        reply.WriteUint32(task.canDisconnectFlag);
    }
}

}  // namespace

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
    request.token = data.ReadInterfaceToken();
    bool envelope = data.ReadUint32(request.serviceType) && data.ReadUint32(request.operation) &&
                    data.ReadUint32(request.operateCode) && data.ReadUint32(request.subOperateCode) &&
                    data.ReadUint32(request.command);
    const char* layout = LayoutOf(request.operation);
    if (envelope && layout != nullptr && request.token == SERVICE_TOKEN) {
        request.complete = ReadArguments(layout, data, request);
    }
    request.unreadBytes = data.GetReadableBytes();
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
    if (request.token != SERVICE_TOKEN || LayoutOf(request.operation) == nullptr) {
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
            reply.WriteUint32(static_cast<uint32_t>(tasks.size()));
            for (const auto& task : tasks) {
                WriteTask(reply, task);
            }
            reply.WriteInt32(result);
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
    data.WriteInterfaceToken(CALLBACK_TOKEN);
    data.WriteUint32(serviceType);
    data.WriteUint32(subServiceType);
    data.WriteUint32(operateCode);
    data.WriteUint32(subOperateCode);
    data.WriteUint32(command);
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

CallbackReply ScriptedMeshlineService::CallMeshline(const sptr<IRemoteObject>& callback, uint32_t event,
                                                    const std::function<void(MessageParcel&)>& writeArguments)
{
    MessageParcel data;
    WriteCallbackHeader(data, MESHLINE_CODE, event);
    writeArguments(data);
    return CallRaw(callback, MESHLINE_CODE, data);
}

CallbackReply ScriptedMeshlineService::CallDisconnectDevice(const sptr<IRemoteObject>& callback,
                                                            const std::string& deviceId, uint32_t serviceType)
{
    return CallMeshline(callback, DISCONNECT_DEVICE_EVENT, [&](MessageParcel& data) {
        data.WriteString(deviceId);
        data.WriteUint32(serviceType);
    });
}

CallbackReply ScriptedMeshlineService::CallStateNotify(const sptr<IRemoteObject>& callback, int32_t state,
                                                       const std::vector<uint32_t>& ids,
                                                       const std::vector<ServiceStateValues>& infos)
{
    return CallMeshline(callback, STATE_NOTIFY_EVENT, [&](MessageParcel& data) {
        data.WriteInt32(state);
        data.WriteUInt32Vector(ids);
        data.WriteUint32(static_cast<uint32_t>(infos.size()));
        for (const auto& info : infos) {
            data.WriteInt32(info.present ? 1 : 0);
            if (info.present) {
                data.WriteString(info.deviceId);
                data.WriteUint32(info.linkType);
                data.WriteUint32(info.connectState);
            }
        }
    });
}

CallbackReply ScriptedMeshlineService::CallServiceStateChanged(const sptr<IRemoteObject>& callback,
                                                               const std::string& first, const std::string& second,
                                                               const std::string& third, int32_t state, int32_t value)
{
    return CallMeshline(callback, SERVICE_STATE_CHANGED_EVENT, [&](MessageParcel& data) {
        data.WriteString(first);
        data.WriteString(second);
        data.WriteString(third);
        data.WriteInt32(state);
        data.WriteInt32(value);
    });
}

CallbackReply ScriptedMeshlineService::CallDisconnected(const sptr<IRemoteObject>& callback, const std::string& first,
                                                        const std::string& second, const std::string& third,
                                                        int32_t value)
{
    return CallMeshline(callback, DISCONNECTED_EVENT, [&](MessageParcel& data) {
        data.WriteString(first);
        data.WriteString(second);
        data.WriteString(third);
        data.WriteInt32(value);
    });
}

CallbackReply ScriptedMeshlineService::CallApplyResult(const sptr<IRemoteObject>& callback, const std::string& first,
                                                       const std::string& second, const std::string& third,
                                                       int32_t value, int32_t serviceResult)
{
    return CallMeshline(callback, APPLY_RESULT_EVENT, [&](MessageParcel& data) {
        data.WriteString(first);
        data.WriteString(second);
        data.WriteString(third);
        data.WriteInt32(value);
        data.WriteInt32(serviceResult);
    });
}

}  // namespace QUEX::Tandra::Testing
