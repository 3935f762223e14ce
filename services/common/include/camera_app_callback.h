// The envelope of the callbacks the plugin sends to the camera application's callback object:
// the service type and sub-service pairs that say what a callback carries, the message texts
// that go with an event code, and how long a synchronous callback may take.
// Thread-safety: compile-time constants only.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

// Service type and sub-service of each callback kind.
constexpr uint32_t CALLBACK_SERVICE_EVENT = 101;
constexpr uint32_t CALLBACK_SUB_EVENT = 104;
constexpr uint32_t CALLBACK_SUB_PUT_IMAGE_RESULT = 103;
constexpr uint32_t CALLBACK_SUB_CANCEL = 106;
constexpr uint32_t CALLBACK_SERVICE_PHOTO = 102;
constexpr uint32_t CALLBACK_SUB_PHOTO = 105;

// Synchronous wait for the application's answer.
constexpr int CALLBACK_WAIT_SECONDS = 8;

// Message texts of an event callback.
const char* const MSG_ERRORCODE = "errorcode";
const char* const MSG_STATE = "state";
const char* const MSG_ERROR = "error";

// Some callbacks carry a text field that the application does not read.
const char* const CALLBACK_FILLER_TEXT = "category NO use";

}  // namespace Tandra
}  // namespace QUEX
