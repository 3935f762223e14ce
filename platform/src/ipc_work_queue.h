// IpcWorkQueue: the platform's IPC threads for one-way requests. Threads are started on demand
// (up to a fixed number) so that a handler that blocks does not hold up the others, and live
// until the process ends.
// Thread-safety: Post may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace Vex {

class IpcWorkQueue {
public:
    static IpcWorkQueue& Get();
    void Post(std::function<void()> task);

private:
    IpcWorkQueue() = default;
    void Run();

    static constexpr size_t MAX_THREADS = 16;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> tasks_;
    size_t threads_ = 0;
    size_t idle_ = 0;
};

}  // namespace Vex
