#include "meshline_manager.h"

#include <new>

#include "ipc_result_codes.h"
#include "tandrakit_proxy.h"
#include "vex_log_tags.h"

namespace QUEX::Tandra {

namespace {

// Each entry of a task list takes at least this many bytes; a longer count cannot be genuine.
constexpr size_t MIN_TASK_ENTRY_BYTES = 8;

// One Meshline request: its parcels, the envelope and the send. Results follow the common
// procedure of every operation; ApplyAdvancedResource passes its own code for a missing proxy.
class MeshlineRequest {
public:
    explicit MeshlineRequest(MeshlineManager::Operation operation)
        : operation_(operation), option_(MessageOption::TF_SYNC, MeshlineManager::REQUEST_WAIT_TIME)
    {
    }

    MessageParcel& Data() { return data_; }
    MessageParcel& Reply() { return reply_; }

    bool WriteEnvelope()
    {
        return TandraProxy::BuildCollaborationServiceCode(data_, ITandraService::MESHLINE, operation_, 0, 0, 0) ==
               IpcResult::OK;
    }

    // 0 once sent; noProxyResult when the service cannot be reached; 0x1B8003F5 on failure.
    int32_t Send(int32_t noProxyResult = IpcResult::SERVICE_DEAD)
    {
        sptr<TandraProxy> proxy = TandraProxy::GetInstance();
        if (proxy == nullptr) {
            TNDR_PROXY_LOGE("Tandra dead");
            return noProxyResult;
        }
        if (proxy->MeshlineEvent(data_, reply_, option_) != IpcResult::OK) {
            TNDR_PROXY_LOGE("send request to Tandra failed");
            return IpcResult::IPC_SEND_FAILED;
        }
        return IpcResult::OK;
    }

    // Sends and returns the Int32 result the service wrote first.
    int32_t SendForResult(int32_t noProxyResult = IpcResult::SERVICE_DEAD)
    {
        int32_t sent = Send(noProxyResult);
        return sent != IpcResult::OK ? sent : reply_.ReadInt32();
    }

