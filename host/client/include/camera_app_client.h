// CameraAppClient: the camera application's side of a take-photo collaboration on the serving
// device. The application is started for one collaboration session (its start parameters
// name it); it subscribes to the framework's events with its callback object, puts the photos
// it took as file descriptors, or cancels with its camera status. The framework's callbacks
// reach a CameraAppObserver: the outcome of a put-image request, and the cancel that tells
// the camera to close because the requester no longer wants photos.
//
// Requests, after the service envelope (see TandraServiceClient):
//   subscribe (2):     Uint32 collaboration id, String event, the callback object
//   put image (3):     PhotoCaller, Uint32 send mode (1: one descriptor, 0: count of them),
//                      Uint32 error code, Uint32 photo count, the descriptors
//   unregister (5):    String event; reply Uint32 1 (done) or 2 (not), Uint32 collaboration id
//   remote cancel (10): PhotoCaller, Uint32 camera status (relayed to the requester)
// The other replies carry one Int32 result. Callbacks (service type 101) carry Uint32 code,
// Uint32 collaboration id, String filler: sub-service 103 put-image outcome, 106 cancel.
//
// Copies of photo bytes: none. Descriptors are duplicated into the request (the caller keeps
// its own); the framework reads the files itself.
// Thread-safety: every method may be called from any thread. Observer calls come from IPC
// threads one at a time, never after the client is destroyed; an observer may call the
// client's requests from inside a call.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client_codes.h"
#include "iremote_object.h"
#include "photo_caller.h"
#include "tandra_service_client.h"

namespace QUEX {
namespace Tandra {
namespace Client {

class CameraAppCallback;

class CameraAppObserver {
public:
    virtual ~CameraAppObserver() = default;
    // PUT_IMAGE_TAKEN_OVER: the framework has the photos and sends them; the camera may close.
    // PUT_IMAGE_DEVICE_NOT_ALLOWED: this device may not send photos.
    virtual void OnPutImageResult(uint32_t code, uint32_t collaborationId) = 0;
    // CAMERA_CANCELLED_BY_PEER: no photo is wanted any more; close the camera.
    virtual void OnCancelled(uint32_t code, uint32_t collaborationId) = 0;
    // The framework service died: nothing can be sent any more. Once.
    virtual void OnServiceLost() = 0;
};

struct UnregisterResult {
    int32_t result = 0;            // 0, RESULT_NOT_SUBSCRIBED, or another failure
    uint32_t collaborationId = 0;  // of the removed subscription
};

class CameraAppClient {
public:
    // REQUIRES: observer outlives the client. Create it under the application's own identity.
    CameraAppClient(Vex::sptr<Vex::IRemoteObject> service, CameraAppObserver* observer);
    // REQUIRES: not called from inside an observer call.
    ~CameraAppClient();
    CameraAppClient(const CameraAppClient&) = delete;
    CameraAppClient& operator=(const CameraAppClient&) = delete;

    // One event; subscribing again to the same event keeps the first subscription.
    int32_t Subscribe(const std::string& event, uint32_t collaborationId = 0);
    // The two events a camera application needs (put-image outcome, cancel); the first failure.
    int32_t SubscribeAll(uint32_t collaborationId = 0);
    UnregisterResult Unregister(const std::string& event);

    // Puts 1 to MAX_PHOTOS_PER_PUT photo files, in order (the last one ends the batch).
    // RESULT_INVALID without sending when the list is empty, too long, or holds a descriptor
    // that is not open.
    int32_t PutImage(const PhotoCaller& caller, const std::vector<int>& photoFds, uint32_t errCode = 0);
    // Cancels before any photo was put; cameraStatus is one of the CAMERA_STATUS_* codes.
    int32_t RemoteCancel(const PhotoCaller& caller, uint32_t cameraStatus);

    Vex::sptr<Vex::IRemoteObject> CallbackObject() const;

private:
    TandraServiceClient service_;
    Vex::sptr<CameraAppCallback> callback_;
};

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
