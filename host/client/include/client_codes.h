// The numbers an application exchanges with the camera ability of the framework service:
// request codes, the callback envelope's service types, the events and photo statuses the
// requesting application hears, the results it gets, the event names and codes of the camera
// application's subscriptions, and the reasons a camera application can give for cancelling.
// They are the wire contract between apps and the daemon's plugin, written down here because
// applications never include the plugin's headers.
// Thread-safety: compile-time constants only.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {
namespace Client {

// Request codes of the camera ability (the first word of its header).
constexpr uint32_t REQUEST_TAKE_PHOTO = 1;
constexpr uint32_t REQUEST_SUBSCRIBE_EVENT = 2;
constexpr uint32_t REQUEST_PUT_IMAGE = 3;
constexpr uint32_t REQUEST_CANCEL = 4;
constexpr uint32_t REQUEST_UNREGISTER = 5;
constexpr uint32_t REQUEST_REMOTE_CANCEL = 10;

// Callback envelope: (service type, sub-service) says what a callback carries.
constexpr uint32_t CALLBACK_SERVICE_EVENT = 101;
constexpr uint32_t CALLBACK_SUB_PUT_IMAGE_RESULT = 103;  // to the camera app
constexpr uint32_t CALLBACK_SUB_EVENT = 104;             // to the requesting app
constexpr uint32_t CALLBACK_SUB_CANCEL = 106;            // to the camera app
constexpr uint32_t CALLBACK_SERVICE_PHOTO = 102;
constexpr uint32_t CALLBACK_SUB_PHOTO = 105;  // to the requesting app

// Events and photo statuses the requesting application hears.
constexpr uint32_t EVENT_LAST_PHOTO = 1001202000;       // photo status: the last photo
constexpr uint32_t EVENT_PEER_STOPPED = 1001202001;     // "state": the peer ended before sending
constexpr uint32_t EVENT_FAILED = 1001202002;           // "errorcode": refused or camera failed
constexpr uint32_t EVENT_PEER_WIFI_OFF = 1001202004;    // "errorcode"
constexpr uint32_t EVENT_WIFI_OFF = 1001202005;         // "errorcode": this device's Wi-Fi
constexpr uint32_t EVENT_PHOTO_COUNT = 1001202006;      // text: the count in decimal
constexpr uint32_t EVENT_PHOTO = 1001202007;            // photo status: a photo, not the last
constexpr uint32_t EVENT_PEER_NO_ANSWER = 1001202008;   // "errorcode"
constexpr uint32_t EVENT_TRANSFER_FAILED = 1001202009;  // "errorcode"
constexpr uint32_t EVENT_LINK_LOST = 1001202011;        // "errorcode"
constexpr uint32_t EVENT_BAD_DATA = 1001;               // "error": a malformed message arrived

// Results of the requests (0 is success).
constexpr int32_t RESULT_OK = 0;
constexpr int32_t RESULT_INVALID = 1001;
constexpr int32_t RESULT_NO_COLLABORATION = 1002;  // put image / remote cancel: unknown session
constexpr int32_t RESULT_NOT_SUPPORTED = 1005;
constexpr int32_t RESULT_CAMERA_STATUS = 1017;  // put image / remote cancel: camera not running
constexpr int32_t RESULT_NOT_FOREGROUND = 1020;
constexpr int32_t RESULT_WIFI_OFF = 2013;
constexpr int32_t RESULT_RESOURCES_REFUSED = 320003;
constexpr int32_t RESULT_NOT_SUBSCRIBED = 1907;  // unregister of an event never subscribed

// Events the camera application subscribes to, and the codes they bring.
const char* const CAMERA_EVENT_PUT_IMAGE_RESULT = "imageProcessComplete";
const char* const CAMERA_EVENT_CANCEL = "imagePreviewCancel";
constexpr uint32_t PUT_IMAGE_TAKEN_OVER = 1001200000;          // the photos were taken over
constexpr uint32_t PUT_IMAGE_DEVICE_NOT_ALLOWED = 1001201904;  // this device may not send photos
constexpr uint32_t CAMERA_CANCELLED_BY_PEER = 1001201915;      // close the camera: no photo is wanted

// Why the camera application cancels (the remote cancel's code, relayed to the requester).
// USER_CANCELLED reaches the requesting application as "the peer ended before sending",
// CAMERA_FAILED as "the peer failed".
constexpr uint32_t CAMERA_STATUS_USER_CANCELLED = 1001201905;
constexpr uint32_t CAMERA_STATUS_CAMERA_FAILED = 1001201903;

// A put-image request carries at most this many photos.
constexpr uint32_t MAX_PHOTOS_PER_PUT = 1000;

}  // namespace Client
}  // namespace Tandra
}  // namespace QUEX
