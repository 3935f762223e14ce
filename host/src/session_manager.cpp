// The plugin's session operations, forwarded to the installed soft bus. Each call holds the
// env for its duration, so a bus replaced meanwhile stays alive until the call returns.
#include "session_manager.h"

#include "collaboration_sessions.h"
#include "device_context.h"
#include "host_types.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

std::pair<int32_t, int32_t> SessionManager::CollaborationToDeviceByCtrlSession(const std::string& localDeviceId,
                                                                               const std::string& peerNetworkId,
                                                                               std::shared_ptr<ServiceInfo> serviceInfo)
{
    if (serviceInfo == nullptr || peerNetworkId.empty() || serviceInfo->sessionName.empty()) {
        TNDR_HOST_LOGE("invalid control session request");
        return {HOST_ERR_INVALID_PARAM, -1};
    }
    TNDR_HOST_LOGI("open control session for %{public}s, service type %{public}d", localDeviceId.c_str(),
                   serviceInfo->serviceType);
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    std::pair<int32_t, int32_t> result =
        env->GetSoftBus().OpenCtrlSession(peerNetworkId, serviceInfo->sessionName, serviceInfo->commandText);
    if (result.first != HOST_OK) {
        return {result.first, -1};
    }
    return result;
}

int32_t SessionManager::StopCollaborationToDevice(int32_t sessionId, bool notifyPeer)
{
    return DeviceContext::Get().Sessions().Stop(sessionId, notifyPeer);
}

int32_t SessionManager::TransmitMsg(int32_t sessionId, const char* data, uint32_t len, uint32_t type)
{
    if (data == nullptr || len == 0) {
        return HOST_ERR_INVALID_PARAM;
    }
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    return env->GetSoftBus().SendCtrlMessage(sessionId, data, len, type);
}

int32_t SessionManager::TransmitMsgToSpecificChannel(int32_t channelId, int32_t sessionId, const char* data,
                                                     uint32_t len, uint32_t type, bool isFirst)
{
    if (data == nullptr || len == 0) {
        return HOST_ERR_INVALID_PARAM;
    }
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    return env->GetSoftBus().SendDataMessage(channelId, sessionId, data, len, type, isFirst);
}

int32_t SessionManager::TransmitFileToSpecificChannel(int32_t channelId, int32_t sessionId, const char* head,
                                                      uint32_t headLen, int fd, uint32_t len, uint32_t type,
                                                      bool isFirst)
{
    if (fd < 0 || (head == nullptr && headLen > 0) || uint64_t{headLen} + len == 0) {
        return HOST_ERR_INVALID_PARAM;
    }
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    return env->GetSoftBus().SendDataMessageFromFile(channelId, sessionId, head, headLen, fd, len, type, isFirst);
}

std::pair<int32_t, int32_t> SessionManager::OpenDataTransmitChannel(const std::string& peerDeviceId,
                                                                    const SessionAttribute& attr)
{
    if (peerDeviceId.empty()) {
        return {HOST_ERR_INVALID_PARAM, -1};
    }
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    std::pair<int32_t, int32_t> result = env->GetSoftBus().OpenDataChannel(peerDeviceId, attr);
    if (result.first != HOST_OK) {
        return {result.first, -1};
    }
    return result;
}

bool SessionManager::GetIncomingSession(int32_t sessionId, CtrlSessionInfo& info)
{
    return DeviceContext::Get().Sessions().FindIncoming(sessionId, info);
}

bool SessionManager::GetCollaborationSession(int32_t sessionId)
{
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    return env->GetSoftBus().HasCtrlSession(sessionId);
}

uint64_t SessionManager::DataBytesReceived(const std::string& peerNetworkId)
{
    std::shared_ptr<DeviceEnv> env = DeviceContext::Get().Env();
    return env->GetSoftBus().DataBytesReceived(peerNetworkId);
}

}  // namespace Tandra
}  // namespace QUEX
