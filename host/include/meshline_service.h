// MeshlineService: the connection-management service of a device (system ability 70633,
// "quex.ITandra.ITandraService", request code 501, Meshline operations 1 to 16). It arbitrates
// link resources between the collaborations of the device's clients, keeps their task and
// service-state records, and calls their callback objects back ("quex.ITandra.ITandraCallback").
//
// What each operation does (results in MeshlineResult; a reply always starts with the Int32
// result, CheckConflict's with its task list, the ...WithPid ones carry the caller's pid second):
//   ApplyAdvancedResource(device, service, request, callback): answered 0 at once when the
//     arguments are sound (22 otherwise); the decision follows on the callback (506, reason in
//     the third string, service result 320001 grant / 320003 refusal), always within
//     PREEMPT_WAIT. Granted when Wi-Fi is on, LinkStatus::CanCarry(device) and no other grant
//     stands in the way. Grants conflict when they are on the same device for the same service
//     name, or ask for the same hardware type (remote: on the same device; local: anywhere)
//     and one of them does not share it. A client applying again for a device and service it
//     already holds joins its own grant. A conflicting holder that subscribed to disconnect
//     notices for that device and service is pre-empted: it gets a notice (505, value
//     DISCONNECT_PREEMPTED) and the applicant is granted as soon as every such holder has given
//     way (published state 1 for it, or died); otherwise, or after PREEMPT_WAIT, the applicant is
//     refused. A grant ends when its holder publishes state 1 for its device and service, dies,
//     the peer is lost, or DisconnectCurrentDevice ends it.
//   PublishServiceState(device, service, extra, state 1..4): recorded and sent to every
//     service-state subscriber (504: device, service, extra, state, publisher's pid); state 1
//     (free) first ends the publisher's grant, so a subscriber that applies on seeing it is not
//     refused for it.
//   SubscribeServiceState / ...WithPid, UnSubscribe...: one subscription per client process.
//   SubscribeNotifyDisconnect(device, service, extra, callback) / UnSubscribe(device, service):
//     per client, device and service; notices are 505 (service, device, extra, reason) with
//     reason DISCONNECT_PEER_LOST, DISCONNECT_PREEMPTED or DISCONNECT_REQUESTED.
//   NotifyDeviceConnectState(device, type, info): the device's task for that service type
//     (connect state 0 ends it); device-state subscribers (RegisterDeviceStateSubscriber) get
//     503 (connect state, [type], [info]); NotifyAllState sends each of them every record.
//   CheckConflict(device, type, link): the device's tasks (connection tasks, and grants as
//     tasks of COLLABORATION_SERVICE_TYPE) and TASK_CONFLICT when one of them uses that link
//     (link 0 matches any) and is not the caller's own task of the same type, else 0.
//   DisconnectCurrentDevice(device, type, link): ends those tasks (grants too, for
//     COLLABORATION_SERVICE_TYPE), tells the device-state manager registered for (device, type)
//     (502) and the disconnect subscribers; NOT_FOUND when there was nothing to end.
//   Unsubscribing or unregistering what the caller does not hold answers NOT_FOUND.
// Everything a client registered is released when it dies (death recipients on its callback
// objects) or when it ends it; NotifyPeerLost and NotifyWifiState come from the device link.
//
// Thread-safety: every member may be called from any thread. Requests are answered on the
// calling IPC thread; callbacks and decisions run on the service's own thread, in the order
// they were caused, never under the service's lock and as the service's process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "iremote_stub.h"
#include "link_status.h"
#include "meshline_wire.h"
#include "vex_clock.h"