    std::pair<int32_t, int32_t> SendForTwoResults()
    {
        int32_t sent = Send();
        if (sent != IpcResult::OK) {
            return {sent, 0};
        }
        int32_t result = reply_.ReadInt32();
        int32_t value = reply_.ReadInt32();
        return {result, value};
    }

private:
    MeshlineManager::Operation operation_;
    MessageParcel data_;
    MessageParcel reply_;
    MessageOption option_;
};

}  // namespace

MeshlineManager& MeshlineManager::GetInstance()
{
    static MeshlineManager instance;
    return instance;
}

int32_t MeshlineManager::RegisterDeviceStateManagerCallback(std::string deviceId, uint32_t serviceType,
                                                            sptr<CallbackSkeleton> callback)
{
    if (callback == nullptr) {
        TNDR_PROXY_LOGE("callback is null");
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(REGISTER_DEVICE_STATE_MANAGER_CALLBACK);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteString(deviceId)) {
        TNDR_PROXY_LOGE("deviceId write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteUint32(serviceType)) {
        TNDR_PROXY_LOGE("serviceType write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteRemoteObject(callback->AsObject())) {
        TNDR_PROXY_LOGE("callback write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::UnRegisterDeviceStateManagerCallback(std::string deviceId, uint32_t serviceType)
{
    if (deviceId.empty()) {
        TNDR_PROXY_LOGE("deviceId is %{public}d.", 1);
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteString(deviceId)) {
        TNDR_PROXY_LOGE("deviceId write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteUint32(serviceType)) {
        TNDR_PROXY_LOGE("serviceType write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::NotifyDeviceConnectState(std::string deviceId, uint32_t serviceType,
                                                  sptr<ServiceStateInfo> info)
{
    if (deviceId.empty() || info == nullptr) {
        TNDR_PROXY_LOGE("deviceId is %{public}d or serviceStateInfo is %{public}d.", deviceId.empty() ? 1 : 0,
                        info == nullptr ? 1 : 0);
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(NOTIFY_DEVICE_CONNECT_STATE);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteString(deviceId)) {
        TNDR_PROXY_LOGE("deviceId write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteUint32(serviceType)) {
        TNDR_PROXY_LOGE("serviceType write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteStrongParcelable(info)) {
        TNDR_PROXY_LOGE("serviceStateInfo write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::CheckConflict(std::string deviceId, uint32_t serviceType, uint32_t linkType,
                                       std::vector<sptr<DistributeTaskInfo>>& taskList)
{
    if (deviceId.empty()) {
        TNDR_PROXY_LOGE("deviceId is %{public}d.", 1);
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(CHECK_CONFLICT);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteString(deviceId)) {
        TNDR_PROXY_LOGE("deviceId write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteUint32(serviceType)) {
        TNDR_PROXY_LOGE("serviceType write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteUint32(linkType)) {
        TNDR_PROXY_LOGE("linkType write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    int32_t sent = request.Send();
    if (sent != IpcResult::OK) {
        return sent;
    }
    // The service answers with its task list first and its result after it.
    if (ReadTaskInfoList(request.Reply(), taskList) != IpcResult::OK) {
        return IpcResult::IPC_SEND_FAILED;
    }
    return request.Reply().ReadInt32();
}

int32_t MeshlineManager::DisconnectCurrentDevice(std::string deviceId, uint32_t serviceType, uint32_t linkType)
{
    if (deviceId.empty()) {
        TNDR_PROXY_LOGE("deviceId is %{public}d.", 1);
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(DISCONNECT_CURRENT_DEVICE);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteString(deviceId)) {
        TNDR_PROXY_LOGE("deviceId write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteUint32(serviceType)) {
        TNDR_PROXY_LOGE("serviceType write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    if (!request.Data().WriteUint32(linkType)) {
        TNDR_PROXY_LOGE("linkType write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::RegisterDeviceStateSubscriber(sptr<CallbackSkeleton> callback)
{
    if (callback == nullptr) {
        TNDR_PROXY_LOGE("callback is null");
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(REGISTER_DEVICE_STATE_SUBSCRIBER);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteRemoteObject(callback->AsObject())) {
        TNDR_PROXY_LOGE("callback write failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::UnRegisterDeviceStateSubscriber()
{
    MeshlineRequest request(UNREGISTER_DEVICE_STATE_SUBSCRIBER);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::SubscribeServiceState(sptr<CallbackSkeleton> callback)
{
    if (callback == nullptr) {
        TNDR_PROXY_LOGE("callback is null or eventName is empty.");
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(SUBSCRIBE_SERVICE_STATE);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteRemoteObject(callback->AsObject())) {
        TNDR_PROXY_LOGE("failed to write data.");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::UnSubscribeServiceState()
{
    MeshlineRequest request(UNSUBSCRIBE_SERVICE_STATE);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::SubscribeNotifyDisconnect(std::string first, std::string second, std::string third,
                                                   sptr<CallbackSkeleton> callback)
{
    if (first.empty() || second.empty() || third.empty() || callback == nullptr) {
        TNDR_PROXY_LOGE("callback is null or param is empty.");
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(SUBSCRIBE_NOTIFY_DISCONNECT);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    MessageParcel& data = request.Data();
    if (!data.WriteString(first) || !data.WriteString(second) || !data.WriteString(third) ||
        !data.WriteRemoteObject(callback->AsObject())) {
        TNDR_PROXY_LOGE("failed to write data.");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::UnSubscribeNotifyDisconnect(std::string first, std::string second)
{
    if (first.empty() || second.empty()) {
        TNDR_PROXY_LOGE("param is empty.");
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(UNSUBSCRIBE_NOTIFY_DISCONNECT);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    if (!request.Data().WriteString(first) || !request.Data().WriteString(second)) {
        TNDR_PROXY_LOGE("failed to write data.");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::PublishServiceState(std::string first, std::string second, std::string third, int32_t state)
{
    TNDR_PROXY_LOGI("enter");
    if (first.empty() || second.empty() || state < MIN_SERVICE_STATE || state > MAX_SERVICE_STATE) {
        TNDR_PROXY_LOGE("param is error.");
        return IpcResult::INVALID_PARAM;
    }
    MeshlineRequest request(PUBLISH_SERVICE_STATE);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    MessageParcel& data = request.Data();
    if (!data.WriteString(first) || !data.WriteString(second) || !data.WriteString(third) || !data.WriteInt32(state)) {
        TNDR_PROXY_LOGE("failed to write data.");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    return request.SendForResult();
}

int32_t MeshlineManager::ApplyAdvancedResource(std::string first, std::string serviceName,
                                               sptr<ResourceRequest> resourceRequest, sptr<CallbackSkeleton> callback)
{
    TNDR_PROXY_LOGI("enter");
    if (first.empty() || serviceName.empty() || callback == nullptr || resourceRequest == nullptr) {
        TNDR_PROXY_LOGE("callback is null or param is empty.");
        return IpcResult::APPLY_INVALID_PARAM;
    }
    MeshlineRequest request(APPLY_ADVANCED_RESOURCE);
    if (!request.WriteEnvelope()) {
        return IpcResult::APPLY_INVALID_PARAM;
    }
    MessageParcel& data = request.Data();
    if (!data.WriteString(first) || !data.WriteString(serviceName) || !data.WriteStrongParcelable(resourceRequest) ||
        !data.WriteRemoteObject(callback->AsObject())) {
        TNDR_PROXY_LOGE("failed to write data.");
        return IpcResult::APPLY_INVALID_PARAM;
    }
    return request.SendForResult(IpcResult::APPLY_SERVICE_DEAD);
}

int32_t MeshlineManager::NotifyAllState()
{
    TNDR_PROXY_LOGI("enter");
    MeshlineRequest request(NOTIFY_ALL_STATE);
    if (!request.WriteEnvelope()) {
        return IpcResult::INVALID_PARAM;
    }
    return request.SendForResult();
}

std::pair<int32_t, int32_t> MeshlineManager::SubscribeServiceStateWithPid(sptr<CallbackSkeleton> callback)
{
    if (callback == nullptr) {
        TNDR_PROXY_LOGE("callback is null or eventName is empty.");
        return {IpcResult::INVALID_PARAM, 0};
    }
    MeshlineRequest request(SUBSCRIBE_SERVICE_STATE_WITH_PID);
    if (!request.WriteEnvelope()) {
        return {IpcResult::INVALID_PARAM, 0};
    }
    if (!request.Data().WriteRemoteObject(callback->AsObject())) {
        TNDR_PROXY_LOGE("failed to write data.");
        return {IpcResult::WRITE_PARCEL_FAILED, 0};
    }
    return request.SendForTwoResults();
}

std::pair<int32_t, int32_t> MeshlineManager::UnSubscribeServiceStateWithPid()
{
    MeshlineRequest request(UNSUBSCRIBE_SERVICE_STATE_WITH_PID);
    if (!request.WriteEnvelope()) {
        return {IpcResult::INVALID_PARAM, 0};
    }
    return request.SendForTwoResults();
}

int32_t MeshlineManager::ReadTaskInfoList(MessageParcel& reply, std::vector<sptr<DistributeTaskInfo>>& taskList)
{
    uint32_t count = 0;
    if (!reply.ReadUint32(count)) {
        TNDR_DEVICE_DETECT_LOGE("ReadUint32 failed");
        return IpcResult::INVALID_PARAM;
    }
    size_t readableEntries = reply.GetReadableBytes() / MIN_TASK_ENTRY_BYTES;
    if (count > readableEntries) {
        TNDR_CALLBACK_LOGI("Failed to read vector, size = %{public}zu, readAbleSize = %{public}zu",
                           static_cast<size_t>(count), readableEntries);
        return IpcResult::INVALID_PARAM;
    }
    TNDR_DEVICE_DETECT_LOGI("taskInfoNums:%{public}d", count);
    for (uint32_t i = 0; i < count; ++i) {
        sptr<DistributeTaskInfo> task = reply.ReadStrongParcelable<DistributeTaskInfo>();
        if (task == nullptr) {
            TNDR_DEVICE_DETECT_LOGE("ReadStrongParcelable nullptr");
            continue;
        }
        taskList.push_back(std::move(task));
    }
    return IpcResult::OK;
}

sptr<DeathRecipient> MeshlineManager::GetDeathRecipient()
{
    TNDR_PROXY_LOGI("enter");
    std::lock_guard<std::mutex> lock(mutex_);
    if (deathRecipient_ == nullptr) {
        deathRecipient_ = new (std::nothrow) DeathRecipient();
        if (deathRecipient_ == nullptr) {
            TNDR_PROXY_LOGE("new DeathRecipient failed");
            return nullptr;
        }
    }
    return deathRecipient_;
}

int32_t MeshlineManager::RegisterServiceDeathRecipient(const std::string& category, sptr<CallbackSkeleton> callback)
{
    TNDR_PROXY_LOGI("enter");
    if (category.empty() || callback == nullptr) {
        TNDR_PROXY_LOGE("callback is null or param is empty.");
        return IpcResult::INVALID_PARAM;
    }
    if (TandraProxy::GetInstance() == nullptr) {
        // Nothing to watch; the caller learns of the service through its next request.
        TNDR_PROXY_LOGE("Tandra dead");
        return IpcResult::OK;
    }
    sptr<IRemoteObject> remote = TandraProxy::GetTandraRemoteObject();
    if (remote == nullptr) {
        TNDR_PROXY_LOGE("tandrakit_proxy is dead.");
        return IpcResult::REMOTE_NULL;
    }
    sptr<DeathRecipient> recipient = GetDeathRecipient();
    if (recipient == nullptr) {
        TNDR_PROXY_LOGE("deathRecipient is nullptr");
        return IpcResult::INVALID_PARAM;
    }
    // Filled before it is attached, so that a death right after attaching finds its callback.
    recipient->SetCallback(callback);
    recipient->SetCategory(category);

    sptr<IRemoteObject> previous;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (watchedObject_ == remote) {
            return IpcResult::OK;
        }
        previous = watchedObject_;
    }
    if (previous != nullptr) {
        // The service was replaced while the old object lives on: watch the new one only.
        (void)previous->RemoveDeathRecipient(recipient);
    }
    if (!remote->AddDeathRecipient(recipient)) {
        TNDR_PROXY_LOGE("AddDeathRecipient for Host failed.");
        std::lock_guard<std::mutex> lock(mutex_);
        watchedObject_ = nullptr;
        return IpcResult::REMOTE_NULL;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    watchedObject_ = remote;
    return IpcResult::OK;
}

int32_t MeshlineManager::UnRegisterServiceDeathRecipient()
{
    TNDR_PROXY_LOGI("enter");
    sptr<DeathRecipient> recipient = GetDeathRecipient();
    if (recipient == nullptr) {
        TNDR_PROXY_LOGE("deathRecipient is nullptr");
        return IpcResult::INVALID_PARAM;
    }
    sptr<IRemoteObject> remote = TandraProxy::GetTandraRemoteObject();
    if (remote == nullptr) {
        TNDR_PROXY_LOGE("tandrakit_proxy is dead.");
        return IpcResult::REMOTE_NULL;
    }
    sptr<IRemoteObject> watched;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        watched = std::move(watchedObject_);
    }
    (void)remote->RemoveDeathRecipient(recipient);
    if (watched != nullptr && watched != remote) {
        (void)watched->RemoveDeathRecipient(recipient);
    }
    recipient->DestroyData();
    std::lock_guard<std::mutex> lock(mutex_);
    if (deathRecipient_ == recipient) {
        deathRecipient_ = nullptr;
    }
    return IpcResult::OK;
}

void MeshlineManager::DestroyMeshlineManagerInstance()
{
    TNDR_PROXY_LOGI("enter");
    sptr<DeathRecipient> recipient;
    sptr<IRemoteObject> watched;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        recipient = std::move(deathRecipient_);
        watched = std::move(watchedObject_);
    }
}

void MeshlineManager::ForgetDeathRecipient(const DeathRecipient* recipient)
{
    sptr<DeathRecipient> forgotten;
    sptr<IRemoteObject> watched;
    std::lock_guard<std::mutex> lock(mutex_);
    if (deathRecipient_.GetRefPtr() == recipient) {
        forgotten = std::move(deathRecipient_);
        watched = std::move(watchedObject_);
    }
}

}  // namespace QUEX::Tandra
