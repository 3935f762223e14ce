#include "take_photo_callback.h"

#include <cstdlib>

#include "callback_envelope.h"
#include "client_codes.h"
#include "client_log.h"

namespace QUEX {
namespace Tandra {
namespace Client {

TakePhotoCallback::TakePhotoCallback(TakePhotoObserver* observer)
    : Vex::IPCObjectStub(CallbackDescriptor()), observer_(observer)
{
}

int TakePhotoCallback::OnRemoteRequest(uint32_t /*code*/, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                       Vex::MessageOption& /*option*/)
{
    CallbackEnvelope envelope;
    if (!ReadCallbackEnvelope(data, envelope)) {
        return Vex::ERR_INVALID_DATA;
    }
    int32_t result = RESULT_INVALID;
    if (envelope.serviceType == CALLBACK_SERVICE_EVENT && envelope.subService == CALLBACK_SUB_EVENT) {
        result = OnEvent(data);
    } else if (envelope.serviceType == CALLBACK_SERVICE_PHOTO && envelope.subService == CALLBACK_SUB_PHOTO) {
        int32_t status = OnPhoto(data, result);
        if (status != Vex::ERR_NONE) {
            return status;
        }
    } else {
        TNDR_APP_LOGE("unknown callback %{public}u/%{public}u refused", envelope.serviceType, envelope.subService);
        return Vex::ERR_UNKNOWN_TRANSACTION;
    }
    return reply.WriteInt32(result) ? Vex::ERR_NONE : Vex::ERR_INVALID_DATA;
}

int32_t TakePhotoCallback::OnEvent(Vex::MessageParcel& data)
{
    CallbackEvent event;
    if (!ReadCallbackEvent(data, event)) {
        return RESULT_INVALID;
    }
    TNDR_APP_LOGI("event %{public}u (%{public}s) for collaboration %{public}u", event.code, event.text.c_str(),
                  event.collaborationId);
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    Progress& progress = collaborations_[event.collaborationId];
    if (observer_ == nullptr || progress.ended) {
        return RESULT_INVALID;
    }
    EndingKind kind = EndingKind::UNKNOWN;
    if (EndingForEvent(event.code, event.text, kind)) {
        EndLocked(event.collaborationId, progress, {kind, event.code});
        return RESULT_OK;
    }
    // The photo count: its text is the count in decimal.
    char* end = nullptr;
    const unsigned long count = std::strtoul(event.text.c_str(), &end, 10);
    if (event.text.empty() || *end != '\0' || count > UINT32_MAX) {
        TNDR_APP_LOGE("photo count '%{public}s' is not a number", event.text.c_str());
        return RESULT_INVALID;
    }
    progress.expected = static_cast<uint32_t>(count);
    observer_->OnPhotoCount(event.collaborationId, progress.expected);
    return RESULT_OK;
}

int32_t TakePhotoCallback::OnPhoto(Vex::MessageParcel& data, int32_t& photoResult)
{
    ReceivedPhoto photo;
    uint32_t size = 0;
    if (!data.ReadUint32(photo.status) || !data.ReadUint32(photo.collaborationId) || !data.ReadUint32(size)) {
        TNDR_APP_LOGE("photo callback cut short");
        return Vex::ERR_INVALID_DATA;
    }
    photo.data = static_cast<const uint8_t*>(data.ReadRawData(size));
    if (photo.data == nullptr) {
        TNDR_APP_LOGE("photo of %{public}u bytes does not carry them", size);
        return Vex::ERR_INVALID_DATA;
    }
    photo.size = size;
    for (const auto& block : data.GetOutOfLineData()) {
        if (block->Data() == photo.data && block->Size() == size) {
            photo.fd = block->SharedFd();
        }
    }
    photo.last = photo.status == EVENT_LAST_PHOTO;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    Progress& progress = collaborations_[photo.collaborationId];
    if (observer_ == nullptr || progress.ended) {
        TNDR_APP_LOGI("photo for ended collaboration %{public}u dropped", photo.collaborationId);
        photoResult = RESULT_INVALID;
        return Vex::ERR_NONE;
    }
    photo.index = progress.received++;
    photo.expected = progress.expected;
    photoResult = observer_->OnPhoto(photo);
    // The framework ends the collaboration after the last photo whatever the observer did
    // with it; the observer may have cancelled meanwhile, though.
    if (photo.last && !progress.ended && observer_ != nullptr) {
        EndLocked(photo.collaborationId, progress, {EndingKind::FINISHED, 0});
    }
    return Vex::ERR_NONE;
}

void TakePhotoCallback::Track(uint32_t collaborationId)
{
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    collaborations_[collaborationId];
}

void TakePhotoCallback::EndByCancel(uint32_t collaborationId)
{
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    Progress& progress = collaborations_[collaborationId];
    if (observer_ != nullptr && !progress.ended) {
        EndLocked(collaborationId, progress, {EndingKind::CANCELLED, 0});
    }
}

void TakePhotoCallback::OnServiceDied()
{
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (auto& [collaborationId, progress] : collaborations_) {
        if (observer_ != nullptr && !progress.ended) {
            EndLocked(collaborationId, progress, {EndingKind::SERVICE_UNAVAILABLE, 0});
        }
    }
}

void TakePhotoCallback::Detach()
{
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    observer_ = nullptr;
}

void TakePhotoCallback::EndLocked(uint32_t collaborationId, Progress& progress, const CollaborationEnd& end)
{
    progress.ended = true;
    TNDR_APP_LOGI("collaboration %{public}u ended: %{public}s", collaborationId, end.Info().name);
    observer_->OnEnded(collaborationId, end);
}

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
