// The log tag of the application-side client library.
#pragma once

#include "vex_log.h"

#define TNDR_APP_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004619, "TNDRAppClient", fmt, ##__VA_ARGS__)
#define TNDR_APP_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004619, "TNDRAppClient", fmt, ##__VA_ARGS__)
