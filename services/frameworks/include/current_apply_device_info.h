// CurrentApplyDeviceInfo: a resource application in flight for one peer device: the decision
// of the connection manager (0 until it arrives) and the wait for it.
// Thread-safety: result is guarded by mutex; the applier waits on cond, the callback notifies.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace QUEX {
namespace Tandra {

struct CurrentApplyDeviceInfo {
    std::mutex mutex;
    std::condition_variable cond;
    uint32_t result = 0;
};

}  // namespace Tandra
}  // namespace QUEX
