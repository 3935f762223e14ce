// AsynThreadPool: the host's worker pool. Tasks may block for minutes in timed waits, so the
// pool never lets waiting tasks starve new ones: when every worker is busy a new worker is
// started (up to a high cap), and idle workers beyond the core size retire.
// Thread-safety: AddAsynTask may be called from any thread, including from a task.
#pragma once

#include <cstdint>
#include <functional>

namespace QUEX {
namespace Tandra {

class AsynThreadPool {
public:
    // 0 when the task was queued, HOST_ERR_INVALID_PARAM for an empty task.
    static int32_t AddAsynTask(std::function<void()> task);
    // Blocks (real time) until no task is queued or running; false on time-out. For tests and
    // for an orderly shut-down.
    static bool WaitIdle(int64_t timeoutMs = 5000);
};

}  // namespace Tandra
}  // namespace QUEX
