// The plugin's listener on the host's session layer: finds the collaboration a session belongs
// to and hands its messages and its loss to the camera ability process.
#include "camera_ability_listener.h"

#include <cstring>

#include "camera_ability_process.h"
#include "listener_manager.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

void CameraAbilityProcessListener::OnSessionMessage(const CtrlSessionInfo& session, int32_t channelId,
                                                    const char* data, uint32_t len)
{
    TNDR_SERVICE_LOGI("on data recv, session %{public}d, channel %{public}d", session.sessionId, channelId);
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        TNDR_SERVICE_LOGE("ability not support yet");
        return;
    }
    const uint32_t collaborationId = process->CollaborationOfSession(session);
    if (collaborationId == 0) {
        TNDR_SERVICE_LOGE("message on session %{public}d is for no collaboration of ours, dropped", session.sessionId);
        return;
    }
    process->OnDataReceived(collaborationId, data, len);
}

void CameraAbilityProcessListener::OnSessionShutDown(const CtrlSessionInfo& session)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process != nullptr) {
        process->ProcessCtrlChannelShutDown(session);
    }
}

void CameraAbilityProcessListener::OnDataReceived(const std::string& key, const char* /* data */, uint32_t len,
                                                  uint32_t /* reserved */)
{
    // A name alone does not say which device sent the message: anyone may choose it.
    TNDR_SERVICE_LOGE("message of %{public}u bytes by name %{public}s only, dropped", len, key.c_str());
}

void CameraAbilityProcessListener::OnDataReceived(int32_t id, const char* data, uint32_t len, uint32_t /* reserved */)
{
    // Messages are only ever delivered by session key; one arriving by bare id is logged and
    // dropped.
    if (data != nullptr && len >= CAMERA_MSG_HEADER_LEN) {
        uint32_t code = 0;
        std::memcpy(&code, data, sizeof(code));
        TNDR_SERVICE_LOGE("CameraMsgHeader, id %{public}d, code: %{public}d", id, code);
    } else {
        TNDR_SERVICE_LOGE("data is invalid");
    }
}

void CameraAbilityProcessListener::OnCtrlChannelShutDown(const std::string& key)
{
    TNDR_SERVICE_LOGE("session loss by name %{public}s only, ignored", key.c_str());
}

void CameraAbilityProcessListener::OnWiFiShutDown()
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process != nullptr) {
        process->ProcessWifiShutDown();
    }
}

bool CameraAbilityProcessListener::IsIdExist(const std::string& key)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    if (process == nullptr) {
        return false;
    }
    std::shared_ptr<ListenerManager> manager = ListenerManager::GetInstance();
    if (manager == nullptr) {
        return false;
    }
    // The key's form is the host's, so the host reads the id back out of it.
    auto [result, collaborationId] = manager->FetchCollaborationId(key);
    return result == 0 && process->QueryCollaborationId(collaborationId);
}

bool CameraAbilityProcessListener::IsIdExist(int32_t id)
{
    CameraAbilityProcess* process = CameraAbilityProcess::GetInstance();
    return process != nullptr && process->QueryCollaborationId(static_cast<uint32_t>(id));
}

}  // namespace Tandra
}  // namespace QUEX
