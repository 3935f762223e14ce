// The IPC transport's log lines (tag VexIpc).
#pragma once

#include "vex_log.h"

#define VEX_IPC_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD001510, "VexIpc", fmt, ##__VA_ARGS__)
#define VEX_IPC_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD001510, "VexIpc", fmt, ##__VA_ARGS__)
