// CameraAppCallback: the camera application's callback object. Decodes the put-image outcome
// and cancel callbacks and passes them to the observer, one call at a time; other callbacks
// are refused. Also tells the observer once when the service dies.
// Thread-safety: callbacks arrive on any thread; a recursive lock serialises observer calls
// and lets an observer call the client from inside one.
#pragma once

#include <mutex>

#include "camera_app_client.h"
#include "iremote_stub.h"

namespace QUEX {
namespace Tandra {
namespace Client {

class CameraAppCallback : public Vex::IPCObjectStub {
public:
    explicit CameraAppCallback(CameraAppObserver* observer);
    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;
    void OnServiceDied();
    // No observer call after this returns.
    void Detach();

private:
    std::recursive_mutex mutex_;
    CameraAppObserver* observer_;
    bool serviceLost_ = false;
};

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
