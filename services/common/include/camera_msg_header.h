// CameraMsgHeader: the 8 bytes that start every message between the two devices' plugins:
// code then size, both unsigned 32-bit in the host's byte order (little-endian on every device
// served), no padding. Also the message codes both sides use.
// Thread-safety: a plain value.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

struct CameraMsgHeader {
    uint32_t code;
    uint32_t size;
};
static_assert(sizeof(CameraMsgHeader) == 8, "the header is exactly two 32-bit words");

constexpr uint32_t CAMERA_MSG_HEADER_LEN = sizeof(CameraMsgHeader);

// The longest photo either side handles: the requesting side hands a photo to its application
// in one callback parcel, whose raw data holds at most this much (checked where the parcel is
// known).
constexpr uint32_t MAX_PHOTO_SIZE = 256U * 1024U * 1024U;

// Peer message codes.
constexpr uint32_t CODE_LAST_PHOTO = 1001200000;
constexpr uint32_t CODE_PHOTO_FAILED = 1001201901;
constexpr uint32_t CODE_CAMERA_APP_FAILURE = 1001201903;
constexpr uint32_t CODE_DEVICE_TYPE_REFUSED = 1001201904;
constexpr uint32_t CODE_DISCONNECTED_BEFORE_SEND = 1001201905;
constexpr uint32_t CODE_PEER_WIFI_OFF = 1001201907;
constexpr uint32_t CODE_CAMERA_APP_FAILURE_2 = 1001201908;
constexpr uint32_t CODE_CAMERA_DIED = 1001201909;
constexpr uint32_t CODE_PHOTO_COUNT = 1001201912;
constexpr uint32_t CODE_LOCAL_WIFI_SHUTDOWN = 1001201913;
constexpr uint32_t CODE_LOCAL_CTRL_SHUTDOWN = 1001201914;
constexpr uint32_t CODE_LOCAL_TAKE_PHOTO_CANCELLED = 1001201915;
constexpr uint32_t CODE_DATA_SEND_FAILED = 1001201917;
constexpr uint32_t CODE_PHOTO = 1001201918;
constexpr uint32_t CODE_CAMERA_STARTED = 1001201919;

// Application event codes.
constexpr uint32_t EVENT_LAST_PHOTO = 1001202000;
constexpr uint32_t EVENT_PEER_DISCONNECTED = 1001202001;
constexpr uint32_t EVENT_PHOTO_COUNT = 1001202006;
constexpr uint32_t EVENT_PHOTO = 1001202007;

}  // namespace Tandra
}  // namespace QUEX
