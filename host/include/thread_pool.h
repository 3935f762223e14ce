// ThreadPool: workers for tasks that may block for minutes in timed waits. It never lets
// waiting tasks starve new ones: a task posted while every worker is busy gets a new worker
// (up to maxThreads, a generous cap); workers beyond coreThreads retire after idleTimeout
// without work. Each task runs with the identity the pool's identity source gives (the
// device's own), and a task that throws is logged and does not take its worker down.
// Thread-safety: Post, WaitIdle and the counters may be called from any thread, also from a
// task. The destructor waits for running tasks to end; do not destroy a pool from its task.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

#include "ipc_skeleton.h"

namespace QUEX {
namespace Tandra {

class ThreadPool {
public:
    using IdentitySource = std::function<Vex::Identity()>;

    ThreadPool(size_t coreThreads, size_t maxThreads, std::chrono::milliseconds idleTimeout,
               IdentitySource identity = nullptr);
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // 0 when queued; HOST_ERR_INVALID_PARAM for an empty task or a pool being destroyed.
    int32_t Post(std::function<void()> task);
    // Blocks (real time) until nothing is queued or running; false on time-out.
    bool WaitIdle(std::chrono::milliseconds timeout);
    // Blocks (real time) until at most count workers remain; false on time-out.
    bool AwaitThreadCountAtMost(size_t count, std::chrono::milliseconds timeout);

    size_t ThreadCount() const;
    size_t BusyCount() const;
    size_t QueuedCount() const;

private:
    void WorkerLoop();

    const size_t coreThreads_;
    const size_t maxThreads_;
    const std::chrono::milliseconds idleTimeout_;
    const IdentitySource identity_;

    mutable std::mutex mutex_;
    std::condition_variable workCv_;   // a task was queued, or the pool stops
    std::condition_variable stateCv_;  // a task finished or a worker left
    std::deque<std::function<void()>> queue_;
    size_t threads_ = 0;
    size_t idle_ = 0;
    size_t busy_ = 0;
    bool stopping_ = false;
};

}  // namespace Tandra
}  // namespace QUEX
