// The result codes that more than one part of the camera plugin returns or reports, on both the
// requesting and the serving device, kept in one place so that the two sides agree on them.
// Codes that only one file produces stay beside that code.
// Thread-safety: compile-time constants only.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

constexpr int32_t ERR_OK = 0;
// General failure or bad argument.
constexpr int32_t ERR_INVALID_PARAM = 1001;
constexpr int32_t ERR_NO_PUT_PHOTO_CONTEXT = 1002;
// The camera is not in the status the operation needs.
constexpr int32_t ERR_CAMERA_STATUS = 1017;
// The peer cannot take part (its Wi-Fi is off): the requesting side ends the collaboration as
// cancelled and shows the peer as unavailable.
constexpr int32_t ERR_PEER_UNAVAILABLE = 2005;
constexpr int32_t ERR_WAIT_TIMEOUT = 2010;
// Invalid argument or missing task, in the platform's errno numbering.
constexpr int32_t ERR_INVALID_ARGUMENT = 22;
// The connection manager refused the resource application or did not answer in time.
constexpr int32_t ERR_APPLY_RESOURCE_FAILED = 320003;
constexpr int32_t ERR_DATA_CHANNEL_TIMEOUT = 461440990;

// Failure codes are reported as the distance above the start of the plugin's code block.
constexpr uint32_t DFX_ERROR_CODE_BASE = 539761024;

}  // namespace Tandra
}  // namespace QUEX
