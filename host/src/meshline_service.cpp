// The service's frame: creation and shutdown, request dispatch, the delivery thread, death
// recipients on client callbacks, and introspection.
#include "meshline_service.h"

#include "host_types.h"
#include "ipc_skeleton.h"
#include "system_ability_manager.h"
#include "vex_log_tags.h"

namespace QUEX::Tandra {

using MeshlineWire::Request;
using Vex::MessageParcel;

// Tells the service that the process owning a callback object died.
class MeshlineService::ClientDeath : public Vex::IRemoteObject::DeathRecipient {
public:
    ClientDeath(Vex::wptr<MeshlineService> service, int32_t pid) : service_(std::move(service)), pid_(pid) {}
    void OnRemoteDied(const Vex::wptr<Vex::IRemoteObject>& object) override
    {
        Vex::sptr<MeshlineService> service = service_.promote();
        if (service != nullptr) {
            Vex::sptr<Vex::IRemoteObject> dead = object.promote();
            service->ForgetProcess(pid_, dead.GetRefPtr());
        }
    }

private:
    const Vex::wptr<MeshlineService> service_;
    const int32_t pid_;
};

Vex::sptr<MeshlineService> MeshlineService::Create(std::shared_ptr<LinkStatus> links)
{
    Vex::sptr<MeshlineService> service(new MeshlineService(std::move(links)));
    service->worker_ = std::thread([raw = service.GetRefPtr()]() { raw->Run(); });
    return service;
}

MeshlineService::MeshlineService(std::shared_ptr<LinkStatus> links)
    : IPCObjectStub(MeshlineWire::SERVICE_TOKEN), links_(std::move(links)), ownerUid_(Vex::IPCSkeleton::GetSelfUid())
{
}

MeshlineService::~MeshlineService()
{
    Stop();
}

bool MeshlineService::Register()
{
    auto manager = Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    return manager != nullptr && manager->AddSystemAbility(MeshlineWire::SYSTEM_ABILITY_ID, this) == 0;
}

void MeshlineService::Unregister()
{
    auto manager = Vex::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager != nullptr && manager->CheckSystemAbility(MeshlineWire::SYSTEM_ABILITY_ID).GetRefPtr() == this) {
        manager->RemoveSystemAbility(MeshlineWire::SYSTEM_ABILITY_ID);
    }
}

void MeshlineService::Stop()
{
    std::vector<Watched> detach;
    std::deque<Delivery> undelivered;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!stopped_) {
            // Applicants hear the refusal before the thread goes, so none waits out its 15 s.
            for (auto& application : pending_) {
                Decide(application, false, "service stopping");
            }
            pending_.clear();
            stopped_ = true;
            wake_.notify_all();
        }
    }
    if (worker_.joinable()) {
        if (worker_.get_id() == std::this_thread::get_id()) {
            worker_.detach();
        } else {
            worker_.join();
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        managers_.clear();
        stateSubscribers_.clear();
        serviceStateSubscribers_.clear();
        disconnectSubscriptions_.clear();
        grants_.clear();
        deviceTasks_.clear();
        serviceStates_.clear();
        for (auto& [key, watched] : watched_) {
            detach.push_back(std::move(watched));
        }
        watched_.clear();
        for (auto& watched : unwatched_) {
            detach.push_back(std::move(watched));
        }
        unwatched_.clear();
        undelivered.swap(deliveries_);
    }
    for (auto& watched : detach) {
        watched.object->RemoveDeathRecipient(watched.recipient);
    }
    idle_.notify_all();
}

