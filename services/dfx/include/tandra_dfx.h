// Behaviour events of the camera collaboration: one structured event,
// "SERVICE_COLLABORATION_EVENT" in domain "TANDRA", written at every business stage with its
// scene, stage and result, and mirrored by an info line on the "TNDRVexEvent" tag. One writer
// per key layout; each takes the caller's call site (TNDR_DFX_SITE) because the platform's
// write limit counts per function and line.
// Thread-safety: the writers keep no state; call them from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace QUEX {
namespace Tandra {
namespace DFX {

enum class BizScene : int32_t {
    TAKE_PHOTO_REQUEST = 2,  // requesting side: asking the peer to take a photo
    TAKE_PHOTO_COMMAND = 3,  // serving side: the take-photo command
    RECEIVE_RESULT = 4,      // requesting side: receiving the result
    PHOTO_TRANSFER = 5,      // photo transfer between the devices
};

enum class SerCollBizStage : int32_t {
    CAMERA_SESSION = 3,
    REQUEST_SENT = 4,
    START_ABILITY = 5,
    CONFLICT = 6,
    DATA_CHANNEL = 7,
    CAMERA_RUNNING = 8,
    PHOTO_SENT = 9,
    PHOTO_RECEIVED = 10,
};

enum class StageRes : int32_t {
    BEGIN = 0,
    SUCCESS = 1,
    FAILED = 2,
    CANCEL = 3,
};

enum class TriggerMode : int32_t { AUTO = 1 };
enum class CommServ : int32_t { SOFT_BUS = 1 };
enum class Biz : int32_t { CAMERA_COLLABORATION = 1 };
enum class BizState : int32_t { BEGIN = 1, END = 2 };

struct CallSite {
    const char* func;
    int64_t line;
};

#define TNDR_DFX_SITE (QUEX::Tandra::DFX::CallSite{__FUNCTION__, __LINE__})

// Plain stage mark, error code 0.
void ReportStage(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res);
// Stage mark with an error code and nothing else.
void ReportStageError(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res, int32_t errorCode);
// Stage mark with an error code and "BIZ_STATE".
void ReportStageState(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res, int32_t errorCode,
                      BizState state);
// Stage mark with an error code and "TO_CALL_PKG" (the package the stage calls, e.g. "AMS").
void ReportStageToCall(CallSite site, BizScene scene, SerCollBizStage stage, StageRes res, int32_t errorCode,
                       const std::string& toCallPkg);
// The session-name keys of the layouts below carry the name of the control session the stage
// belongs to: the name its opener chose, which both devices know it by (data channels have no
// name of their own; their messages travel under the control session's).
// Scene 2, stage 4 failures: request-error keys (ends the collaboration: "BIZ_STATE" 2).
void ReportRequestError(CallSite site, StageRes res, int32_t errorCode, const std::string& peerNetworkId,
                        const std::string& sessionName);
// Scene 2, stage 3: camera session set-up, with "PEER_NET_ID".
void ReportSessionSetup(CallSite site, StageRes res, int32_t errorCode, const std::string& peerNetworkId);
// Scene 5, stage 9: photo transfer keys.
void ReportPhotoTransfer(CallSite site, StageRes res, int32_t errorCode, BizState state,
                         const std::string& sessionName);
// Scene 3, stage 7: channel keys; a negative error code is reported as its absolute value.
void ReportChannel(CallSite site, StageRes res, int32_t errorCode, const std::string& peerNetworkId,
                   const std::string& sessionName);

}  // namespace DFX
}  // namespace Tandra
}  // namespace QUEX
