// Timed waits for the peer: their exact extent on a simulated clock, how a refresh restarts
// the period, how a stop ends them, their registry keys, and the codes the UI is told.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "camera_ability_process.h"
#include "pending.h"
#include "vex_clock.h"
#include "vex_sys_event.h"

namespace QUEX {
namespace Tandra {
namespace {
using namespace std::chrono_literals;
using Vex::Clock;

class SpinePendingTest : public testing::Test {
protected:
    void SetUp() override { Clock::UseSimulatedTime(); }
    void TearDown() override { Clock::UseRealTime(); }

    // Runs Start on a thread; the result and the simulated time it ended at.
    struct Waiter {
        std::future<std::pair<int32_t, Clock::TimePoint>> done;
        bool Finished() { return done.wait_for(0s) == std::future_status::ready; }
        // Real-time bound, for a waiter that should end at once.
        std::pair<int32_t, Clock::TimePoint> Get()
        {
            EXPECT_EQ(done.wait_for(5s), std::future_status::ready);
            return done.get();
        }
    };
    static Waiter StartWaiting(Pending<int32_t>& pending, int32_t seconds)
    {
        return Waiter{std::async(std::launch::async, [&pending, seconds]() {
            const int32_t status = pending.Start(seconds).first;
            return std::make_pair(status, Clock::Now());
        })};
    }
};

TEST_F(SpinePendingTest, StopBeforeStartEndsTheWaitAtOnce)
{
    Pending<int32_t> pending;
    pending.Stop();
    const auto begin = Clock::Now();
    const auto result = pending.Start(10);
    EXPECT_EQ(result.first, PENDING_STOPPED);
    EXPECT_EQ(Clock::Now(), begin);
}

TEST_F(SpinePendingTest, StartWithZeroTimesOutAtOnce)
{
    Pending<int32_t> pending;
    EXPECT_EQ(pending.Start(0).first, PENDING_TIMEOUT);
}

TEST_F(SpinePendingTest, WaitEndsExactlyAtItsTimeoutEvenWhenTheClockMovesInSteps)
{
    Pending<int32_t> pending;
    const auto begin = Clock::Now();
    Waiter waiter = StartWaiting(pending, 10);
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    for (int i = 0; i < 9; ++i) {
        Clock::Advance(1s);
    }
    Clock::Advance(999ms);
    EXPECT_FALSE(waiter.Finished());
    Clock::Advance(1ms);
    const auto [status, endedAt] = waiter.Get();
    EXPECT_EQ(status, PENDING_TIMEOUT);
    EXPECT_EQ(endedAt - begin, 10s);
}

TEST_F(SpinePendingTest, RefreshGrantsAWholeNewPeriodFromTheMomentItIsCalled)
{
    Pending<int32_t> pending;
    const auto begin = Clock::Now();
    Waiter waiter = StartWaiting(pending, 10);
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    Clock::Advance(9s);
    pending.Refresh(10);
    Clock::Advance(9s);
    Clock::Advance(999ms);
    EXPECT_FALSE(waiter.Finished());
    Clock::Advance(1ms);
    const auto [status, endedAt] = waiter.Get();
    EXPECT_EQ(status, PENDING_TIMEOUT);
    EXPECT_EQ(endedAt - begin, 19s);
}

TEST_F(SpinePendingTest, WaitsAreKeyedByElevenDigitIdAndCode)
{
    CameraAbilityProcess& process = *CameraAbilityProcess::GetInstance();
    auto pending = process.ObtainImagePending(3, CODE_LAST_PHOTO);
    ASSERT_NE(pending, nullptr);
    EXPECT_EQ(process.ObtainImagePending(3, CODE_LAST_PHOTO), pending);
    EXPECT_NE(process.ObtainImagePending(3, CODE_PHOTO_COUNT), pending);
    EXPECT_EQ(process.EraseImagePending("0000000000301001200000"), pending);
    EXPECT_EQ(process.EraseImagePending("0000000000301001200000"), nullptr);
    EXPECT_NE(process.EraseImagePending("0000000000301001201912"), nullptr);
}

TEST_F(SpinePendingTest, SetTimeoutContextStopsAndForgetsTheWait)
{
    CameraAbilityProcess& process = *CameraAbilityProcess::GetInstance();
    auto done =
        std::async(std::launch::async, [&process]() { return process.GetTimeoutWaitCode(5, CODE_PHOTO_COUNT, 180); });
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    EXPECT_TRUE(process.SetTimeoutContext(5, CODE_PHOTO_COUNT));
    ASSERT_EQ(done.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(done.get(), PENDING_STOPPED);
    EXPECT_FALSE(process.SetTimeoutContext(5, CODE_PHOTO_COUNT));
}

TEST_F(SpinePendingTest, ReleaseTimeoutLockStopsEveryListedWait)
{
    CameraAbilityProcess& process = *CameraAbilityProcess::GetInstance();
    auto count = process.ObtainImagePending(6, CODE_PHOTO_COUNT);
    auto photo = process.ObtainImagePending(6, CODE_LAST_PHOTO);
    process.ReleaseTimeoutLock(6, {CODE_PHOTO_COUNT, CODE_LAST_PHOTO, CODE_PHOTO});
    // Both were stopped: a later start ends at once.
    EXPECT_EQ(count->Start(180).first, PENDING_STOPPED);
    EXPECT_EQ(photo->Start(10).first, PENDING_STOPPED);
    EXPECT_EQ(process.EraseImagePending("0000000000601001201912"), nullptr);
}

TEST_F(SpinePendingTest, TimedOutWaitForTheFirstAnswerReportsTheEndAndStaysRegistered)
{
    CameraAbilityProcess& process = *CameraAbilityProcess::GetInstance();
    Vex::SysEventCapture events;
    const auto begin = Clock::Now();
    auto done = std::async(std::launch::async, [&process]() {
        const int32_t status = process.GetTimeoutWaitCode(8, CODE_PHOTO_COUNT, 180);
        return std::make_pair(status, Clock::Now());
    });
    ASSERT_TRUE(Clock::AwaitWaiters(1));
    Clock::Advance(180s);
    ASSERT_EQ(done.wait_for(5s), std::future_status::ready);
    const auto [status, endedAt] = done.get();
    EXPECT_EQ(status, PENDING_TIMEOUT);
    EXPECT_EQ(endedAt - begin, 180s);

    bool reported = false;
    for (const auto& record : events.Records()) {
        if (record.func != "GetTimeoutWaitCode") {
            continue;
        }
        reported = true;
        ASSERT_GE(record.params.size(), 13u);
        EXPECT_EQ(record.params[1].second, Vex::SysEventValue(int32_t{4}));  // receiving the result
        EXPECT_EQ(record.params[2].second, Vex::SysEventValue(int32_t{8}));  // camera running
        EXPECT_EQ(record.params[4].second, Vex::SysEventValue(int32_t{3}));  // ended
        EXPECT_EQ(record.params[12].first, "BIZ_STATE");
        EXPECT_EQ(record.params[12].second, Vex::SysEventValue(int32_t{2}));
    }
    EXPECT_TRUE(reported);
    // Only an answer (or a cancel) removes the record.
    EXPECT_NE(process.EraseImagePending("0000000000801001201912"), nullptr);
}

TEST(SpineErrorCodeTest, MapsEveryKnownCodeWhateverTheStatusAndOthersByStatus)
{
    const uint32_t named[][2] = {
        {2005, 1001202004},       {1001201907, 1001202004}, {2012, 1001202008},        {1001201901, 1001202009},
        {1001201913, 1001202005}, {1001201914, 1001202011}, {3867803653u, 1001202011},
    };
    for (const auto& [code, ui] : named) {
        for (uint32_t status : {0u, 1u, 2u}) {
            SCOPED_TRACE(testing::Message() << "code " << code << " status " << status);
            EXPECT_EQ(CameraAbilityProcess::GetErrorCode(status, code), ui);
        }
    }
    for (uint32_t code : {42u, 2010u, 1001u, 1001201909u, 1001201905u}) {
        SCOPED_TRACE(code);
        EXPECT_EQ(CameraAbilityProcess::GetErrorCode(1, code), 1001202009u);
        EXPECT_EQ(CameraAbilityProcess::GetErrorCode(0, code), 1001202002u);
        EXPECT_EQ(CameraAbilityProcess::GetErrorCode(2, code), 1001202002u);
    }
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
