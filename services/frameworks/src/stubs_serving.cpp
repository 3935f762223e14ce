// Placeholders for the serving side (put-image flow, the take-photo command) until their own
// files land: each answers with a neutral value.
#include "camera_ability_process.h"
#include "take_photo_command.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t NOT_READY = 1005;
}

int32_t CameraAbilityProcess::CollaborationToPutImageReq(MessageParcel&, MessageParcel&, MessageOption&, IPCContext)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::ProcessPutPhotoRequest(std::shared_ptr<PutPhotoContext>, sptr<PhotoInfo>&,
                                                     sptr<PhotoCallerInfo>&, std::shared_ptr<PhotoParam>)
{
    return NOT_READY;
}

bool CameraAbilityProcess::IsDeviceTypeAllowPutImage()
{
    return false;
}

void CameraAbilityProcess::ProcessPutPhoto(std::shared_ptr<PutPhotoContext>, sptr<PhotoInfo>&,
                                           std::shared_ptr<PhotoParam>)
{
}

int32_t CameraAbilityProcess::ProcessPhotoData(std::shared_ptr<PutPhotoContext>, std::shared_ptr<PhotoParam>, int32_t,
                                               uint32_t, uint32_t)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::ProcessSendPhoto(std::shared_ptr<PutPhotoContext>, std::shared_ptr<PhotoParam>, bool)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::ProcessPutPhotoCallBack(std::shared_ptr<PutPhotoContext>, uint32_t)
{
    return NOT_READY;
}

TakePhotoCommand::TakePhotoCommand(std::shared_ptr<StartAbilityParam> startAbilityParam)
    : startAbilityParam_(std::move(startAbilityParam))
{
}

TakePhotoCommand::~TakePhotoCommand() = default;

int32_t TakePhotoCommand::Execute(int)
{
    return NOT_READY;
}

void TakePhotoCommand::Release() {}

bool TakePhotoCommand::IsExistConflict()
{
    return false;
}

int32_t TakePhotoCommand::ProcessDisconnect(std::string)
{
    return NOT_READY;
}

void TakePhotoCommand::ServiceStateChangeCallback(std::string&, int) {}

void TakePhotoCommand::RecordCommandReleaseResult(uint32_t, bool, std::pair<int, int>) {}

int32_t TakePhotoCommand::OpenChannel(std::shared_ptr<PutPhotoContext>)
{
    return NOT_READY;
}

int32_t TakePhotoCommand::IniandApplytResource(SessionAttribute&, std::string)
{
    return NOT_READY;
}

int32_t TakePhotoCommand::ApplyResource()
{
    return NOT_READY;
}

int32_t TakePhotoCommand::InitSessionAttributeForTakePhoto(SessionAttribute&)
{
    return NOT_READY;
}

void TakePhotoCommand::ProcessApplyResourceResult(std::string, std::string, std::string, uint32_t) {}

}  // namespace Tandra
}  // namespace QUEX
