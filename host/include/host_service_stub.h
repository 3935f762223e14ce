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
// Thread-safety: requests may arrive on several threads at once; the stub keeps no state.
#pragma once

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

private:
    const Vex::sptr<Vex::IRemoteObject> fallback_;
};

}  // namespace Tandra
}  // namespace QUEX
