// Pending<T>: a timed wait for an answer that may never come. Start(seconds) blocks until
// Stop() hands over a value (status 0) or the timeout passes (status 2010); Refresh(seconds)
// grants a whole new period from the moment it is called. Time is the platform clock's, so
// tests can scale or simulate it.
// Thread-safety: one thread waits in Start at a time; Stop and Refresh may come from any
// thread and wake every waiter.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#include "vex_clock.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

constexpr int32_t PENDING_STOPPED = 0;
constexpr int32_t PENDING_TIMEOUT = 2010;

template <typename T>
class Pending {
public:
    Pending() = default;
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

    std::pair<int32_t, T> Start(int32_t seconds)
    {
        TNDR_SERVICE_LOGI("enter, time:%{public}d", seconds);
        std::unique_lock<std::mutex> lock(mutex_);
        timeout_ = seconds;
        while (true) {
            if (stopped_) {
                TNDR_SERVICE_LOGI("wait stop");
                return {PENDING_STOPPED, value_};
            }
            if (timeout_ <= 0) {
                TNDR_SERVICE_LOGI("wait timeout");
                return {PENDING_TIMEOUT, value_};
            }
            // Every wake-up that is neither a stop nor a time-out restarts a whole period, so
            // that each Refresh grants the full new timeout.
            const auto begin = Vex::Clock::Now();
            const auto period = std::chrono::seconds(timeout_);
            Vex::Clock::WaitUntil(cond_, lock, begin + period);
            if (!stopped_ && Vex::Clock::Now() - begin >= period) {
                TNDR_SERVICE_LOGI("wait timeout");
                return {PENDING_TIMEOUT, value_};
            }
        }
    }

    void Stop(T value = T())
    {
        TNDR_SERVICE_LOGI("enter");
        std::lock_guard<std::mutex> lock(mutex_);
        value_ = value;
        stopped_ = true;
        cond_.notify_all();
    }

    void Refresh(uint32_t seconds)
    {
        TNDR_SERVICE_LOGI("enter, time = %{public}u", seconds);
        std::lock_guard<std::mutex> lock(mutex_);
        timeout_ = static_cast<int32_t>(seconds);
        cond_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    int32_t timeout_ = 0;
    T value_ = T();
    bool stopped_ = false;
};

}  // namespace Tandra
}  // namespace QUEX
