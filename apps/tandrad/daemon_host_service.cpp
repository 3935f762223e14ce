#include "daemon_host_service.h"

#include <unistd.h>

#include "host_types.h"
#include "ipc_skeleton.h"
#include "plugin_loader.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {

constexpr uint32_t CANCEL_REQUEST = 4;

}  // namespace

DaemonHostService::DaemonHostService(Vex::sptr<Vex::IRemoteObject> meshline)
    : HostServiceStub(std::move(meshline))
{
}

int DaemonHostService::OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                       Vex::MessageOption& option)
{
    const int32_t pid = Vex::IPCSkeleton::GetCallingPid();
    if (code != COLLABORATION_TO_DEVICE_CODE) {
        if (pid != static_cast<int32_t>(getpid())) {
            TNDR_HOST_LOGE("refused request %{public}u of pid %{public}d: the connection manager serves this "
                           "device's host only",
                           code, pid);
            return Vex::ERR_UNKNOWN_TRANSACTION;
        }
        return HostServiceStub::OnRemoteRequest(code, data, reply, option);
    }
    AppRegistry::CallerScope scope(pid);
    return HostServiceStub::OnRemoteRequest(code, data, reply, option);
}

void DaemonHostService::CancelAll()
{
    for (const auto& [collaborationId, caller] : TakeCollaborations()) {
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

}  // namespace Tandra
}  // namespace QUEX
