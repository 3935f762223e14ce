// DaemonHostService: the framework service as the daemon serves it to applications over IPC
// (system ability 70633). Requests for the camera plugin pass to the host's stub while the
// calling app is marked for the bundle manager; the connection-manager operations, which only
// the plugin inside this process may use, are refused to every other process (an app could
// otherwise publish states or take a link's resources). It also keeps, per app, the
// collaborations its take-photo requests started, so that a daemon being stopped can cancel
// them the way the app itself would, and tells an app whose request joined a collaboration
// another request started (a Uint32 after the plugin's reply: 1 joined, 0 its own).
// Thread-safety: requests arrive on several IPC threads at once; all state is guarded.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>

#include "app_registry.h"
#include "host_service_stub.h"

namespace QUEX {
namespace Tandra {

class DaemonHostService : public HostServiceStub {
public:
    explicit DaemonHostService(Vex::sptr<Vex::IRemoteObject> meshline);

    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;

    // The app is gone; its collaborations are the plugin's to end (it watches the app's death).
    void ForgetApp(int32_t pid);
    // Cancels every collaboration an app started and that may still run, as its app would.
    void CancelAll();
    size_t TrackedCollaborations();

private:
    struct Caller {
        int32_t pid;
        int32_t uid;
    };
    std::mutex mutex_;
    std::map<uint32_t, Caller> collaborations_;  // collaboration id -> the app that asked
};

}  // namespace Tandra
}  // namespace QUEX