int MeshlineService::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, Vex::MessageOption&)
{
    if (code != MeshlineWire::MESHLINE_CODE) {
        TNDR_HOST_LOGE("unknown request code %{public}u: only Meshline requests (501) are served", code);
        return Vex::ERR_UNKNOWN_TRANSACTION;
    }
    Request request = MeshlineWire::DecodeRequest(data);
    if (request.token != MeshlineWire::SERVICE_TOKEN || request.serviceType != MeshlineWire::MESHLINE_CODE ||
        !MeshlineWire::IsKnownOperation(request.operation)) {
        TNDR_HOST_LOGE("refused request: wrong interface token or unknown operation %{public}u", request.operation);
        return Vex::ERR_INVALID_DATA;
    }
    const int32_t pid = Vex::IPCSkeleton::GetCallingPid();
    if (request.operation == MeshlineWire::APPLY_ADVANCED_RESOURCE) {
        HandleApply(request, pid, reply);  // asks the link first, without the lock
        return Vex::ERR_NONE;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) {
        reply.WriteInt32(MeshlineResult::SERVICE_STOPPED);
        return Vex::ERR_NONE;
    }
    switch (request.operation) {
        case MeshlineWire::REGISTER_DEVICE_STATE_MANAGER_CALLBACK:
            HandleRegisterManager(request, pid, reply);
            break;
        case MeshlineWire::UNREGISTER_DEVICE_STATE_MANAGER_CALLBACK:
            HandleUnregisterManager(request, pid, reply);
            break;
        case MeshlineWire::NOTIFY_DEVICE_CONNECT_STATE:
            HandleNotifyDeviceConnectState(request, pid, reply);
            break;
        case MeshlineWire::CHECK_CONFLICT:
            HandleCheckConflict(request, pid, reply);
            break;
        case MeshlineWire::DISCONNECT_CURRENT_DEVICE:
            HandleDisconnectCurrentDevice(request, reply);
            break;
        case MeshlineWire::REGISTER_DEVICE_STATE_SUBSCRIBER:
            HandleSubscribe(stateSubscribers_, request, pid, reply, false);
            break;
        case MeshlineWire::UNREGISTER_DEVICE_STATE_SUBSCRIBER:
            HandleUnsubscribe(stateSubscribers_, pid, reply, false);
            break;
        case MeshlineWire::SUBSCRIBE_SERVICE_STATE:
        case MeshlineWire::SUBSCRIBE_SERVICE_STATE_WITH_PID:
            HandleSubscribe(serviceStateSubscribers_, request, pid, reply,
                            request.operation == MeshlineWire::SUBSCRIBE_SERVICE_STATE_WITH_PID);
            break;
        case MeshlineWire::UNSUBSCRIBE_SERVICE_STATE:
        case MeshlineWire::UNSUBSCRIBE_SERVICE_STATE_WITH_PID:
            HandleUnsubscribe(serviceStateSubscribers_, pid, reply,
                              request.operation == MeshlineWire::UNSUBSCRIBE_SERVICE_STATE_WITH_PID);
            break;
        case MeshlineWire::SUBSCRIBE_NOTIFY_DISCONNECT:
            HandleSubscribeDisconnect(request, pid, reply);
            break;
        case MeshlineWire::UNSUBSCRIBE_NOTIFY_DISCONNECT:
            HandleUnsubscribeDisconnect(request, pid, reply);
            break;
        case MeshlineWire::PUBLISH_SERVICE_STATE:
            HandlePublishServiceState(request, pid, reply);
            break;
        case MeshlineWire::NOTIFY_ALL_STATE:
            HandleNotifyAllState(reply);
            break;
        default:
            break;
    }
    return Vex::ERR_NONE;
}

bool MeshlineService::Watch(const Object& object)
{
    auto found = watched_.find(object.GetRefPtr());
    if (found != watched_.end()) {
        ++found->second.uses;
        return true;
    }
    Watched watched{object, Vex::sptr<ClientDeath>(new ClientDeath(this, object->GetOwnerPid())), 1};
    if (!object->AddDeathRecipient(watched.recipient)) {
        return false;  // its owner is already gone: nothing may be registered for it
    }
    watched_.emplace(object.GetRefPtr(), std::move(watched));
    return true;
}

