// The connection manager's notices to a take-photo command: the service-state change that ends
// a conflict wait, the peer's disconnect, and the answer to a resource application. Each is a
// CallbackSkeleton handed to the service and forwards its one notice to the command.
// The command does not outlive the service's reference to a callback, so the link is cut
// (Detach) when the command goes; a notice that comes later finds no command and is dropped.
// Thread-safety: notices arrive on IPC threads; the link sits behind a mutex that a forwarded
// call holds, so Detach waits for a call in flight and no call starts after it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "callback_skeleton.h"

namespace QUEX {
namespace Tandra {

class TakePhotoCommand;

class TakePhotoCommandCallback : public CallbackSkeleton {
public:
    explicit TakePhotoCommandCallback(TakePhotoCommand* command) : command_(command) {}
    ~TakePhotoCommandCallback() override = default;

    // Called by the command before it goes.
    void Detach();

protected:
    std::mutex mutex_;
    TakePhotoCommand* command_;
};

class ServiceStateChangedCallback : public TakePhotoCommandCallback {
public:
    using TakePhotoCommandCallback::TakePhotoCommandCallback;
    int32_t OnServiceStateChanged(std::string first, std::string serviceName, std::string third, int32_t state,
                                  int32_t value) override;
};

class CmdDisConnectCallback : public TakePhotoCommandCallback {
public:
    using CallbackSkeleton::OnDisconnected;
    using TakePhotoCommandCallback::TakePhotoCommandCallback;
    int32_t OnDisconnected(std::string peerDeviceId, std::string serviceName) override;
};

class CmdApplyResultCallback : public TakePhotoCommandCallback {
public:
    using TakePhotoCommandCallback::TakePhotoCommandCallback;
    int32_t ApplyResult(std::string deviceId, std::string serviceName, std::string reason, int32_t value,
                        int32_t resultCode) override;
};

}  // namespace Tandra
}  // namespace QUEX
