// SoftBusAdapter: the device's radio state and the closing of soft-bus data sessions.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <cstdint>

namespace QUEX {
namespace Tandra {

class SoftBusAdapter {
public:
    static bool IsWifiActive();
    // Closes a data channel; 0, or an error when no such channel is open.
    static int32_t CloseSoftBusSession(int32_t sessionId);
};

}  // namespace Tandra
}  // namespace QUEX
