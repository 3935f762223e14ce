#include "take_photo_client.h"

#include "client_codes.h"
#include "client_log.h"
#include "collaboration_records.h"
#include "take_photo_callback.h"

namespace QUEX {
namespace Tandra {
namespace Client {
namespace {
// The framework answers once it has the link resources, which it waits up to 15 s for.
constexpr int TAKE_PHOTO_WAIT_SECONDS = 30;
}  // namespace

TakePhotoClient::TakePhotoClient(Vex::sptr<Vex::IRemoteObject> service, TakePhotoObserver* observer)
    : service_(std::move(service)), callback_(new TakePhotoCallback(observer))
{
    Vex::sptr<TakePhotoCallback> callback = callback_;
    service_.WatchDeath([callback]() { callback->OnServiceDied(); });
}

TakePhotoClient::~TakePhotoClient()
{
    callback_->Detach();
}

TakePhotoResult TakePhotoClient::TakePhoto(const TakePhotoRequest& request)
{
    Vex::sptr<PickerResult> picker = new PickerResult(
        new AbilityFilter(request.abilityType),
        new DeviceInfo(request.peerNetworkId, request.peerUdid, request.peerName, request.peerType),
        new LocalInfo(request.bundleName, request.abilityName, request.moduleName, request.localDeviceId,
                      request.localDeviceType));
    Vex::sptr<Vex::IRemoteObject> callback(callback_.GetRefPtr());
    Vex::MessageParcel reply;
    TakePhotoResult result;
    result.result = service_.Send(
        REQUEST_TAKE_PHOTO,
        [&](Vex::MessageParcel& data) {
            return data.WriteInt32(1) && picker->Marshalling(data) && data.WriteRemoteObject(callback);
        },
        reply, TAKE_PHOTO_WAIT_SECONDS);
    if (result.result != 0) {
        return result;
    }
    if (!reply.ReadInt32(result.result) || !reply.ReadUint32(result.collaborationId)) {
        TNDR_APP_LOGE("the take-photo reply is cut short");
        // The plugin always writes both; a single value is the host's own refusal.
        result.collaborationId = 0;
        if (result.result == 0) {
            result.result = Vex::ERR_INVALID_DATA;
        }
        return result;
    }
    if (result.result != 0) {
        TNDR_APP_LOGE("take photo refused: %{public}d", result.result);
        result.collaborationId = 0;
        return result;
    }
    uint32_t joined = 0;
    if (reply.ReadUint32(joined) && joined == 1) {
        TNDR_APP_LOGE("the request joined collaboration %{public}u of another request", result.collaborationId);
        result.joinedRunning = true;
        result.collaborationId = 0;
        return result;
    }
    TNDR_APP_LOGI("collaboration %{public}u started", result.collaborationId);
    callback_->Track(result.collaborationId);
    return result;
}

int32_t TakePhotoClient::Cancel(uint32_t collaborationId)
{
    int32_t result = service_.SendForResult(REQUEST_CANCEL,
                                            [&](Vex::MessageParcel& data) { return data.WriteUint32(collaborationId); });
    TNDR_APP_LOGI("cancel of collaboration %{public}u: %{public}d", collaborationId, result);
    if (result == RESULT_OK) {
        callback_->EndByCancel(collaborationId);
    }
    return result;
}

Vex::sptr<Vex::IRemoteObject> TakePhotoClient::CallbackObject() const
{
    return Vex::sptr<Vex::IRemoteObject>(callback_.GetRefPtr());
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
