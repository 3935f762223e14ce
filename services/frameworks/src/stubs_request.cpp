// Placeholders for the command text and the requesting side's take-photo request until their
// own files land: each answers with a neutral value.
#include "camera_ability_process.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t NOT_READY = 1005;
}

std::vector<std::shared_ptr<Command>> CameraAbilityProcess::CreateCommand(const std::string&)
{
    return {};
}

std::string CameraAbilityProcess::GenerateTakePhotoReqCommand(std::string&, sptr<AbilityFilter>, sptr<LocalInfo>)
{
    return std::string();
}

bool CameraAbilityProcess::isValidCommandProp(Json::Value&)
{
    return false;
}

bool CameraAbilityProcess::isValidTakePhotoCommandParam(Json::Value&, Json::Value&)
{
    return false;
}

std::shared_ptr<Command> CameraAbilityProcess::CreateTakePhotoCommand(Json::Value&, Json::Value&)
{
    return nullptr;
}

void CameraAbilityProcess::UpdateStartAbilityParam(std::shared_ptr<StartAbilityParam>) {}

std::pair<int32_t, uint32_t> CameraAbilityProcess::ProcessCameraAbilityRequest(sptr<PickerResult>,
                                                                               sptr<IRemoteObject>)
{
    return {NOT_READY, 0};
}

bool CameraAbilityProcess::GetTopAbility()
{
    return false;
}

int32_t CameraAbilityProcess::ProcessApplyResource(const std::string&)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::InitApplyInfo(sptr<ResourceRequest>)
{
    return NOT_READY;
}

void CameraAbilityProcess::ApplyResourcecallback(const std::string&, const std::string&, const std::string&, uint32_t)
{
}

uint32_t CameraAbilityProcess::ProcessCameraSessions(const std::string&, sptr<IRemoteObject>)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::SendTakePhotoReq(sptr<DeviceInfo>, uint32_t, sptr<LocalInfo>, sptr<AbilityFilter>)
{
    return NOT_READY;
}

void CameraAbilityProcess::HandleSendTakePhotoReqError(int32_t, const std::string&) {}

std::string CameraAbilityProcess::UIntToString(uint32_t)
{
    return std::string();
}

}  // namespace Tandra
}  // namespace QUEX