void MeshlineService::Unwatch(const Object& object)
{
    auto found = object != nullptr ? watched_.find(object.GetRefPtr()) : watched_.end();
    if (found == watched_.end() || --found->second.uses > 0) {
        return;
    }
    unwatched_.push_back(std::move(found->second));
    watched_.erase(found);
    wake_.notify_all();
}

void MeshlineService::Deliver(const Object& target, std::function<void(MessageParcel&)> write)
{
    if (target == nullptr || stopped_) {
        return;
    }
    deliveries_.push_back({target, std::move(write)});
    wake_.notify_all();
}

void MeshlineService::Run()
{
    // Callbacks come from the service's process, whichever client caused them.
    Vex::ScopedIdentity asService(GetOwnerPid(), ownerUid_);
    std::unique_lock<std::mutex> lock(mutex_);
    // Runs until stopped with nothing left to deliver: refusals queued by Stop still go out.
    while (!stopped_ || !deliveries_.empty()) {
        if (!unwatched_.empty() && !stopped_) {
            std::vector<Watched> detach;
            detach.swap(unwatched_);
            lock.unlock();
            for (auto& watched : detach) {
                watched.object->RemoveDeathRecipient(watched.recipient);
            }
            detach.clear();  // the last references may go here, outside the lock
            lock.lock();
            continue;
        }
        if (!deliveries_.empty()) {
            Delivery delivery = std::move(deliveries_.front());
            deliveries_.pop_front();
            delivering_ = true;
            lock.unlock();
            MessageParcel data;
            MessageParcel reply;
            Vex::MessageOption option;
            delivery.write(data);
            int32_t status = delivery.target->SendRequest(MeshlineWire::MESHLINE_CODE, data, reply, option);
            if (status != Vex::ERR_NONE) {
                TNDR_HOST_LOGI("callback of process %{public}d not reached (%{public}d)",
                               delivery.target->GetOwnerPid(), status);
            }
            delivery = Delivery();
            lock.lock();
            delivering_ = false;
            continue;
        }
        if (stopped_) {
            break;
        }
        ArbitratePending();
        if (!deliveries_.empty() || !unwatched_.empty()) {
            continue;
        }
        idle_.notify_all();
        if (pending_.empty()) {
            wake_.wait(lock);
        } else {
            TimePoint earliest = pending_.front().deadline;
            for (const auto& application : pending_) {
                earliest = std::min(earliest, application.deadline);
            }
            Vex::Clock::WaitUntil(wake_, lock, earliest);
        }
    }
}

MeshlineService::Counts MeshlineService::GetCounts() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    Counts counts;
    counts.grants = grants_.size();
    counts.pendingApplications = pending_.size();
    counts.deviceTasks = deviceTasks_.size();
    counts.serviceStates = serviceStates_.size();
    counts.deviceManagers = managers_.size();
    counts.stateSubscribers = stateSubscribers_.size();
    counts.serviceStateSubscribers = serviceStateSubscribers_.size();
    counts.disconnectSubscriptions = disconnectSubscriptions_.size();
    counts.watchedCallbacks = watched_.size();
    counts.queuedDeliveries = deliveries_.size();
    return counts;
}

size_t MeshlineService::ActiveTaskCount() const
{
    Counts counts = GetCounts();
    return counts.grants + counts.pendingApplications + counts.deviceTasks;
}

size_t MeshlineService::SubscriberCount() const
{
    Counts counts = GetCounts();
    return counts.deviceManagers + counts.stateSubscribers + counts.serviceStateSubscribers +
           counts.disconnectSubscriptions;
}

size_t MeshlineService::CallbackCount() const
{
    return GetCounts().watchedCallbacks;
}

bool MeshlineService::WaitIdle(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return idle_.wait_for(lock, timeout, [this]() {
        if (stopped_) {
            return true;
        }
        const TimePoint now = Vex::Clock::Now();
        for (const auto& application : pending_) {
            if (application.deadline <= now) {
                return false;  // its refusal is due
            }
        }
        return deliveries_.empty() && unwatched_.empty() && !delivering_ && !rearbitrate_;
    });
}

}  // namespace QUEX::Tandra
