// Code messages and headers on a collaboration's control session.
#include "camera_ability_process.h"
#include "session_manager.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

int32_t CameraAbilityProcess::SendCodeBack(uint32_t code, int32_t collaborationSessionId)
{
    TNDR_SERVICE_LOGI("code ==  %{public}u, collaborationSessionId = %{public}d", code, collaborationSessionId);
    CameraMsgHeader header{code, 0};
    return SessionManager::TransmitMsg(collaborationSessionId, reinterpret_cast<const char*>(&header),
                                       CAMERA_MSG_HEADER_LEN, MSG_TYPE_CAMERA);
}

int32_t CameraAbilityProcess::SendMsgHeaderByControlChannel(int32_t collaborationSessionId, CameraMsgHeader& header)
{
    TNDR_SERVICE_LOGI("code = %{public}u, collaborationSessionId = %{public}d", header.code, collaborationSessionId);
    return SessionManager::TransmitMsg(collaborationSessionId, reinterpret_cast<const char*>(&header),
                                       CAMERA_MSG_HEADER_LEN, MSG_TYPE_CAMERA);
}

}  // namespace Tandra
}  // namespace QUEX
