// Result codes of the link to the connection-management service: what the proxy, the
// Meshline client and the callback stub return. Values are part of the contract with the
// plugin's callers and the service and never change. Plain constants.
#pragma once

#include <cstdint>

namespace QUEX::Tandra::IpcResult {

constexpr int32_t OK = 0;
constexpr int32_t INVALID_PARAM = 1001;          // bad argument, envelope failure, unreadable list
constexpr int32_t UNKNOWN_CODE = 1005;           // unsupported callback sub-service
constexpr int32_t WRITE_TOKEN_FAILED = 1006;     // envelope: interface token not written
constexpr int32_t WRITE_PARCEL_FAILED = 1007;    // envelope or argument not written
constexpr int32_t SEND_REQUEST_FAILED = 1008;    // proxy: the transport refused the request
constexpr int32_t REMOTE_NULL = 1009;            // no remote object, or death recipient not attached
constexpr int32_t WRONG_INTERFACE_TOKEN = 1010;  // callback carried another interface's token
constexpr int32_t SERVICE_DEAD = 1012;           // no proxy; also the event of the service's death

// ApplyAdvancedResource keeps its own set.
constexpr int32_t APPLY_INVALID_PARAM = 22;
constexpr int32_t APPLY_SERVICE_DEAD = 32;

constexpr int32_t IPC_SEND_FAILED = 0x1B8003F5;         // 461374453
constexpr int32_t PHOTO_DATA_INVALID = 22;              // photo data too long or not readable
constexpr int32_t PHOTO_DATA_COPY_FAILED = 0x1B8003EC;  // 461374444

// Service results of a resource application, and the codes the plugin sees for them.
constexpr int32_t SERVICE_RESOURCE_GRANTED = 320001;
constexpr int32_t SERVICE_RESOURCE_REFUSED = 320003;
constexpr int32_t RESOURCE_GRANTED = 0x3BE2CF81;  // 1004720001
constexpr int32_t RESOURCE_REFUSED = 0x3BE2CF82;  // 1004720002

}  // namespace QUEX::Tandra::IpcResult
