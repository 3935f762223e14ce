// TakePhotoCallback: the requesting application's callback object. It decodes the framework's
// event and photo callbacks, keeps per collaboration what the observer needs (announced count,
// photos so far, whether it ended), and calls the observer, one call at a time, at most one
// ending per collaboration. Callbacks for a collaboration that already ended are answered with
// RESULT_INVALID and not passed on (a photo still in flight after a cancel, say).
// Thread-safety: callbacks arrive on any thread; the observer lock (recursive, so that an
// observer may cancel from inside a call) serialises them with the client's own notices.
#pragma once

#include <map>
#include <mutex>

#include "iremote_stub.h"
#include "take_photo_client.h"

namespace QUEX {
namespace Tandra {
namespace Client {

class TakePhotoCallback : public Vex::IPCObjectStub {
public:
    explicit TakePhotoCallback(TakePhotoObserver* observer);

    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;

    // The collaboration runs (its request succeeded): a service death must end it.
    void Track(uint32_t collaborationId);
    // The application's cancel was accepted: CANCELLED, unless it had ended already.
    void EndByCancel(uint32_t collaborationId);
    // SERVICE_UNAVAILABLE for every collaboration still running.
    void OnServiceDied();
    // No observer call after this returns.
    void Detach();

private:
    struct Progress {
        uint32_t expected = 0;
        uint32_t received = 0;
        bool ended = false;
    };

    int32_t OnEvent(Vex::MessageParcel& data);
    int32_t OnPhoto(Vex::MessageParcel& data, int32_t& photoResult);
    // REQUIRES: mutex_ held.
    void EndLocked(uint32_t collaborationId, Progress& progress, const CollaborationEnd& end);

    std::recursive_mutex mutex_;
    TakePhotoObserver* observer_;
    std::map<uint32_t, Progress> collaborations_;
};

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
