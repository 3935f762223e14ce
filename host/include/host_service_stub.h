// HostServiceStub: the framework service's IPC endpoint for applications
// ("quex.ITandra.ITandraService"). A request to a plugin is sent with request code
// COLLABORATION_TO_DEVICE_CODE (101) and this envelope:
//   String16 interface token "quex.ITandra.ITandraService";
//   Uint32 service type 101 (a collaboration with a device: the camera plugin);
//   then the plugin's own header: Uint32 sub-service, Uint32 op code, Uint32 sub-op code,
//   Uint32 command; then the plugin's arguments for that sub-service.
// The stub hands the parcel, positioned at the plugin's header, to the camera plugin's
// DispatchRequest with IPCContext{calling pid, calling uid}. Reply: whatever the plugin wrote;
// if it wrote nothing, the stub writes the plugin's result as one Int32. OnRemoteRequest
// returns ERR_NONE whenever the envelope was read (the outcome travels in the reply), and
// ERR_INVALID_DATA for a wrong token. Service types other than 101 are answered with Int32
// HOST_ERR_NO_PLUGIN. Other request codes go to the fallback object given at construction (the
// connection-manager service, when the stub is registered as system ability 70633), else
// ERR_UNKNOWN_TRANSACTION.
// The stub also remembers which caller started each collaboration (the take-photo request's
// reply names it), because a take-photo request for a peer that already has a collaboration
// joins it: the reply carries the running one's id and its callbacks keep going to the app
// that started it. So that the joining app does not wait for callbacks that never come, a
// successful take-photo reply gets one more Uint32 after the plugin's: 1 when the request
// joined another request's collaboration, 0 when it started its own. A cancel by the owner
// forgets the collaboration; ForgetCaller forgets a caller that went away.
// Thread-safety: requests may arrive on several threads at once; the owners are guarded.
#pragma once

#include <map>
#include <mutex>

#include "iremote_stub.h"

namespace QUEX {
namespace Tandra {

constexpr uint32_t SERVICE_TYPE_COLLABORATION_TO_DEVICE = 101;

class HostServiceStub : public Vex::IPCObjectStub {
public:
    static const std::u16string& GetDescriptor();

    explicit HostServiceStub(Vex::sptr<Vex::IRemoteObject> fallback = nullptr);
    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;

    struct Caller {
        int32_t pid;
        int32_t uid;
    };
    // The caller's collaborations are the plugin's to end now (it watches the caller's death).
    void ForgetCaller(int32_t pid);
    // Every collaboration whose owner is known, forgotten here: collaboration id -> owner.
    std::map<uint32_t, Caller> TakeCollaborations();
    size_t TrackedCollaborations();

private:
    void TrackReply(uint32_t subService, uint32_t cancelled, const Caller& caller, Vex::MessageParcel& reply);

    const Vex::sptr<Vex::IRemoteObject> fallback_;
    std::mutex mutex_;
    std::map<uint32_t, Caller> collaborations_;  // collaboration id -> the caller that started it
};

}  // namespace Tandra
}  // namespace QUEX