namespace QUEX::Tandra {

namespace MeshlineResult {
constexpr int32_t OK = 0;
constexpr int32_t INVALID_PARAM = 1001;        // arguments missing, empty or unreadable
constexpr int32_t APPLY_INVALID_PARAM = 22;    // ApplyAdvancedResource's own code for the same
constexpr int32_t NOT_FOUND = 1014;            // nothing of the caller's under that key
constexpr int32_t TASK_CONFLICT = 1015;        // CheckConflict: a task holds that link
constexpr int32_t SERVICE_STOPPED = 1016;      // the service is shutting down
constexpr int32_t SERVICE_GRANTED = 320001;    // decision on the 506 callback
constexpr int32_t SERVICE_REFUSED = 320003;
}  // namespace MeshlineResult

class MeshlineService : public Vex::IPCObjectStub {
public:
    using TimePoint = Vex::Clock::TimePoint;

    // How long an applicant waits for pre-empted holders to give way (service clock); well
    // inside the 15 s that applicants wait for a decision.
    static constexpr std::chrono::seconds PREEMPT_WAIT{5};
    // The service type under which grants appear in task lists.
    static constexpr uint32_t COLLABORATION_SERVICE_TYPE = 3;
    static constexpr int32_t SERVICE_STATE_FREE = 1;
    // The value of a disconnect notice (505).
    static constexpr int32_t DISCONNECT_PEER_LOST = 1;
    static constexpr int32_t DISCONNECT_PREEMPTED = 2;
    static constexpr int32_t DISCONNECT_REQUESTED = 3;

    // Owned by the calling thread's process. links null: every link can carry.
    static Vex::sptr<MeshlineService> Create(std::shared_ptr<LinkStatus> links);
    ~MeshlineService() override;

    // Adds / removes this service as system ability 70633 of the current manager.
    bool Register();
    void Unregister();
    // Ends the service's thread and releases every registration (pending applicants are
    // refused first); later requests answer SERVICE_STOPPED. Idempotent; the destructor calls it.
    void Stop();

    // From the device link: the peer is gone (either of its ids may name it in registrations).
    // Disconnect subscribers of the peer are told, its grants and tasks end, pending
    // applications for it are refused.
    void NotifyPeerLost(const std::string& networkId, const std::string& udid = std::string());
    // Wi-Fi off refuses every application (pending ones too) until it is back on.
    void NotifyWifiState(bool active);

    // --- Introspection, for leak checks ---------------------------------------------------
    struct Counts {
        size_t grants = 0;
        size_t pendingApplications = 0;
        size_t deviceTasks = 0;
        size_t serviceStates = 0;           // published states other than free
        size_t deviceManagers = 0;
        size_t stateSubscribers = 0;        // device-state subscribers
        size_t serviceStateSubscribers = 0;
        size_t disconnectSubscriptions = 0;
        size_t watchedCallbacks = 0;        // callback objects with a death recipient attached
        size_t queuedDeliveries = 0;
    };
    Counts GetCounts() const;
    size_t ActiveTaskCount() const;   // grants, pending applications and device tasks
    size_t SubscriberCount() const;   // every kind of subscription and registration
    size_t CallbackCount() const;     // watched callback objects
    // Waits (real time) until every callback and decision caused so far has been delivered.
    bool WaitIdle(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

    int OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                        Vex::MessageOption& option) override;

private:
    class ClientDeath;
    using Object = Vex::sptr<Vex::IRemoteObject>;
    using Hardware = MeshlineWire::ResourceRequestValues;

    struct Grant {
        int32_t pid = 0;
        std::string device;
        std::string service;
        Hardware hardware;
        Object callback;  // watched while the grant lives: its owner's death ends the grant
        bool preempted = false;
    };
    struct Application {
        uint64_t id = 0;
        int32_t pid = 0;
        std::string device;
        std::string service;
        Hardware hardware;
        Object callback;
        TimePoint deadline;
    };
    struct DeviceTask {
        int32_t pid = 0;
        uint32_t linkType = 0;
        uint32_t connectState = 0;
    };
    struct ServiceState {
        int32_t pid = 0;
        std::string extra;
        int32_t state = 0;
    };
    struct Registration {
        int32_t pid = 0;
        Object object;
        std::string extra;
    };
    struct Watched {
        Object object;
        Vex::sptr<ClientDeath> recipient;
        size_t uses = 0;
    };
    struct Delivery {
        Object target;
        std::function<void(Vex::MessageParcel&)> write;
    };
    using DeviceKey = std::pair<std::string, uint32_t>;       // device, service type
    using ServiceKey = std::pair<std::string, std::string>;   // device, service name
    using ClientKey = std::tuple<int32_t, std::string, std::string>;  // pid, device, service name

