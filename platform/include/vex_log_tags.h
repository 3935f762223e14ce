// One log macro family per tag of the camera collaboration framework, each fixing its tag and
// domain and the common line shape "[file:line]function# message".
// Thread-safety: as VexLogPrint.
#pragma once

#include "vex_log.h"

// TNDRService 0xD004615: the camera ability process
#define TNDR_SERVICE_LOGD(fmt, ...) VEX_LOG(Vex::LOG_DEBUG, 0xD004615, "TNDRService", fmt, ##__VA_ARGS__)
#define TNDR_SERVICE_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004615, "TNDRService", fmt, ##__VA_ARGS__)
#define TNDR_SERVICE_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004615, "TNDRService", fmt, ##__VA_ARGS__)
// TNDRCallback 0xD004616
#define TNDR_CALLBACK_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004616, "TNDRCallback", fmt, ##__VA_ARGS__)
#define TNDR_CALLBACK_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004616, "TNDRCallback", fmt, ##__VA_ARGS__)
// TNDRProxy 0xD004613
#define TNDR_PROXY_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004613, "TNDRProxy", fmt, ##__VA_ARGS__)
#define TNDR_PROXY_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004613, "TNDRProxy", fmt, ##__VA_ARGS__)
// TNDRClient 0xD004612
#define TNDR_CLIENT_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004612, "TNDRClient", fmt, ##__VA_ARGS__)
#define TNDR_CLIENT_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004612, "TNDRClient", fmt, ##__VA_ARGS__)
// TNDRDeviceDetect 0xD004617
#define TNDR_DEVICE_DETECT_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004617, "TNDRDeviceDetect", fmt, ##__VA_ARGS__)
#define TNDR_DEVICE_DETECT_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004617, "TNDRDeviceDetect", fmt, ##__VA_ARGS__)
// MeshlineManager 0xD00461A
#define MESHLINE_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD00461A, "MeshlineManager", fmt, ##__VA_ARGS__)
#define MESHLINE_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD00461A, "MeshlineManager", fmt, ##__VA_ARGS__)
// TNDRVexEvent 0xD004626: the mirror of every behaviour event
#define TNDR_EVENT_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004626, "TNDRVexEvent", fmt, ##__VA_ARGS__)
// The host library's own lines
#define TNDR_HOST_LOGI(fmt, ...) VEX_LOG(Vex::LOG_INFO, 0xD004610, "TNDRHost", fmt, ##__VA_ARGS__)
#define TNDR_HOST_LOGE(fmt, ...) VEX_LOG(Vex::LOG_ERROR, 0xD004610, "TNDRHost", fmt, ##__VA_ARGS__)
