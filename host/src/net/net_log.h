// Log lines of the device link, under their own tag so a user can filter them.
// Thread-safety: as the platform log.
#pragma once

#include "vex_log.h"

#define TNDR_LINK_LOGD(fmt, ...) VEX_LOG(Vex::LOG_DEBUG, 0xD004618, "TNDRLink", fmt, ##__VA_ARGS__)
#define TNDR_LINK_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004618, "TNDRLink", fmt, ##__VA_ARGS__)
#define TNDR_LINK_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004618, "TNDRLink", fmt, ##__VA_ARGS__)
