// Resource applications: who may use a link, pre-emption of holders that can give way, and
// the decisions sent back to applicants.
#include "meshline_service.h"

#include "vex_log_tags.h"

namespace QUEX::Tandra {

using MeshlineWire::HardwareValues;
using MeshlineWire::Request;
using Vex::MessageParcel;

namespace {

// Two lists clash when they name the same hardware and either side will not share it.
bool Clash(const std::vector<HardwareValues>& held, const std::vector<HardwareValues>& asked)
{
    for (const auto& a : held) {
        for (const auto& b : asked) {
            if (a.present && b.present && a.type == b.type && !(a.canShare && b.canShare)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

void MeshlineService::HandleApply(const Request& request, int32_t pid, MessageParcel& reply)
{
    if (!request.complete || request.strings[0].empty() || request.strings[1].empty() ||
        request.callback == nullptr || !request.resource.present) {
        TNDR_HOST_LOGE("resource application of process %{public}d refused: device, service, request and "
                       "callback are all required", pid);
        reply.WriteInt32(MeshlineResult::APPLY_INVALID_PARAM);
        return;
    }
    // The link may take its own locks: ask it before taking the service's.
    const bool carry = links_ == nullptr || links_->CanCarry(request.strings[0]);

    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) {
        reply.WriteInt32(MeshlineResult::SERVICE_STOPPED);
        return;
    }
    if (!Watch(request.callback)) {
        reply.WriteInt32(MeshlineResult::APPLY_INVALID_PARAM);
        return;
    }
    reply.WriteInt32(MeshlineResult::OK);
    Application application{nextApplication_++,
                            pid,
                            request.strings[0],
                            request.strings[1],
                            request.resource,
                            request.callback,
                            Vex::Clock::Now() + std::chrono::duration_cast<Vex::Clock::Duration>(PREEMPT_WAIT)};
    if (!wifiActive_) {
        Decide(application, false, "wifi off");
        return;
    }
    if (!carry) {
        Decide(application, false, "link cannot carry");
        return;
    }
    std::vector<const Grant*> conflicts = ConflictsOf(application);
    if (conflicts.empty()) {
        Decide(application, true, "granted");
        return;
    }
    for (const Grant* grant : conflicts) {
        if (!grant->preempted && !Preemptible(*grant)) {
            Decide(application, false, "link busy");
            return;
        }
    }
    for (const Grant* held : conflicts) {
        auto& grant = const_cast<Grant&>(*held);
        if (grant.preempted) {
            continue;
        }
        grant.preempted = true;
        const Registration& subscription = disconnectSubscriptions_.at({grant.pid, grant.device, grant.service});
        TNDR_HOST_LOGI("process %{public}d pre-empts the collaboration of process %{public}d with %{public}s", pid,
                       grant.pid, grant.device.c_str());
        Deliver(subscription.object, [service = grant.service, device = grant.device,
                                      extra = subscription.extra](MessageParcel& data) {
            MeshlineWire::WriteDisconnected(data, service, device, extra, DISCONNECT_PREEMPTED);
        });
    }
    pending_.push_back(std::move(application));
    rearbitrate_ = true;
    wake_.notify_all();
}

std::vector<const MeshlineService::Grant*> MeshlineService::ConflictsOf(const Application& application) const
{
    std::vector<const Grant*> conflicts;
    for (const auto& grant : grants_) {
        const bool sameDevice = grant.device == application.device;
        if (sameDevice && grant.pid == application.pid && grant.service == application.service) {
            continue;  // the holder applying again joins its own grant
        }
        if ((sameDevice && (grant.service == application.service ||
                            Clash(grant.hardware.remote, application.hardware.remote))) ||
            Clash(grant.hardware.local, application.hardware.local)) {
            conflicts.push_back(&grant);
        }
    }
    return conflicts;
}

bool MeshlineService::Preemptible(const Grant& grant) const
{
    return disconnectSubscriptions_.count({grant.pid, grant.device, grant.service}) != 0;
}

void MeshlineService::Decide(Application& application, bool grant, const std::string& reason)
{
    TNDR_HOST_LOGI("resource application of process %{public}d for %{public}s: %{public}s", application.pid,
                   application.device.c_str(), reason.c_str());
    const int32_t result = grant ? MeshlineResult::SERVICE_GRANTED : MeshlineResult::SERVICE_REFUSED;
    Deliver(application.callback, [device = application.device, service = application.service, reason,
                                   result](MessageParcel& data) {
        MeshlineWire::WriteApplyResult(data, device, service, reason, 0, result);
    });
    bool joined = false;
    for (const auto& held : grants_) {
        joined |= held.pid == application.pid && held.device == application.device &&
                  held.service == application.service;
    }
    if (grant && !joined) {
        // The grant keeps the applicant's callback watched: its owner's death ends the grant.
        grants_.push_back({application.pid, application.device, application.service, application.hardware,
                           application.callback, false});
    } else {
        Unwatch(application.callback);
    }
}

void MeshlineService::ArbitratePending()
{
    rearbitrate_ = false;
    const TimePoint now = Vex::Clock::Now();
    for (auto application = pending_.begin(); application != pending_.end();) {
        std::vector<const Grant*> conflicts = ConflictsOf(*application);
        bool stillPreempting = true;
        for (const Grant* grant : conflicts) {
            stillPreempting &= grant->preempted;
        }
        if (!wifiActive_) {
            Decide(*application, false, "wifi off");
        } else if (conflicts.empty()) {
            Decide(*application, true, "granted after pre-emption");
        } else if (!stillPreempting) {
            Decide(*application, false, "link busy");
        } else if (now >= application->deadline) {
            Decide(*application, false, "the collaboration holding the link did not give way");
            for (const Grant* grant : conflicts) {
                const_cast<Grant*>(grant)->preempted = false;  // a later applicant asks it again
            }
        } else {
            ++application;
            continue;
        }
        application = pending_.erase(application);
    }
}

void MeshlineService::ReleaseGrants(const std::function<bool(const Grant&)>& match)
{
    for (auto grant = grants_.begin(); grant != grants_.end();) {
        if (match(*grant)) {
            Unwatch(grant->callback);
            grant = grants_.erase(grant);
        } else {
            ++grant;
        }
    }
    rearbitrate_ = true;
    wake_.notify_all();
}

}  // namespace QUEX::Tandra
