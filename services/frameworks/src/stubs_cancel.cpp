// Placeholders for cancel, stop and link-loss handling until their own file lands: each
// answers with a neutral value.
#include "camera_ability_process.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t NOT_READY = 1005;
}

int32_t CameraAbilityProcess::CollaborationToCancelTakePhotoReq(MessageParcel&, MessageParcel&, MessageOption&,
                                                                IPCContext)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::CollaborationToRemoteCancelTakePhotoReq(MessageParcel&, MessageParcel&, MessageOption&,
                                                                      IPCContext)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::ProcessCancelTakePhotoRequest(uint32_t)
{
    return NOT_READY;
}

void CameraAbilityProcess::SendStopTakePhoto(uint32_t, uint32_t, std::shared_ptr<CameraProcessState>) {}

int32_t CameraAbilityProcess::SendStopTakePhotoReq(uint32_t, std::string)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::ProcessDisconnect(std::string)
{
    return NOT_READY;
}

void CameraAbilityProcess::ProcessWifiShutDown() {}

void CameraAbilityProcess::ProcessCtrlChannelShutDown(const std::string&) {}

}  // namespace Tandra
}  // namespace QUEX
