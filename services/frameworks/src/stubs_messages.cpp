// Placeholders for the message paths (data channel, receive path, listener, event
// subscriptions) until their own files land: each answers with a neutral value.
#include "camera_ability_listener.h"
#include "camera_ability_process.h"

namespace QUEX {
namespace Tandra {
using namespace Vex;

namespace {
constexpr int32_t NOT_READY = 1005;
}

int32_t CameraAbilityProcess::CollaborationToEventReq(MessageParcel&, MessageParcel&, MessageOption&, IPCContext)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::CollaborationToUnregister(MessageParcel&, MessageParcel&, MessageOption&, IPCContext)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::SendMsgHeaderByDataChannel(std::shared_ptr<PutPhotoContext>, CameraMsgHeader&)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::SendPhotoData(std::shared_ptr<PutPhotoContext>, std::shared_ptr<PhotoParam>, bool)
{
    return NOT_READY;
}

std::pair<int32_t, int32_t> CameraAbilityProcess::QueryDataChannel(std::shared_ptr<PutPhotoContext>)
{
    return {NOT_READY, -1};
}

int32_t CameraAbilityProcess::QueryDataChannelId(int32_t)
{
    return -1;
}

bool CameraAbilityProcess::AddDataChannelId(int32_t, int32_t)
{
    return false;
}

bool CameraAbilityProcess::EraseDataChannelId(int32_t)
{
    return false;
}

void CameraAbilityProcess::OnDataReceived(uint32_t, const char*, unsigned long) {}

void CameraAbilityProcess::ProcessDataReceived(uint32_t, uint32_t, uint32_t, const char*) {}

void CameraAbilityProcess::DfxCodeReceived(uint32_t, bool) {}

bool CameraAbilityProcess::CheckAndUpdateState(uint32_t, uint32_t)
{
    return false;
}

void CameraAbilityProcess::ProcessNotifyUI(uint32_t, uint32_t, std::list<uint32_t>, std::string) {}

int32_t CameraAbilityProcess::ProcessPhotoEventCommand(uint32_t, uint32_t, std::string)
{
    return NOT_READY;
}

void CameraAbilityProcess::ProcessPhotoDataReceived(uint32_t, uint32_t, uint32_t, const char*) {}

int32_t CameraAbilityProcess::ProcessPhotoDataCommand(uint32_t, uint32_t, uint32_t, const char*)
{
    return NOT_READY;
}

int32_t CameraAbilityProcess::ProcessOnEventRequest(int32_t, int32_t, uint32_t, std::string,
                                                    sptr<CallbackSkeletonProxy>)
{
    return NOT_READY;
}

std::pair<int32_t, uint32_t> CameraAbilityProcess::ProcessOnEventUnregister(int32_t, int32_t, std::string&)
{
    return {NOT_READY, 0};
}

std::string CameraAbilityProcess::StitchingEventToKey(int32_t, int32_t, const std::string&)
{
    return std::string();
}

bool CameraAbilityProcess::AddOnEventProcess(int32_t, int32_t, std::string&, std::shared_ptr<OnEventProcess>)
{
    return false;
}

bool CameraAbilityProcess::AddOnEventProcess(std::string, std::shared_ptr<OnEventProcess>)
{
    return false;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(std::string)
{
    return nullptr;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(int32_t, int32_t, std::string&)
{
    return nullptr;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(uint32_t)
{
    return nullptr;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnEventProcess(int32_t)
{
    return nullptr;
}

std::shared_ptr<OnEventProcess> CameraAbilityProcess::QueryOnBundleNameProcess(std::string&, std::string&)
{
    return nullptr;
}

bool CameraAbilityProcess::EraseOnEventProcess(std::string)
{
    return false;
}

bool CameraAbilityProcess::EraseOnEventByPid(int32_t)
{
    return false;
}

void CameraAbilityProcess::AddCachedEvent(uint32_t, std::string&, std::string&) {}

CachedEvent CameraAbilityProcess::PopCachedEvent()
{
    return CachedEvent();
}

size_t CameraAbilityProcess::QueryCacheEventSize()
{
    return 0;
}

void CameraAbilityProcess::InvokeCachedEvent() {}

void CameraAbilityProcess::ClearCachedEvent(const std::string&) {}

int32_t CameraAbilityProcess::ProcessCancelTakePhotoCallBack(uint32_t, std::string&, std::string&)
{
    return NOT_READY;
}

void CameraAbilityProcessListener::OnDataReceived(const std::string&, const char*, uint32_t, uint32_t) {}

void CameraAbilityProcessListener::OnDataReceived(int32_t, const char*, uint32_t, uint32_t) {}

void CameraAbilityProcessListener::OnCtrlChannelShutDown(const std::string&) {}

void CameraAbilityProcessListener::OnWiFiShutDown() {}

bool CameraAbilityProcessListener::IsIdExist(const std::string&)
{
    return false;
}

bool CameraAbilityProcessListener::IsIdExist(int32_t)
{
    return false;
}

}  // namespace Tandra
}  // namespace QUEX
