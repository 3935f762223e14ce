// The service's records: device-state managers and subscribers, connection tasks and conflict
// checks, service-state publication and subscription, disconnect notices, and what happens when
// a peer or a client goes.
#include "meshline_service.h"

#include "vex_log_tags.h"

namespace QUEX::Tandra {

using MeshlineWire::Request;
using MeshlineWire::ServiceStateValues;
using MeshlineWire::TaskValues;
using Vex::MessageParcel;

namespace {

void WriteResult(MessageParcel& reply, int32_t result, bool withPid, int32_t pid)
{
    reply.WriteInt32(result);
    if (withPid) {
        reply.WriteInt32(pid);
    }
}

bool LinkMatches(uint32_t asked, uint32_t held)
{
    return asked == 0 || held == 0 || asked == held;
}

}  // namespace

void MeshlineService::HandleRegisterManager(const Request& request, int32_t pid, MessageParcel& reply)
{
    if (!request.complete || request.strings[0].empty() || request.callback == nullptr || !Watch(request.callback)) {
        reply.WriteInt32(MeshlineResult::INVALID_PARAM);
        return;
    }
    Registration& slot = managers_[{request.strings[0], request.uints[0]}];
    Unwatch(slot.object);  // a newer manager of the same device and type replaces the old one
    slot = {pid, request.callback, ""};
    reply.WriteInt32(MeshlineResult::OK);
}

void MeshlineService::HandleUnregisterManager(const Request& request, int32_t pid, MessageParcel& reply)
{
    auto found = request.complete ? managers_.find({request.strings[0], request.uints[0]}) : managers_.end();
    if (found == managers_.end() || found->second.pid != pid) {
        reply.WriteInt32(MeshlineResult::NOT_FOUND);
        return;
    }
    Unwatch(found->second.object);
    managers_.erase(found);
    reply.WriteInt32(MeshlineResult::OK);
}

void MeshlineService::HandleNotifyDeviceConnectState(const Request& request, int32_t pid, MessageParcel& reply)
{
    if (!request.complete || request.strings[0].empty() || !request.serviceState.present) {
        reply.WriteInt32(MeshlineResult::INVALID_PARAM);
        return;
    }
    const std::string& device = request.strings[0];
    const uint32_t type = request.uints[0];
    ServiceStateValues info = request.serviceState;
    if (info.deviceId.empty()) {
        info.deviceId = device;
    }
    if (info.connectState == 0) {
        auto found = deviceTasks_.find({device, type});
        if (found != deviceTasks_.end()) {
            EndDeviceTask(found, false);
        }
    } else {
        deviceTasks_[{device, type}] = {pid, info.linkType, info.connectState};
        NotifyStateSubscribers(static_cast<int32_t>(info.connectState), {type}, {info});
    }
    reply.WriteInt32(MeshlineResult::OK);
}

void MeshlineService::HandleCheckConflict(const Request& request, int32_t pid, MessageParcel& reply)
{
    std::vector<TaskValues> tasks;
    if (!request.complete || request.strings[0].empty()) {
        MeshlineWire::WriteTaskList(reply, tasks, MeshlineResult::INVALID_PARAM);
        return;
    }
    const std::string& device = request.strings[0];
    const uint32_t type = request.uints[0];
    const uint32_t link = request.uints[1];
    bool conflict = false;
    for (const auto& [key, task] : deviceTasks_) {
        if (key.first != device) {
            continue;
        }
        tasks.push_back({true, device, key.second, task.linkType, task.connectState,
                         managers_.count(key) != 0 ? 1u : 0u});
        conflict |= LinkMatches(link, task.linkType) && !(task.pid == pid && key.second == type);
    }
    for (const auto& grant : grants_) {
        if (grant.device != device) {
            continue;
        }
        auto state = serviceStates_.find({grant.device, grant.service});
        uint32_t connectState = state != serviceStates_.end() ? static_cast<uint32_t>(state->second.state) : 0;
        tasks.push_back({true, device, COLLABORATION_SERVICE_TYPE, 0, connectState, Preemptible(grant) ? 1u : 0u});
        conflict |= !(grant.pid == pid && type == COLLABORATION_SERVICE_TYPE);
    }
    MeshlineWire::WriteTaskList(reply, tasks, conflict ? MeshlineResult::TASK_CONFLICT : MeshlineResult::OK);
}

void MeshlineService::HandleDisconnectCurrentDevice(const Request& request, MessageParcel& reply)
{
    if (!request.complete || request.strings[0].empty()) {
        reply.WriteInt32(MeshlineResult::INVALID_PARAM);
        return;
    }
    const std::string& device = request.strings[0];
    const uint32_t type = request.uints[0];
    size_t ended = 0;
    auto task = deviceTasks_.find({device, type});
    if (task != deviceTasks_.end() && LinkMatches(request.uints[1], task->second.linkType)) {
        EndDeviceTask(task, true);
        NotifyDisconnect(device, "", DISCONNECT_REQUESTED);
        ++ended;
    }
    if (type == COLLABORATION_SERVICE_TYPE) {
        for (const auto& grant : grants_) {
            if (grant.device == device) {
                NotifyDisconnect(device, grant.service, DISCONNECT_REQUESTED);
                ++ended;
            }
        }
        ReleaseGrants([&device](const Grant& grant) { return grant.device == device; });
    }
    reply.WriteInt32(ended != 0 ? MeshlineResult::OK : MeshlineResult::NOT_FOUND);
}

void MeshlineService::HandleSubscribe(std::map<int32_t, Registration>& table, const Request& request, int32_t pid,
                                      MessageParcel& reply, bool withPid)
{
    if (!request.complete || request.callback == nullptr || !Watch(request.callback)) {
        WriteResult(reply, MeshlineResult::INVALID_PARAM, withPid, pid);
        return;
    }
    // One subscription per process: the callback of an earlier one may belong to an object
    // the client has since dropped, and must not be called any more.
    Registration& slot = table[pid];
    Unwatch(slot.object);
    slot = {pid, request.callback, ""};
    WriteResult(reply, MeshlineResult::OK, withPid, pid);
}

void MeshlineService::HandleUnsubscribe(std::map<int32_t, Registration>& table, int32_t pid, MessageParcel& reply,
                                        bool withPid)
{
    auto found = table.find(pid);
    if (found == table.end()) {
        WriteResult(reply, MeshlineResult::NOT_FOUND, withPid, pid);
        return;
    }
    Unwatch(found->second.object);
    table.erase(found);
    WriteResult(reply, MeshlineResult::OK, withPid, pid);
}

void MeshlineService::HandleSubscribeDisconnect(const Request& request, int32_t pid, MessageParcel& reply)
{
    if (!request.complete || request.strings[0].empty() || request.strings[1].empty() ||
        request.callback == nullptr || !Watch(request.callback)) {
        reply.WriteInt32(MeshlineResult::INVALID_PARAM);
        return;
    }
    Registration& slot = disconnectSubscriptions_[{pid, request.strings[0], request.strings[1]}];
    Unwatch(slot.object);
    slot = {pid, request.callback, request.strings[2]};
    reply.WriteInt32(MeshlineResult::OK);
}

void MeshlineService::HandleUnsubscribeDisconnect(const Request& request, int32_t pid, MessageParcel& reply)
{
    auto found = request.complete ? disconnectSubscriptions_.find({pid, request.strings[0], request.strings[1]})
                                  : disconnectSubscriptions_.end();
    if (found == disconnectSubscriptions_.end()) {
        reply.WriteInt32(MeshlineResult::NOT_FOUND);
        return;
    }
    Unwatch(found->second.object);
    disconnectSubscriptions_.erase(found);
    reply.WriteInt32(MeshlineResult::OK);
}

void MeshlineService::HandlePublishServiceState(const Request& request, int32_t pid, MessageParcel& reply)
{
    const int32_t state = request.complete ? request.ints[0] : 0;
    if (!request.complete || request.strings[0].empty() || request.strings[1].empty() || state < 1 || state > 4) {
        reply.WriteInt32(MeshlineResult::INVALID_PARAM);
        return;
    }
    const std::string& device = request.strings[0];
    const std::string& service = request.strings[1];
    if (state == SERVICE_STATE_FREE) {
        serviceStates_.erase({device, service});
        // Before the notice goes out: whoever waits for it may apply at once.
        ReleaseGrants([&](const Grant& grant) {
            return grant.pid == pid && grant.device == device && grant.service == service;
        });
    } else {
        serviceStates_[{device, service}] = {pid, request.strings[2], state};
    }
    NotifyServiceState(device, service, request.strings[2], state, pid);
    reply.WriteInt32(MeshlineResult::OK);
}

void MeshlineService::HandleNotifyAllState(MessageParcel& reply)
{
    for (const auto& [key, task] : deviceTasks_) {
        NotifyStateSubscribers(static_cast<int32_t>(task.connectState), {key.second},
                               {{true, key.first, task.linkType, task.connectState}});
    }
    reply.WriteInt32(MeshlineResult::OK);
}

void MeshlineService::EndDeviceTask(std::map<DeviceKey, DeviceTask>::iterator task, bool tellManager)
{
    const DeviceKey key = task->first;
    const uint32_t linkType = task->second.linkType;
    deviceTasks_.erase(task);
    NotifyStateSubscribers(0, {key.second}, {{true, key.first, linkType, 0}});
    auto manager = managers_.find(key);
    if (tellManager && manager != managers_.end()) {
        Deliver(manager->second.object, [key](MessageParcel& data) {
            MeshlineWire::WriteDisconnectDevice(data, key.first, key.second);
        });
    }
}

void MeshlineService::NotifyStateSubscribers(int32_t state, const std::vector<uint32_t>& types,
                                             const std::vector<ServiceStateValues>& infos)
{
    for (const auto& [pid, subscriber] : stateSubscribers_) {
        Deliver(subscriber.object,
                [state, types, infos](MessageParcel& data) { MeshlineWire::WriteStateNotify(data, state, types, infos); });
    }
}

void MeshlineService::NotifyServiceState(const std::string& device, const std::string& service,
                                         const std::string& extra, int32_t state, int32_t value)
{
    for (const auto& [pid, subscriber] : serviceStateSubscribers_) {
        Deliver(subscriber.object, [=](MessageParcel& data) {
            MeshlineWire::WriteServiceStateChanged(data, device, service, extra, state, value);
        });
    }
}

void MeshlineService::NotifyDisconnect(const std::string& device, const std::string& service, int32_t reason)
{
    for (const auto& [key, subscription] : disconnectSubscriptions_) {
        const auto& [pid, subscribedDevice, subscribedService] = key;
        if (subscribedDevice != device || (!service.empty() && subscribedService != service)) {
            continue;
        }
        std::string name = subscribedService;
        std::string extra = subscription.extra;
        Deliver(subscription.object, [=](MessageParcel& data) {
            MeshlineWire::WriteDisconnected(data, name, device, extra, reason);
        });
    }
}

void MeshlineService::NotifyPeerLost(const std::string& networkId, const std::string& udid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) {
        return;
    }
    for (const std::string& device : {networkId, udid}) {
        if (device.empty()) {
            continue;
        }
        TNDR_HOST_LOGI("peer %{public}s lost: its collaborations end", device.c_str());
        NotifyDisconnect(device, "", DISCONNECT_PEER_LOST);
        for (auto task = deviceTasks_.begin(); task != deviceTasks_.end();) {
            auto next = std::next(task);
            if (task->first.first == device) {
                EndDeviceTask(task, true);
            }
            task = next;
        }
        ReleaseGrants([&device](const Grant& grant) { return grant.device == device; });
        for (auto application = pending_.begin(); application != pending_.end();) {
            if (application->device == device) {
                Decide(*application, false, "peer lost");
                application = pending_.erase(application);
            } else {
                ++application;
            }
        }
        for (auto state = serviceStates_.begin(); state != serviceStates_.end();) {
            state = state->first.first == device ? serviceStates_.erase(state) : std::next(state);
        }
    }
}

