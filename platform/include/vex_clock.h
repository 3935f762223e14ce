// Clock: the one source of time for every timed wait and sleep of host and plugin. Code keeps
// its real constants (180 s, 15 s, 10 s, ...); tests choose how fast they pass:
//   - real time (default);
//   - scaled time: `speedup` design seconds pass per real second (1000: 180 s take 180 ms);
//   - simulated time: time stands still until Advance(); waits end exactly when the advanced
//     time reaches their deadline, whatever the machine's speed.
// Waits never go to the standard library's timed waits directly: they call WaitUntil here.
// Thread-safety: all functions may be called from any thread; mode changes keep Now()
// continuous (it never jumps back).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace Vex {

class Clock {
public:
    using Duration = std::chrono::nanoseconds;
    using TimePoint = std::chrono::time_point<std::chrono::steady_clock, Duration>;

    static TimePoint Now();
    static void SleepFor(Duration duration);
    static void SleepUntil(TimePoint deadline);

    // Counts the calling thread among the waiters while it lives (nested scopes count once).
    // A single wait returns at the end of each short real slice, so a caller looping on its
    // own condition holds one of these to stay counted between slices; the predicate forms do.
    class WaiterScope {
    public:
        WaiterScope();
        ~WaiterScope();
        WaiterScope(const WaiterScope&) = delete;
        WaiterScope& operator=(const WaiterScope&) = delete;
    };

    // Waits on cv (lock held by the caller) until notified or until the clock reaches
    // deadline. May return no_timeout spuriously, like the standard wait (and does at the end
    // of every slice of real time that did not reach the deadline).
    static std::cv_status WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                                    TimePoint deadline);
    template <typename Predicate>
    static bool WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, TimePoint deadline,
                          Predicate predicate)
    {
        WaiterScope waiter;
        while (!predicate()) {
            if (WaitUntil(cv, lock, deadline) == std::cv_status::timeout) {
                return predicate();
            }
        }
        return true;
    }
    template <typename Rep, typename Period, typename Predicate>
    static bool WaitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                        std::chrono::duration<Rep, Period> duration, Predicate predicate)
    {
        return WaitUntil(cv, lock, Now() + std::chrono::duration_cast<Duration>(duration), predicate);
    }

    // Test controls.
    static void UseRealTime();
    static void UseScaledTime(double speedup);
    static void UseSimulatedTime();
    static bool IsSimulated();
    // Simulated mode only: moves time forward and wakes the waits whose deadline passed.
    static void Advance(Duration duration);
    // Number of threads now inside a timed wait or sleep of this clock.
    static size_t WaitingCount();
    // Blocks (real time) until at least count threads are inside a timed wait; false on
    // time-out. Lets a test advance simulated time only once the waiters are in place.
    static bool AwaitWaiters(size_t count, std::chrono::milliseconds realTimeout = std::chrono::milliseconds(5000));
};

}  // namespace Vex
