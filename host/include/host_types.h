// Small value types shared by the host and the plugins it loads: the caller identity handed
// to a plugin with each request, the plugin kinds, and the host's result codes.
// Thread-safety: plain values.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

// The calling process and user of an IPC request, as the host's IPC thread saw them.
struct IPCContext {
    int32_t pid;
    int32_t uid;
};

enum PluginType : int32_t {
    PLUGIN_TYPE_CAMERA = 0,
};

// Host results (0 is success).
constexpr int32_t HOST_OK = 0;
constexpr int32_t HOST_ERR_INVALID_PARAM = 1001;
constexpr int32_t HOST_ERR_NO_PLUGIN = 1005;
constexpr int32_t HOST_ERR_NO_SESSION = 1002;
constexpr int32_t HOST_ERR_SEND_FAILED = 461374453;
constexpr int32_t HOST_ERR_LOAD_FAILED = 1011;
constexpr int32_t HOST_ERR_NO_DEVICE = 1013;
// The launcher could not start the ability.
constexpr int32_t HOST_ERR_START_ABILITY = 1014;

// The framework's system service, which serves applications and the connection manager.
constexpr int32_t TANDRA_SA_ID = 70633;
// Request code and envelope service type under which applications reach a plugin through the
// framework service (token, service type, then the plugin's own sub-service header).
constexpr uint32_t COLLABORATION_TO_DEVICE_CODE = 101;

}  // namespace Tandra
}  // namespace QUEX
