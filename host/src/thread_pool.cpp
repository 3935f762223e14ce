// Growth rule: a posted task never waits for a busy worker. If the queue holds more tasks than
// there are idle workers, a worker is added (up to the cap), so tasks parked in minute-long
// timed waits cannot starve the ones behind them. Workers are detached and counted; the
// destructor waits for the count to reach zero.
//
// The idle timeout is housekeeping, not behaviour: it runs on the real steady clock and not on
// Vex::Clock, so idle workers never show up among the clock's waiters (tests count those) and
// simulated time never retires them.
#include "thread_pool.h"

#include <exception>
#include <thread>

#include "host_types.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

ThreadPool::ThreadPool(size_t coreThreads, size_t maxThreads, std::chrono::milliseconds idleTimeout,
                       IdentitySource identity)
    : coreThreads_(coreThreads), maxThreads_(maxThreads < 1 ? 1 : maxThreads), idleTimeout_(idleTimeout),
      identity_(std::move(identity))
{
}

ThreadPool::~ThreadPool()
{
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_ = true;
    workCv_.notify_all();
    stateCv_.wait(lock, [this] { return threads_ == 0; });
}

int32_t ThreadPool::Post(std::function<void()> task)
{
    if (!task) {
        return HOST_ERR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
        return HOST_ERR_INVALID_PARAM;
    }
    queue_.push_back(std::move(task));
    if (queue_.size() > idle_ && threads_ < maxThreads_) {
        ++threads_;
        ++idle_;  // counted idle until it takes a task, so the next Post sees it
        try {
            std::thread(&ThreadPool::WorkerLoop, this).detach();
        } catch (const std::exception& e) {
            --threads_;
            --idle_;
            TNDR_HOST_LOGE("cannot start a worker: %{public}s", e.what());
        }
    }
    workCv_.notify_one();
    return HOST_OK;
}

void ThreadPool::WorkerLoop()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        bool timedOut = !workCv_.wait_for(lock, idleTimeout_, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty() && (stopping_ || (timedOut && threads_ > coreThreads_))) {
            break;
        }
        if (queue_.empty()) {
            continue;
        }
        std::function<void()> task = std::move(queue_.front());
        queue_.pop_front();
        --idle_;
        ++busy_;
        lock.unlock();
        {
            Vex::Identity identity = identity_ ? identity_() : Vex::IPCSkeleton::GetSelfIdentity();
            Vex::ScopedIdentity scoped(identity.pid, identity.uid);
            try {
                task();
            } catch (const std::exception& e) {
                TNDR_HOST_LOGE("task failed: %{public}s", e.what());
            } catch (...) {
                TNDR_HOST_LOGE("task failed with an unknown exception");
            }
            task = nullptr;  // the task's captures go while the identity still holds
        }
        lock.lock();
        --busy_;
        ++idle_;
        stateCv_.notify_all();
    }
    --idle_;
    --threads_;
    stateCv_.notify_all();
}

bool ThreadPool::WaitIdle(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return stateCv_.wait_for(lock, timeout, [this] { return queue_.empty() && busy_ == 0; });
}

bool ThreadPool::AwaitThreadCountAtMost(size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return stateCv_.wait_for(lock, timeout, [this, count] { return threads_ <= count; });
}

size_t ThreadPool::ThreadCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
}

size_t ThreadPool::BusyCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return busy_;
}

size_t ThreadPool::QueuedCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.size();
}

}  // namespace Tandra
}  // namespace QUEX
