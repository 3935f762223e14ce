// DaemonHostService: the framework service as the daemon serves it to applications over IPC
// (system ability 70633). Requests for the camera plugin pass to the host's stub while the
// calling app is marked for the bundle manager; the connection-manager operations, which only
// the plugin inside this process may use, are refused to every other process (an app could
// otherwise publish states or take a link's resources). A daemon being stopped cancels the
// collaborations the host's stub knows the owners of, the way each app itself would.
// Thread-safety: requests arrive on several IPC threads at once; the state is the stub's, guarded.
#pragma once

#include <cstdint>

#include "app_registry.h"
#include "host_service_stub.h"

namespace QUEX {
namespace Tandra {

class DaemonHostService : public HostServiceStub {
public:
    explicit DaemonHostService(Vex::sptr<Vex::IRemoteObject> meshline);

    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;

    // Cancels every collaboration an app started and that may still run, as its app would.
    void CancelAll();
};

}  // namespace Tandra
}  // namespace QUEX
