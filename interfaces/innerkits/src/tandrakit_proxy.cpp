#include "tandrakit_proxy.h"

#include <mutex>
#include <new>

#include "ipc_result_codes.h"
#include "system_ability_manager.h"
#include "utf16_text.h"
#include "vex_log_tags.h"

namespace QUEX::Tandra {

sptr<TandraProxy> TandraProxy::instance_;
sptr<IRemoteObject> TandraProxy::tndrObject_;
std::shared_mutex TandraProxy::mutex_;

namespace {
// Lets iface_cast build a TandraProxy around the service's remote object.
BrokerDelegator<TandraProxy> g_tandraProxyDelegator;
}  // namespace

TandraProxy::TandraProxy(const sptr<IRemoteObject>& object) : IRemoteProxy<ITandraService>(object) {}

TandraProxy::~TandraProxy()
{
    TNDR_PROXY_LOGI("clear resource when death");
}

sptr<TandraProxy> TandraProxy::GetInstance()
{
    {
        std::shared_lock<std::shared_mutex> readLock(mutex_);
        if (instance_ != nullptr) {
            return instance_;
        }
    }
    std::unique_lock<std::shared_mutex> writeLock(mutex_);
    if (instance_ != nullptr) {
        return instance_;
    }
    sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager == nullptr) {
        TNDR_PROXY_LOGE("failed to get system manager");
        return nullptr;
    }
    sptr<IRemoteObject> object = manager->GetSystemAbility(TANDRA_SA_ID);
    if (object == nullptr) {
        TNDR_PROXY_LOGE("failed to get TANDRA_SA_ID");
        return nullptr;
    }
    sptr<TandraProxy> proxy = iface_cast<TandraProxy>(object);
    if (proxy == nullptr) {
        TNDR_PROXY_LOGE("failed to iface cast");
        return nullptr;
    }
    tndrObject_ = object;
    instance_ = proxy;
    return proxy;
}

sptr<IRemoteObject> TandraProxy::GetTandraRemoteObject()
{
    if (GetInstance() == nullptr) {
        return nullptr;
    }
    std::unique_lock<std::shared_mutex> writeLock(mutex_);
    return tndrObject_;
}

void TandraProxy::DestoryInstance()
{
    sptr<IRemoteObject> object;
    sptr<TandraProxy> proxy;
    {
        std::unique_lock<std::shared_mutex> writeLock(mutex_);
        object = std::move(tndrObject_);
        proxy = std::move(instance_);
    }
    // Released outside the lock: the proxy's destructor may run here.
}

int32_t TandraProxy::BuildCollaborationServiceCode(MessageParcel& data, uint32_t serviceType, uint32_t subServiceType,
                                                   uint32_t operateCode, uint32_t subOperateCode, uint32_t command)
{
    if (!data.WriteInterfaceToken(GetDescriptor())) {
        TNDR_PROXY_LOGE("write interface token failed");
        return IpcResult::WRITE_TOKEN_FAILED;
    }
    if (!data.WriteUint32(serviceType) || !data.WriteUint32(subServiceType) || !data.WriteUint32(operateCode) ||
        !data.WriteUint32(subOperateCode) || !data.WriteUint32(command)) {
        TNDR_PROXY_LOGE("write to parcel failed");
        return IpcResult::WRITE_PARCEL_FAILED;
    }
    TNDR_PROXY_LOGI("sender interface is %{public}s", Utf16ToUtf8(GetDescriptor()).c_str());
    return IpcResult::OK;
}

int32_t TandraProxy::SendServiceRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    sptr<IRemoteObject> remote = Remote();
    if (remote == nullptr) {
        TNDR_PROXY_LOGE("Remote is nullptr");
        return IpcResult::REMOTE_NULL;
    }
    int32_t result = remote->SendRequest(code, data, reply, option);
    if (result != ERR_NONE) {
        TNDR_PROXY_LOGE("failed to SendRequest, error: %{public}d", result);
        return IpcResult::SEND_REQUEST_FAILED;
    }
    return IpcResult::OK;
}

int32_t TandraProxy::GetCollaborationServiceEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    TNDR_PROXY_LOGI("enter");
    return SendServiceRequest(GET_COLLABORATION_SERVICE, data, reply, option);
}

int32_t TandraProxy::CollaborationToDeviceEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    TNDR_PROXY_LOGI("enter");
    return SendServiceRequest(COLLABORATION_TO_DEVICE, data, reply, option);
}

int32_t TandraProxy::DevicePickerEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    TNDR_PROXY_LOGI("enter");
    return SendServiceRequest(DEVICE_PICKER, data, reply, option);
}

int32_t TandraProxy::CommonDataChannelEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    TNDR_PROXY_LOGI("enter");
    return SendServiceRequest(COMMON_DATA_CHANNEL, data, reply, option);
}

int32_t TandraProxy::SurfaceTransferEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    TNDR_PROXY_LOGI("enter");
    return SendServiceRequest(SURFACE_TRANSFER, data, reply, option);
}

int32_t TandraProxy::IConnectDownMessageEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    TNDR_PROXY_LOGI("enter");
    return SendServiceRequest(ICONNECT_DOWN_MESSAGE, data, reply, option);
}

int32_t TandraProxy::MeshlineEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    TNDR_PROXY_LOGI("enter");
    return SendServiceRequest(MESHLINE, data, reply, option);
}

}  // namespace QUEX::Tandra
