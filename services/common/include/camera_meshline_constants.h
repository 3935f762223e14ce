// How the camera plugin appears to the connection manager on both devices: the framework name it
// publishes and applies under, the service states it publishes, the notice it subscribes to, and
// the mark of a collaboration that has no control session.
// Thread-safety: compile-time constants only.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

const char* const FRAMEWORK_NAME = "Tandra";

constexpr int32_t SERVICE_STATE_FREE = 1;
constexpr int32_t SERVICE_STATE_REQUESTING = 2;
// The control session is up (requesting side) or photos are being transferred (serving side).
constexpr int32_t SERVICE_STATE_CONNECTED = 4;

const char* const DISCONNECT_EVENT = "disconnect";

constexpr int32_t NO_SESSION_ID = -2;

}  // namespace Tandra
}  // namespace QUEX
