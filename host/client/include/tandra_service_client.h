// TandraServiceClient: an application's line to the camera ability of its device's framework
// service (system ability 70633). Each request goes out in the service's envelope: the
// service's interface token, service type 101, the camera ability's four-word header (request
// code, then three words the ability ignores, sent as 0), then the request's own arguments.
// Over the cross-process transport the service object is a proxy; in tests it may be a local
// stub. The client also tells its owner when the service dies, so that nobody waits forever.
// Thread-safety: every method may be called from any thread; requests may run concurrently.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "iremote_object.h"

namespace QUEX {
namespace Tandra {
namespace Client {

class TandraServiceClient {
public:
    using ArgsWriter = std::function<bool(Vex::MessageParcel&)>;

    // The service as this process's system-ability manager knows it (the IPC client installs
    // the daemon's there); null when there is none.
    static Vex::sptr<Vex::IRemoteObject> FindService();

    explicit TandraServiceClient(Vex::sptr<Vex::IRemoteObject> service);
    ~TandraServiceClient();
    TandraServiceClient(const TandraServiceClient&) = delete;
    TandraServiceClient& operator=(const TandraServiceClient&) = delete;

    bool HasService() const { return service_ != nullptr; }
    const Vex::sptr<Vex::IRemoteObject>& Service() const { return service_; }

    // Sends one request and waits up to waitSeconds for the reply. 0 when the reply is there
    // to read; a negative transport error (no service included); RESULT_INVALID when the
    // arguments could not be written (nothing was sent).
    int32_t Send(uint32_t request, const ArgsWriter& writeArgs, Vex::MessageParcel& reply,
                 int waitSeconds = Vex::MessageOption::TF_WAIT_TIME) const;
    // Send, then the reply's Int32 result; a reply without one counts as a transport failure.
    int32_t SendForResult(uint32_t request, const ArgsWriter& writeArgs,
                          int waitSeconds = Vex::MessageOption::TF_WAIT_TIME) const;

    // Calls onDeath once, on the platform's death-notice thread, when the service's process
    // dies (at once, on this thread, when it is already dead or absent). One watch per client;
    // it ends with the client. REQUIRES: onDeath must not destroy this client.
    void WatchDeath(std::function<void()> onDeath);

private:
    class DeathWatch;

    const Vex::sptr<Vex::IRemoteObject> service_;
    std::mutex mutex_;
    Vex::sptr<DeathWatch> watch_;
};

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
