// The application's callback object, reached through its remote object; the envelope layout
// is documented in the header.
#include "callback_skeleton_proxy.h"

#include "host_types.h"

namespace QUEX {
namespace Tandra {

namespace {
// Whoever needs iface_cast<ICollaborationCallback> gets this proxy; a plugin may register the
// same delegator, and the registry keeps the first.
Vex::BrokerDelegator<CallbackSkeletonProxy> g_callbackDelegator;
}  // namespace

CallbackSkeletonProxy::CallbackSkeletonProxy(const Vex::sptr<Vex::IRemoteObject>& object)
    : Vex::IRemoteProxy<ICollaborationCallback>(object)
{
}

int32_t CallbackSkeletonProxy::BuildCollaborationCallbackCode(Vex::MessageParcel& data, uint32_t serviceType,
                                                              uint32_t subServiceType, uint32_t operateCode,
                                                              uint32_t subOperateCode, uint32_t command)
{
    if (!data.WriteInterfaceToken(ICollaborationCallback::GetDescriptor()) || !data.WriteUint32(serviceType) ||
        !data.WriteUint32(subServiceType) || !data.WriteUint32(operateCode) || !data.WriteUint32(subOperateCode) ||
        !data.WriteUint32(command)) {
        return -1;
    }
    // Every callback kind travels under the one request code; the envelope tells them apart.
    return static_cast<int32_t>(COLLABORATION_TO_DEVICE_CODE);
}

int32_t CallbackSkeletonProxy::SendRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                           Vex::MessageOption& option)
{
    Vex::sptr<Vex::IRemoteObject> remote = Remote();
    if (remote == nullptr) {
        return Vex::ERR_DEAD_OBJECT;
    }
    return remote->SendRequest(code, data, reply, option);
}

}  // namespace Tandra
}  // namespace QUEX