void MeshlineService::NotifyWifiState(bool active)
{
    std::lock_guard<std::mutex> lock(mutex_);
    wifiActive_ = active;
    if (!active) {
        for (auto& application : pending_) {
            Decide(application, false, "wifi off");
        }
        pending_.clear();
    }
}

void MeshlineService::ForgetProcess(int32_t pid, const Vex::IRemoteObject* object)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) {
        return;
    }
    TNDR_HOST_LOGI("client process %{public}d died: releasing what it registered", pid);
    auto gone = [pid, object](const Registration& registration) {
        return registration.pid == pid || registration.object.GetRefPtr() == object;
    };
    auto forget = [this, &gone](auto& table) {
        for (auto entry = table.begin(); entry != table.end();) {
            if (gone(entry->second)) {
                Unwatch(entry->second.object);
                entry = table.erase(entry);
            } else {
                ++entry;
            }
        }
    };
    forget(managers_);
    forget(stateSubscribers_);
    forget(serviceStateSubscribers_);
    forget(disconnectSubscriptions_);
    ReleaseGrants([pid, object](const Grant& grant) {
        return grant.pid == pid || grant.callback.GetRefPtr() == object;
    });
    for (auto application = pending_.begin(); application != pending_.end();) {
        if (application->pid == pid || application->callback.GetRefPtr() == object) {
            Unwatch(application->callback);
            application = pending_.erase(application);
        } else {
            ++application;
        }
    }
    for (auto task = deviceTasks_.begin(); task != deviceTasks_.end();) {
        auto next = std::next(task);
        if (task->second.pid == pid) {
            EndDeviceTask(task, false);
        }
        task = next;
    }
    // The dead process held these services; whoever waits for them to be free hears so now.
    for (auto state = serviceStates_.begin(); state != serviceStates_.end();) {
        if (state->second.pid == pid) {
            NotifyServiceState(state->first.first, state->first.second, "", SERVICE_STATE_FREE, pid);
            state = serviceStates_.erase(state);
        } else {
            ++state;
        }
    }
}

}  // namespace QUEX::Tandra
