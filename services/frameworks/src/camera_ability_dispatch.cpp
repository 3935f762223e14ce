// Routing of an application's request to its handler by the sub-service code, and the
// take-photo handler's parcel frame.
#include <tuple>

#include "camera_ability_process.h"
#include "camera_result_codes.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t ERR_UNKNOWN_REQUEST = 1005;
}  // namespace

int32_t CameraAbilityProcess::DispatchRequest(MessageParcel& data, MessageParcel& reply, MessageOption& option,
                                              IPCContext context)
{
    const uint32_t subService = data.ReadUint32();
    const uint32_t opCode = data.ReadUint32();
    const uint32_t subOpCode = data.ReadUint32();
    const uint32_t command = data.ReadUint32();
    TNDR_SERVICE_LOGI("subService: %{public}d, opCode: %{public}d, subOpCode: %{public}d, command: %{public}d",
                      subService, opCode, subOpCode, command);
    // Only the sub-service selects the handler; the other three values are the host's.
    const auto it = requestHandlers_.find(static_cast<int32_t>(subService));
    if (it == requestHandlers_.end()) {
        TNDR_SERVICE_LOGE("unkown service type, which is %{public}d", subService);
        return ERR_UNKNOWN_REQUEST;
    }
    return (this->*(it->second))(data, reply, option, context);
}

int32_t CameraAbilityProcess::CollaborationToTakephotoReq(MessageParcel& data, MessageParcel& reply, MessageOption&,
                                                          IPCContext)
{
    TNDR_SERVICE_LOGI("enter");
    sptr<PickerResult> pickerResult;
    if (data.ReadInt32() != 0) {
        pickerResult = PickerResult::Unmarshalling(data);
    }
    sptr<IRemoteObject> callback = data.ReadRemoteObject();

    int32_t result = ERR_INVALID_PARAM;
    uint32_t collaborationId = 0;
    // Events and photos go to this object: it must be a collaboration callback.
    sptr<CallbackSkeletonProxy> proxy = iface_cast<CallbackSkeletonProxy>(callback);
    if (pickerResult == nullptr || callback == nullptr) {
        TNDR_SERVICE_LOGE("pickerResult == %{public}d, object = %{public}d", pickerResult == nullptr ? 1 : 0,
                          callback == nullptr ? 1 : 0);
    } else if (proxy == nullptr) {
        TNDR_SERVICE_LOGE("callback is not a collaboration callback");
    } else {
        std::tie(result, collaborationId) = ProcessCameraAbilityRequest(pickerResult, callback);
        TNDR_SERVICE_LOGI("return code %{public}d", result);
    }
    reply.WriteInt32(result);
    reply.WriteUint32(collaborationId);
    return result;
}

}  // namespace Tandra
}  // namespace QUEX