    explicit MeshlineService(std::shared_ptr<LinkStatus> links);

    // Request handlers (meshline_service_ops.cpp, meshline_service_arbitration.cpp); each
    // writes its reply. REQUIRES: mutex_ held, except Apply which takes it itself.
    void HandleRegisterManager(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);
    void HandleUnregisterManager(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);
    void HandleNotifyDeviceConnectState(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);
    void HandleCheckConflict(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);
    void HandleDisconnectCurrentDevice(const MeshlineWire::Request& request, Vex::MessageParcel& reply);
    void HandleSubscribe(std::map<int32_t, Registration>& table, const MeshlineWire::Request& request, int32_t pid,
                         Vex::MessageParcel& reply, bool withPid);
    void HandleUnsubscribe(std::map<int32_t, Registration>& table, int32_t pid, Vex::MessageParcel& reply,
                           bool withPid);
    void HandleSubscribeDisconnect(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);
    void HandleUnsubscribeDisconnect(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);
    void HandlePublishServiceState(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);
    void HandleNotifyAllState(Vex::MessageParcel& reply);
    void HandleApply(const MeshlineWire::Request& request, int32_t pid, Vex::MessageParcel& reply);

    // REQUIRES: mutex_ held.
    bool Watch(const Object& object);
    void Unwatch(const Object& object);
    void Deliver(const Object& target, std::function<void(Vex::MessageParcel&)> write);
    void NotifyStateSubscribers(int32_t state, const std::vector<uint32_t>& types,
                                const std::vector<MeshlineWire::ServiceStateValues>& infos);
    void NotifyServiceState(const std::string& device, const std::string& service, const std::string& extra,
                            int32_t state, int32_t value);
    void NotifyDisconnect(const std::string& device, const std::string& service, int32_t reason);
    void EndDeviceTask(std::map<DeviceKey, DeviceTask>::iterator task, bool tellManager);
    void ReleaseGrants(const std::function<bool(const Grant&)>& match);
    void Decide(Application& application, bool grant, const std::string& reason);
    std::vector<const Grant*> ConflictsOf(const Application& application) const;
    void ArbitratePending();
    bool Preemptible(const Grant& grant) const;
    void ForgetProcess(int32_t pid, const Vex::IRemoteObject* object);

    void Run();

    const std::shared_ptr<LinkStatus> links_;
    const int32_t ownerUid_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    bool stopped_ = false;
    bool wifiActive_ = true;
    bool delivering_ = false;
    bool rearbitrate_ = false;  // grants or pending applications changed since the last arbitration
    uint64_t nextApplication_ = 1;

    std::map<DeviceKey, Registration> managers_;
    std::map<int32_t, Registration> stateSubscribers_;
    std::map<int32_t, Registration> serviceStateSubscribers_;
    std::map<ClientKey, Registration> disconnectSubscriptions_;
    std::vector<Grant> grants_;
    std::deque<Application> pending_;
    std::map<DeviceKey, DeviceTask> deviceTasks_;
    std::map<ServiceKey, ServiceState> serviceStates_;
    std::map<const Vex::IRemoteObject*, Watched> watched_;
    std::vector<Watched> unwatched_;  // recipients to detach outside the lock
    std::deque<Delivery> deliveries_;
    std::thread worker_;
};

}  // namespace QUEX::Tandra
