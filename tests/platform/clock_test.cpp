// The clock's test modes: simulated deadlines that end exactly at the advanced time, scaled
// flows, and continuity across mode changes.
#include <gtest/gtest.h>

#include <thread>

#include "vex_clock.h"

namespace Vex {
namespace {

using namespace std::chrono_literals;

struct Waiter {
    std::mutex mutex;
    std::condition_variable cv;
    bool ready = false;
};

TEST(ClockTest, SimulatedWaitEndsExactlyWhenAdvancedTimeReachesItsDeadline)
{
    Clock::UseSimulatedTime();
    Waiter waiter;
    const Clock::TimePoint start = Clock::Now();
    Clock::TimePoint woke;
    bool satisfied = true;
    std::thread thread([&] {
        std::unique_lock<std::mutex> lock(waiter.mutex);
        satisfied = Clock::WaitUntil(waiter.cv, lock, start + 15s, [&] { return waiter.ready; });
        woke = Clock::Now();
    });
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    Clock::Advance(15s - 1ms);
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    Clock::Advance(1ms);
    thread.join();
    EXPECT_FALSE(satisfied);
    // Had it returned after the first advance, it would have seen 14.999 s.
    EXPECT_EQ(woke - start, 15s);
    EXPECT_EQ(Clock::WaitingCount(), 0u);
}

TEST(ClockTest, SimulatedWaitReturnsOnNotifyWithoutTimeMoving)
{
    Clock::UseSimulatedTime();
    Waiter waiter;
    const Clock::TimePoint start = Clock::Now();
    bool satisfied = false;
    std::thread thread([&] {
        std::unique_lock<std::mutex> lock(waiter.mutex);
        satisfied = Clock::WaitFor(waiter.cv, lock, 180s, [&] { return waiter.ready; });
    });
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    {
        std::lock_guard<std::mutex> lock(waiter.mutex);
        waiter.ready = true;
    }
    waiter.cv.notify_all();
    thread.join();
    EXPECT_TRUE(satisfied);
    EXPECT_EQ(Clock::Now(), start);
}

TEST(ClockTest, SimulatedSleepReturnsOnceTimeIsAdvancedPastIt)
{
    Clock::UseSimulatedTime();
    const Clock::TimePoint start = Clock::Now();
    Clock::TimePoint woke;
    std::thread thread([&] {
        Clock::SleepFor(500ms);
        woke = Clock::Now();
    });
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    EXPECT_EQ(Clock::WaitingCount(), 1u);
    Clock::Advance(499ms);
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    Clock::Advance(2ms);
    thread.join();
    EXPECT_EQ(woke - start, 501ms);
}

TEST(ClockTest, ScaledTimeRunsDesignTimeFaster)
{
    Clock::UseScaledTime(1000.0);
    EXPECT_FALSE(Clock::IsSimulated());
    Waiter waiter;
    auto realStart = std::chrono::steady_clock::now();
    const Clock::TimePoint start = Clock::Now();
    bool satisfied = true;
    {
        std::unique_lock<std::mutex> lock(waiter.mutex);
        satisfied = Clock::WaitFor(waiter.cv, lock, 10s, [&] { return waiter.ready; });
    }
    auto realElapsed = std::chrono::steady_clock::now() - realStart;
    EXPECT_FALSE(satisfied);
    EXPECT_GE(Clock::Now() - start, 10s);
    EXPECT_LT(realElapsed, 5s);  // 10 ms expected; generous for sanitizer builds

    realStart = std::chrono::steady_clock::now();
    Clock::SleepFor(5s);
    EXPECT_LT(std::chrono::steady_clock::now() - realStart, 4s);
}

TEST(ClockTest, NowNeverJumpsBackAcrossModeChanges)
{
    Clock::UseScaledTime(1000.0);
    Clock::TimePoint scaled = Clock::Now();
    Clock::UseRealTime();
    Clock::TimePoint real = Clock::Now();
    EXPECT_GE(real, scaled);
    Clock::UseSimulatedTime();
    EXPECT_TRUE(Clock::IsSimulated());
    Clock::TimePoint simulated = Clock::Now();
    EXPECT_GE(simulated, real);
    Clock::Advance(1s);
    EXPECT_EQ(Clock::Now(), simulated + 1s);
    Clock::UseScaledTime(10.0);
    EXPECT_GE(Clock::Now(), simulated + 1s);
    Clock::Advance(1h);  // ignored outside simulated time
    EXPECT_LT(Clock::Now(), simulated + 1h);
}

TEST(ClockTest, AwaitWaitersTimesOutWhenNobodyWaits)
{
    EXPECT_FALSE(Clock::AwaitWaiters(1, std::chrono::milliseconds(1)));
}

}  // namespace
}  // namespace Vex
