#include "daemon_host_service.h"

#include <unistd.h>

#include <vector>

#include "host_types.h"
#include "ipc_skeleton.h"
#include "plugin_loader.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {

constexpr uint32_t TAKE_PHOTO_REQUEST = 1;
constexpr uint32_t CANCEL_REQUEST = 4;

// The plugin's sub-service of a host request, read without moving the parcel.
uint32_t PeekSubService(Vex::MessageParcel& data)
{
    const size_t position = data.GetReadPosition();
    uint32_t serviceType = 0;
    uint32_t subService = 0;
    data.ReadInterfaceToken();
    if (!data.ReadUint32(serviceType) || serviceType != SERVICE_TYPE_COLLABORATION_TO_DEVICE ||
        !data.ReadUint32(subService)) {
        subService = 0;
    }
    data.RewindRead(position);
    return subService;
}

}  // namespace

DaemonHostService::DaemonHostService(Vex::sptr<Vex::IRemoteObject> meshline)
    : HostServiceStub(std::move(meshline))
{
}

int DaemonHostService::OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                       Vex::MessageOption& option)
{
    const int32_t pid = Vex::IPCSkeleton::GetCallingPid();
    const int32_t uid = Vex::IPCSkeleton::GetCallingUid();
    if (code != COLLABORATION_TO_DEVICE_CODE) {
        if (pid != static_cast<int32_t>(getpid())) {
            TNDR_HOST_LOGE("refused request %{public}u of pid %{public}d: the connection manager serves this "
                           "device's host only",
                           code, pid);
            return Vex::ERR_UNKNOWN_TRANSACTION;
        }
        return HostServiceStub::OnRemoteRequest(code, data, reply, option);
    }
    const uint32_t subService = PeekSubService(data);
    uint32_t cancelled = 0;
    if (subService == CANCEL_REQUEST) {
        const size_t position = data.GetReadPosition();
        data.ReadInterfaceToken();
        for (int i = 0; i < 5; ++i) {
            data.ReadUint32();  // service type and the plugin's four-value header
        }
        cancelled = data.ReadUint32();
        data.RewindRead(position);
    }
    int result;
    {
        AppRegistry::CallerScope scope(pid);
        result = HostServiceStub::OnRemoteRequest(code, data, reply, option);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (subService == TAKE_PHOTO_REQUEST && result == Vex::ERR_NONE) {
        const size_t position = reply.GetReadPosition();
        int32_t answer = -1;
        uint32_t collaborationId = 0;
        if (reply.ReadInt32(answer) && reply.ReadUint32(collaborationId) && answer == 0 && collaborationId != 0) {
            // A request for a peer that already has a collaboration joins it: the id is the
            // running one's, its callbacks keep going to the app that started it, and that app
            // stays the one whose collaboration a stopping daemon cancels. The joining app is
            // told so after the plugin's reply, or it would wait for callbacks that never come.
            const bool joined = !collaborations_.emplace(collaborationId, Caller{pid, uid}).second;
            reply.WriteUint32(joined ? 1 : 0);
            if (joined) {
                TNDR_HOST_LOGI("request of pid %{public}d joined running collaboration %{public}u", pid,
                               collaborationId);
            }
        }
        reply.RewindRead(position);
    } else if (subService == CANCEL_REQUEST) {
        auto it = collaborations_.find(cancelled);
        if (it != collaborations_.end() && it->second.pid == pid) {
            collaborations_.erase(it);
        }
    }
    return result;
}

void DaemonHostService::ForgetApp(int32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = collaborations_.begin(); it != collaborations_.end();) {
        it = it->second.pid == pid ? collaborations_.erase(it) : std::next(it);
    }
}

void DaemonHostService::CancelAll()
{
    std::map<uint32_t, Caller> running;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running.swap(collaborations_);
    }
    for (const auto& [collaborationId, caller] : running) {
        Vex::MessageParcel data;
        Vex::MessageParcel reply;
        Vex::MessageOption option;
        for (uint32_t value : {CANCEL_REQUEST, 0u, 0u, 0u, collaborationId}) {
            data.WriteUint32(value);
        }
        Vex::ScopedCallingIdentity identity(Vex::Identity{caller.pid, caller.uid}, Vex::IPCSkeleton::GetSelfIdentity());
        int32_t result = PluginLoader::GetLoader().DispatchRequest(PLUGIN_TYPE_CAMERA, data, reply, option,
                                                                   IPCContext{caller.pid, caller.uid});
        TNDR_HOST_LOGI("stopping: cancelled collaboration %{public}u of pid %{public}d: %{public}d", collaborationId,
                       caller.pid, result);
    }
}

size_t DaemonHostService::TrackedCollaborations()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return collaborations_.size();
}

}  // namespace Tandra
}  // namespace QUEX
