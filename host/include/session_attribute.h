// SessionAttribute: how a soft-bus data session should be opened: its data type and the link
// types to try, in order of preference. A C-layout value type, filled field by field.
// Thread-safety: a plain value.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

constexpr int LINK_TYPE_MAX = 9;

enum LinkType : int32_t {
    LINK_TYPE_NONE = 0,
    LINK_TYPE_WIFI_WLAN_5G = 1,
    LINK_TYPE_WIFI_WLAN_2G = 2,
    LINK_TYPE_WIFI_P2P = 3,
    LINK_TYPE_BR = 4,
    LINK_TYPE_BLE = 5,
};

enum SessionDataType : int32_t {
    TYPE_MESSAGE = 1,
    TYPE_BYTES = 2,
    TYPE_FILE = 3,
    TYPE_STREAM = 4,
};

struct SessionAttribute {
    int dataType;
    int linkTypeNum;
    LinkType linkType[LINK_TYPE_MAX];
    union {
        struct {
            int streamType;
        } streamAttr;
    } attr;
    uint8_t* fastTransData;
    uint16_t fastTransDataSize;
};

}  // namespace Tandra
}  // namespace QUEX
