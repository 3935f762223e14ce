// Applications' requests to plugins: the envelope is documented in the header.
#include "host_service_stub.h"

#include "host_types.h"
#include "ipc_skeleton.h"
#include "plugin_loader.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

const std::u16string& HostServiceStub::GetDescriptor()
{
    static const std::u16string descriptor(u"quex.ITandra.ITandraService");
    return descriptor;
}

HostServiceStub::HostServiceStub(Vex::sptr<Vex::IRemoteObject> fallback)
    : Vex::IPCObjectStub(GetDescriptor()), fallback_(std::move(fallback))
{
}

int HostServiceStub::OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                     Vex::MessageOption& option)
{
    if (code != COLLABORATION_TO_DEVICE_CODE) {
        if (fallback_ != nullptr) {
            return fallback_->SendRequest(code, data, reply, option);
        }
        return Vex::ERR_UNKNOWN_TRANSACTION;
    }
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        TNDR_HOST_LOGE("wrong interface token");
        return Vex::ERR_INVALID_DATA;
    }
    IPCContext context{Vex::IPCSkeleton::GetCallingPid(), Vex::IPCSkeleton::GetCallingUid()};
    uint32_t serviceType = 0;
    int32_t result = HOST_ERR_NO_PLUGIN;
    size_t replyBefore = reply.GetDataSize();
    if (!data.ReadUint32(serviceType)) {
        result = HOST_ERR_INVALID_PARAM;
    } else if (serviceType == SERVICE_TYPE_COLLABORATION_TO_DEVICE) {
        result = PluginLoader::GetLoader().DispatchRequest(PLUGIN_TYPE_CAMERA, data, reply, option, context);
    } else {
        TNDR_HOST_LOGE("unknown service type %{public}u from pid %{public}d", serviceType, context.pid);
    }
    if (reply.GetDataSize() == replyBefore) {
        reply.WriteInt32(result);
    }
    return Vex::ERR_NONE;
}

}  // namespace Tandra
}  // namespace QUEX
