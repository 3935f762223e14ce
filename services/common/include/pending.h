// Pending<T>: a timed wait for an answer that may never come. Start(seconds) blocks until
// Stop() hands over a value (status 0) or the timeout passes (status 2010); Refresh(seconds)
// grants a whole new period from the moment it is called. Time is the platform clock's, so
// tests can scale or simulate it; a wake-up that is neither a stop nor a refresh (spurious, or
// the simulated clock moving) keeps the deadline.
// Thread-safety: one thread waits in Start at a time; Stop and Refresh may come from any
// thread and wake every waiter.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#include "camera_result_codes.h"
#include "vex_clock.h"
#include "vex_log_tags.h"

namespace QUEX {
namespace Tandra {

constexpr int32_t PENDING_STOPPED = ERR_OK;
constexpr int32_t PENDING_TIMEOUT = ERR_WAIT_TIMEOUT;

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
        auto begin = Vex::Clock::Now();
        uint64_t seenRefreshes = refreshes_;
        // Each wait below returns at the end of every real-time slice; the scope keeps this
        // thread counted as a clock waiter between them, so a test that awaits it never misses it.
        Vex::Clock::WaiterScope waiter;
        while (true) {
            if (stopped_) {
                TNDR_SERVICE_LOGI("wait stop");
                return {PENDING_STOPPED, value_};
            }
            if (timeout_ <= 0) {
                TNDR_SERVICE_LOGI("wait timeout");
                return {PENDING_TIMEOUT, value_};
            }
            // A Refresh restarts the whole period from the moment it was called, however late
            // this thread gets to run; any other wake-up keeps the deadline it had.
            if (refreshes_ != seenRefreshes) {
                seenRefreshes = refreshes_;
                begin = refreshedAt_;
            }
            const auto period = std::chrono::seconds(timeout_);
            Vex::Clock::WaitUntil(cond_, lock, begin + period);
            if (!stopped_ && refreshes_ == seenRefreshes && Vex::Clock::Now() - begin >= period) {
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
        refreshedAt_ = Vex::Clock::Now();
        ++refreshes_;
        cond_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    int32_t timeout_ = 0;
    T value_ = T();
    bool stopped_ = false;
    uint64_t refreshes_ = 0;
    Vex::Clock::TimePoint refreshedAt_{};
};

}  // namespace Tandra
}  // namespace QUEX
