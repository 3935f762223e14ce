// The behaviour event writers: the twelve common keys, then each layout's own keys, written at
// the caller's call site so that the platform's write limit counts per reporting line.
#include "tandra_dfx.h"

#include <cstdint>
#include <utility>

#include "camera_meshline_constants.h"
#include "dfx_helper.h"
#include "tandra_service_utils.h"
#include "vex_log_tags.h"
#include "vex_sys_event.h"

namespace QUEX {
namespace Tandra {
namespace DFX {
namespace {
const char* const EVENT_DOMAIN = "TANDRA";
const char* const EVENT_NAME = "SERVICE_COLLABORATION_EVENT";
constexpr int32_t EVENT_TYPE = 2;
// The soft-bus process that channel and transfer stages call.
const char* const SOFT_BUS_PKG = "softbus_server";

template <typename... Extra>
void Write(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res, int32_t errorCode, Extra&&... extra)
{
    const std::string func = site.func != nullptr ? site.func : "";
    // Refused or limited writes are ignored: reporting never changes the flow.
    (void)Vex::VexSysEvent::Write(site.func, site.line, EVENT_DOMAIN, EVENT_NAME, EVENT_TYPE, "FUNC", func, "BIZ_SCENE",
                                  scene, "BIZ_STAGE", stage, "ORG_PKG", FRAMEWORK_NAME, "STAGE_RES", res, "ERROR_CODE",
                                  errorCode, "TRIGGER_MODE", TriggerMode::AUTO, "COMM_SERV", CommServ::SOFT_BUS, "BIZ",
                                  Biz::CAMERA_COLLABORATION, "LOCAL_UDID",
                                  DfxHelper::GetAnonymousID(TandraServiceUtils::GetLocalUdid()), "LOCAL_NET_ID",
                                  DfxHelper::GetAnonymousID(TandraServiceUtils::GetLocalNetworkId()), "LOCAL_DEV_TYPE",
                                  TandraServiceUtils::ConvertHexToString(TandraServiceUtils::GetLocalDeviceType()),
                                  std::forward<Extra>(extra)...);
    TNDR_EVENT_LOGI("event = %{public}s; stage = %{public}d; res = %{public}d; err = %{public}d", EVENT_NAME,
                    static_cast<int32_t>(stage), static_cast<int32_t>(res), errorCode);
}
}  // namespace

void ReportStage(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res)
{
    Write(site, scene, stage, res, 0);
}

void ReportStageError(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res, int32_t errorCode)
{
    Write(site, scene, stage, res, errorCode);
}

void ReportStageState(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res, int32_t errorCode,
                      BizState state)
{
    Write(site, scene, stage, res, errorCode, "BIZ_STATE", state);
}

void ReportStageToCall(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res, int32_t errorCode,
                       const std::string& toCallPkg)
{
    Write(site, scene, stage, res, errorCode, "TO_CALL_PKG", toCallPkg);
}

void ReportRequestError(CallSite site, StageRes res, int32_t errorCode, const std::string& peerNetworkId,
                        const std::string& sessionName)
{
    Write(site, BizScene::TAKE_PHOTO_REQUEST, SerCollBizStage::REQUEST_SENT, res, errorCode, "TO_CALL_PKG",
          SOFT_BUS_PKG, "LOCAL_SESS_NAME", sessionName, "PEER_SESS_NAME", sessionName, "IS_TRUST", true,
          "BIZ_STATE", BizState::END, "PEER_NET_ID", DfxHelper::GetAnonymousID(peerNetworkId));
}

void ReportSessionSetup(CallSite site, StageRes res, int32_t errorCode, const std::string& peerNetworkId)
{
    Write(site, BizScene::TAKE_PHOTO_REQUEST, SerCollBizStage::CAMERA_SESSION, res, errorCode, "PEER_NET_ID",
          DfxHelper::GetAnonymousID(peerNetworkId));
}

void ReportPhotoTransfer(CallSite site, StageRes res, int32_t errorCode, BizState state, const std::string& sessionName)
{
    Write(site, BizScene::PHOTO_TRANSFER, SerCollBizStage::PHOTO_SENT, res, errorCode, "TO_CALL_PKG", SOFT_BUS_PKG,
          "LOCAL_SESS_NAME", sessionName, "PEER_SESS_NAME", sessionName, "IS_TRUST", true, "BIZ_STATE", state);
}

void ReportChannel(CallSite site, StageRes res, int32_t errorCode, const std::string& peerNetworkId,
                   const std::string& sessionName)
{
    // Channel failures come as negative transport codes; the report carries their magnitude.
    const int32_t reported = errorCode == INT32_MIN ? INT32_MAX : (errorCode < 0 ? -errorCode : errorCode);
    Write(site, BizScene::TAKE_PHOTO_COMMAND, SerCollBizStage::DATA_CHANNEL, res, reported, "TO_CALL_PKG", SOFT_BUS_PKG,
          "LOCAL_SESS_NAME", sessionName, "PEER_SESS_NAME", sessionName, "IS_TRUST", true, "PEER_NET_ID",
          DfxHelper::GetAnonymousID(peerNetworkId));
}

}  // namespace DFX
}  // namespace Tandra
}  // namespace QUEX
