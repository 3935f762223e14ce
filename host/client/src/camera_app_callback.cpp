#include "camera_app_callback.h"

#include "callback_envelope.h"
#include "client_log.h"

namespace QUEX {
namespace Tandra {
namespace Client {

CameraAppCallback::CameraAppCallback(CameraAppObserver* observer)
    : Vex::IPCObjectStub(CallbackDescriptor()), observer_(observer)
{
}

int CameraAppCallback::OnRemoteRequest(uint32_t /*code*/, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                       Vex::MessageOption& /*option*/)
{
    CallbackEnvelope envelope;
    if (!ReadCallbackEnvelope(data, envelope)) {
        return Vex::ERR_INVALID_DATA;
    }
    const bool putImage = envelope.subService == CALLBACK_SUB_PUT_IMAGE_RESULT;
    if (envelope.serviceType != CALLBACK_SERVICE_EVENT || (!putImage && envelope.subService != CALLBACK_SUB_CANCEL)) {
        TNDR_APP_LOGE("unknown callback %{public}u/%{public}u refused", envelope.serviceType, envelope.subService);
        return Vex::ERR_UNKNOWN_TRANSACTION;
    }
    CallbackEvent event;
    if (!ReadCallbackEvent(data, event)) {
        return Vex::ERR_INVALID_DATA;
    }
    TNDR_APP_LOGI("%{public}s %{public}u for collaboration %{public}u", putImage ? "put-image outcome" : "cancel",
                  event.code, event.collaborationId);
    int32_t result = RESULT_INVALID;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex_);
        if (observer_ != nullptr) {
            putImage ? observer_->OnPutImageResult(event.code, event.collaborationId)
                     : observer_->OnCancelled(event.code, event.collaborationId);
            result = RESULT_OK;
        }
    }
    return reply.WriteInt32(result) ? Vex::ERR_NONE : Vex::ERR_INVALID_DATA;
}

void CameraAppCallback::OnServiceDied()
{
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (observer_ != nullptr && !serviceLost_) {
        serviceLost_ = true;
        observer_->OnServiceLost();
    }
}

void CameraAppCallback::Detach()
{
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    observer_ = nullptr;
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
