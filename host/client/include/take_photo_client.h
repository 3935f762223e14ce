// TakePhotoClient: the requesting application's side of a take-photo collaboration. It sends
// the take-photo request (with its own callback object) and the cancel to the framework
// service, and turns every callback the framework sends back into a call of a
// TakePhotoObserver: the photo count, each photo, and exactly one ending per collaboration
// (the last photo's FINISHED, an event's ending, CANCELLED after an accepted Cancel, or
// SERVICE_UNAVAILABLE when the service dies while the collaboration runs).
//
// Request (code 1) arguments: Int32 1, then the PickerResult record (ability filter, peer
// device, this application), then the callback object. Reply: Int32 result, Uint32
// collaboration id, and from the daemon a Uint32 1 when the request joined a collaboration that
// another request started (its callbacks go to that request's app only). Cancel (code 4): Uint32 collaboration id; reply Int32 result.
// Callbacks: event (101, 104): Uint32 code, Uint32 collaboration id, String text; photo (102,
// 105): Uint32 status, Uint32 collaboration id, Uint32 size, raw data of size bytes.
//
// Copies of photo bytes: none here. The observer gets a pointer into the callback's parcel
// (where the transport put the bytes: one copy in-process, a shared memory mapping across
// processes); it is valid only during OnPhoto, so an observer that keeps the bytes writes
// them out from there (one copy, into the file).
//
// Thread-safety: TakePhoto and Cancel may be called from any thread. Observer calls come from
// IPC threads, one at a time (never concurrently, also across collaborations), and may come
// before TakePhoto has returned the collaboration's id. An observer may call Cancel from inside
// a call (the cancel's ending then arrives nested in that call); it must not block for long:
// the framework waits at most 8 seconds for each answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "collaboration_endings.h"
#include "iremote_object.h"
#include "tandra_service_client.h"

namespace QUEX {
namespace Tandra {
namespace Client {

class TakePhotoCallback;

// What to ask of which device, on behalf of which application.
struct TakePhotoRequest {
    std::string abilityType;  // AbilityTypeOf(mode)
    // The chosen peer device.
    std::string peerNetworkId;
    std::string peerUdid;
    std::string peerName;
    uint32_t peerType = 0;
    // This application and device.
    std::string bundleName;
    std::string abilityName;
    std::string moduleName;
    std::string localDeviceId;
    uint32_t localDeviceType = 0;
};

struct TakePhotoResult {
    int32_t result = 0;            // 0, a refusal of the request, or a negative transport error
    uint32_t collaborationId = 0;  // 0 unless Ok()
    bool joinedRunning = false;    // it joined another request's collaboration: nothing comes here
    bool Ok() const { return result == 0 && !joinedRunning; }
    // The ending a failed request means.
    CollaborationEnd End() const
    {
        return {joinedRunning ? EndingKind::ALREADY_RUNNING : EndingForRequestResult(result), result};
    }
};

// One received photo. data is valid only during the OnPhoto call.
struct ReceivedPhoto {
    uint32_t collaborationId = 0;
    uint32_t status = 0;    // EVENT_PHOTO, or EVENT_LAST_PHOTO for the last one
    uint32_t index = 0;     // 0 for the first photo of the collaboration
    uint32_t expected = 0;  // the announced count, 0 when none was announced
    bool last = false;
    const uint8_t* data = nullptr;
    size_t size = 0;
    // A sealed memfd holding exactly these bytes from offset 0, or -1; valid during OnPhoto.
    // Saving from it (sendfile) leaves the pages of data untouched, which is most of the cost.
    int fd = -1;
};

class TakePhotoObserver {
public:
    virtual ~TakePhotoObserver() = default;
    // The other device announced how many photos will come.
    virtual void OnPhotoCount(uint32_t collaborationId, uint32_t count) = 0;
    // 0 when the photo was kept; any other value tells the framework that it was not.
    virtual int32_t OnPhoto(const ReceivedPhoto& photo) = 0;
    // The collaboration is over; no further call names it. FINISHED follows the last photo.
    virtual void OnEnded(uint32_t collaborationId, const CollaborationEnd& end) = 0;
};

class TakePhotoClient {
public:
    // REQUIRES: observer outlives the client. Call from the application's own identity: the
    // callback object belongs to the process that creates the client.
    TakePhotoClient(Vex::sptr<Vex::IRemoteObject> service, TakePhotoObserver* observer);
    // After it returns the observer is never called again (a call in progress finishes first).
    // REQUIRES: not called from inside an observer call.
    ~TakePhotoClient();
    TakePhotoClient(const TakePhotoClient&) = delete;
    TakePhotoClient& operator=(const TakePhotoClient&) = delete;

    // Blocks while the framework applies for the link (up to about 15 seconds). Refusals come
    // back in the result, not through the observer.
    TakePhotoResult TakePhoto(const TakePhotoRequest& request);
    // The framework's result; when it is 0 the observer hears CANCELLED, unless the
    // collaboration had already ended.
    int32_t Cancel(uint32_t collaborationId);

    // The callback object the framework calls (for tests and diagnostics).
    Vex::sptr<Vex::IRemoteObject> CallbackObject() const;

private:
    TandraServiceClient service_;
    Vex::sptr<TakePhotoCallback> callback_;
};

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
