// Applications' requests to plugins: the envelope is documented in the header.
#include "host_service_stub.h"

#include "host_types.h"
#include "ipc_skeleton.h"
#include "plugin_loader.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

namespace {

constexpr uint32_t TAKE_PHOTO_REQUEST = 1;
constexpr uint32_t CANCEL_REQUEST = 4;

}  // namespace

const std::u16string& HostServiceStub::GetDescriptor()
{
    static const std::u16string descriptor(u"quex.ITandra.ITandraService");
    return descriptor;
}

HostServiceStub::HostServiceStub(Vex::sptr<Vex::IRemoteObject> fallback)
    : Vex::IPCObjectStub(GetDescriptor()), fallback_(std::move(fallback))
{
}

int HostServiceStub::OnRemoteRequest(uint32_t code, Vex::MessageParcel& data, Vex::MessageParcel& reply,
                                     Vex::MessageOption& option)
{
    if (code != COLLABORATION_TO_DEVICE_CODE) {
        if (fallback_ != nullptr) {
            return fallback_->SendRequest(code, data, reply, option);
        }
        return Vex::ERR_UNKNOWN_TRANSACTION;
    }
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        TNDR_HOST_LOGE("wrong interface token");
        return Vex::ERR_INVALID_DATA;
    }
    IPCContext context{Vex::IPCSkeleton::GetCallingPid(), Vex::IPCSkeleton::GetCallingUid()};
    uint32_t serviceType = 0;
    int32_t result = HOST_ERR_NO_PLUGIN;
    size_t replyBefore = reply.GetDataSize();
    if (!data.ReadUint32(serviceType)) {
        result = HOST_ERR_INVALID_PARAM;
    } else if (serviceType == SERVICE_TYPE_COLLABORATION_TO_DEVICE) {
        // The plugin's header (sub-service first) and a cancel's collaboration id, peeked.
        const size_t position = data.GetReadPosition();
        uint32_t header[5] = {0, 0, 0, 0, 0};
        for (uint32_t& value : header) {
            data.ReadUint32(value);
        }
        data.RewindRead(position);
        result = PluginLoader::GetLoader().DispatchRequest(PLUGIN_TYPE_CAMERA, data, reply, option, context);
        TrackReply(header[0], header[4], Caller{context.pid, context.uid}, reply);
    } else {
        TNDR_HOST_LOGE("unknown service type %{public}u from pid %{public}d", serviceType, context.pid);
    }
    if (reply.GetDataSize() == replyBefore) {
        reply.WriteInt32(result);
    }
    return Vex::ERR_NONE;
}

void HostServiceStub::TrackReply(uint32_t subService, uint32_t cancelled, const Caller& caller,
                                 Vex::MessageParcel& reply)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (subService == TAKE_PHOTO_REQUEST) {
        const size_t position = reply.GetReadPosition();
        int32_t answer = -1;
        uint32_t collaborationId = 0;
        if (reply.ReadInt32(answer) && reply.ReadUint32(collaborationId) && answer == 0 && collaborationId != 0) {
            const bool joined = !collaborations_.emplace(collaborationId, caller).second;
            reply.WriteUint32(joined ? 1 : 0);
            if (joined) {
                TNDR_HOST_LOGI("request of pid %{public}d joined running collaboration %{public}u", caller.pid,
                               collaborationId);
            }
        }
        reply.RewindRead(position);
    } else if (subService == CANCEL_REQUEST) {
        auto it = collaborations_.find(cancelled);
        if (it != collaborations_.end() && it->second.pid == caller.pid) {
            collaborations_.erase(it);
        }
    }
}

void HostServiceStub::ForgetCaller(int32_t pid)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = collaborations_.begin(); it != collaborations_.end();) {
        it = it->second.pid == pid ? collaborations_.erase(it) : std::next(it);
    }
}

std::map<uint32_t, HostServiceStub::Caller> HostServiceStub::TakeCollaborations()
{
    std::map<uint32_t, Caller> taken;
    std::lock_guard<std::mutex> lock(mutex_);
    taken.swap(collaborations_);
    return taken;
}

size_t HostServiceStub::TrackedCollaborations()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return collaborations_.size();
}

}  // namespace Tandra
}  // namespace QUEX
