#include "camera_app_client.h"

#include "camera_app_callback.h"
#include "client_log.h"

namespace QUEX {
namespace Tandra {
namespace Client {
namespace {
constexpr uint32_t SEND_MODE_ONE = 1;
constexpr uint32_t SEND_MODE_LIST = 0;
constexpr uint32_t UNREGISTER_DONE = 1;
constexpr uint32_t UNREGISTER_NOT_DONE = 2;
}  // namespace

CameraAppClient::CameraAppClient(Vex::sptr<Vex::IRemoteObject> service, CameraAppObserver* observer)
    : service_(std::move(service)), callback_(new CameraAppCallback(observer))
{
    Vex::sptr<CameraAppCallback> callback = callback_;
    service_.WatchDeath([callback]() { callback->OnServiceDied(); });
}

CameraAppClient::~CameraAppClient()
{
    callback_->Detach();
}

int32_t CameraAppClient::Subscribe(const std::string& event, uint32_t collaborationId)
{
    Vex::sptr<Vex::IRemoteObject> callback(callback_.GetRefPtr());
    int32_t result = service_.SendForResult(REQUEST_SUBSCRIBE_EVENT, [&](Vex::MessageParcel& data) {
        return data.WriteUint32(collaborationId) && data.WriteString(event) && data.WriteRemoteObject(callback);
    });
    TNDR_APP_LOGI("subscribe to %{public}s: %{public}d", event.c_str(), result);
    return result;
}

int32_t CameraAppClient::SubscribeAll(uint32_t collaborationId)
{
    for (const char* event : {CAMERA_EVENT_PUT_IMAGE_RESULT, CAMERA_EVENT_CANCEL}) {
        int32_t result = Subscribe(event, collaborationId);
        if (result != RESULT_OK) {
            return result;
        }
    }
    return RESULT_OK;
}

UnregisterResult CameraAppClient::Unregister(const std::string& event)
{
    Vex::MessageParcel reply;
    UnregisterResult outcome;
    outcome.result = service_.Send(REQUEST_UNREGISTER, [&](Vex::MessageParcel& data) { return data.WriteString(event); },
                                   reply);
    if (outcome.result != 0) {
        return outcome;
    }
    uint32_t done = 0;
    if (!reply.ReadUint32(done)) {
        outcome.result = Vex::ERR_INVALID_DATA;
        return outcome;
    }
    if (!reply.ReadUint32(outcome.collaborationId)) {
        // Only the host's own refusal is a single value.
        outcome.result = done == 0 ? Vex::ERR_INVALID_DATA : static_cast<int32_t>(done);
        outcome.collaborationId = 0;
        return outcome;
    }
    // Inverted on the wire: 1 means done. Not done is, for an application, an event it never
    // subscribed to.
    outcome.result = done == UNREGISTER_DONE ? RESULT_OK
                     : done == UNREGISTER_NOT_DONE ? RESULT_NOT_SUBSCRIBED
                                                   : static_cast<int32_t>(done);
    return outcome;
}

int32_t CameraAppClient::PutImage(const PhotoCaller& caller, const std::vector<int>& photoFds, uint32_t errCode)
{
    if (photoFds.empty() || photoFds.size() > MAX_PHOTOS_PER_PUT) {
        TNDR_APP_LOGE("put image takes 1 to %{public}u photos, not %{public}zu", MAX_PHOTOS_PER_PUT, photoFds.size());
        return RESULT_INVALID;
    }
    const uint32_t count = static_cast<uint32_t>(photoFds.size());
    int32_t result = service_.SendForResult(REQUEST_PUT_IMAGE, [&](Vex::MessageParcel& data) {
        if (!caller.WriteTo(data) || !data.WriteUint32(count == 1 ? SEND_MODE_ONE : SEND_MODE_LIST) ||
            !data.WriteUint32(errCode) || !data.WriteUint32(count)) {
            return false;
        }
        for (size_t i = 0; i < photoFds.size(); ++i) {
            if (!data.WriteFileDescriptor(photoFds[i])) {
                TNDR_APP_LOGE("photo %{public}zu: descriptor %{public}d is not open", i, photoFds[i]);
                return false;
            }
        }
        return true;
    });
    TNDR_APP_LOGI("put %{public}u photos for session %{public}d: %{public}d", count, caller.collaborationSessionId,
                  result);
    return result;
}

int32_t CameraAppClient::RemoteCancel(const PhotoCaller& caller, uint32_t cameraStatus)
{
    int32_t result = service_.SendForResult(REQUEST_REMOTE_CANCEL, [&](Vex::MessageParcel& data) {
        return caller.WriteTo(data) && data.WriteUint32(cameraStatus);
    });
    TNDR_APP_LOGI("cancel of session %{public}d with status %{public}u: %{public}d", caller.collaborationSessionId,
                  cameraStatus, result);
    return result;
}

Vex::sptr<Vex::IRemoteObject> CameraAppClient::CallbackObject() const
{
    return Vex::sptr<Vex::IRemoteObject>(callback_.GetRefPtr());
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
