// Clock: design time = base + (real time since the base) * speed, or a simulated time that
// only Advance moves. Waits are cut into short real slices and re-check the design time after
// each, so a mode change or an Advance is noticed without Advance ever touching the mutex
// that a waiter's caller holds. Advance also pokes the condition variables of the waiters in
// place (notify needs no lock), which makes them notice at once rather than after a slice.
#include "vex_clock.h"

#include <algorithm>
#include <unordered_map>

namespace Vex {

namespace {

using RealClock = std::chrono::steady_clock;
using Duration = Clock::Duration;
using TimePoint = Clock::TimePoint;

enum class Mode { REAL, SCALED, SIMULATED };

// Longest real wait between two looks at the clock's mode in real and scaled time.
constexpr auto REAL_SLICE = std::chrono::milliseconds(50);
// Longest real wait between two looks at simulated time.
constexpr auto SIMULATED_SLICE = std::chrono::milliseconds(1);

struct ClockState {
    std::mutex mutex;
    Mode mode = Mode::REAL;
    double speed = 1.0;
    // Design time starts equal to the steady clock.
    RealClock::time_point realBase = RealClock::now();
    TimePoint designBase = TimePoint(std::chrono::duration_cast<Duration>(realBase.time_since_epoch()));
    TimePoint simulatedNow;
    // Threads inside a timed wait or sleep, and the condition variables they wait on.
    size_t waiting = 0;
    std::unordered_multimap<std::condition_variable*, int> waiterCvs;
    std::condition_variable waitersChanged;  // for AwaitWaiters
    std::condition_variable sleepCv;         // sleepers wait here, under `mutex`

    TimePoint NowLocked() const
    {
        if (mode == Mode::SIMULATED) {
            return simulatedNow;
        }
        auto elapsed = RealClock::now() - realBase;
        if (mode == Mode::REAL) {
            return designBase + std::chrono::duration_cast<Duration>(elapsed);
        }
        return designBase + Duration(static_cast<Duration::rep>(static_cast<double>(elapsed.count()) * speed));
    }
    // The real time to wait for `remaining` design time, capped at `slice`.
    RealClock::duration RealWait(Duration remaining, RealClock::duration slice) const
    {
        double realNanos = static_cast<double>(remaining.count()) / speed;
        double sliceNanos = static_cast<double>(std::chrono::duration_cast<Duration>(slice).count());
        if (realNanos >= sliceNanos) {
            return slice;
        }
        return std::chrono::duration_cast<RealClock::duration>(Duration(static_cast<Duration::rep>(realNanos) + 1));
    }
    void Rebase(Mode newMode, double newSpeed)
    {
        TimePoint now = NowLocked();
        mode = newMode;
        speed = newSpeed;
        realBase = RealClock::now();
        designBase = now;
        simulatedNow = now;
    }
};

ClockState& State()
{
    // Never destroyed: detached threads may still wait while statics are torn down.
    static ClockState* state = new ClockState();
    return *state;
}

// Thread-local nesting of WaiterScope, so that a thread counts once however deep it waits.
thread_local size_t t_waiterDepth = 0;

// Registers the condition variable a thread waits on, so that Advance can wake it.
class CvRegistration {
public:
    CvRegistration(ClockState& state, std::condition_variable& cv) : state_(state)
    {
        std::lock_guard<std::mutex> lock(state_.mutex);
        it_ = state_.waiterCvs.emplace(&cv, 0);
    }
    ~CvRegistration()
    {
        std::lock_guard<std::mutex> lock(state_.mutex);
        state_.waiterCvs.erase(it_);
    }
    CvRegistration(const CvRegistration&) = delete;
    CvRegistration& operator=(const CvRegistration&) = delete;

private:
    ClockState& state_;
    std::unordered_multimap<std::condition_variable*, int>::iterator it_;
};

}  // namespace

Clock::WaiterScope::WaiterScope()
{
    if (t_waiterDepth++ > 0) {
        return;
    }
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    ++state.waiting;
    state.waitersChanged.notify_all();
}

Clock::WaiterScope::~WaiterScope()
{
    if (--t_waiterDepth > 0) {
        return;
    }
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    --state.waiting;
    state.waitersChanged.notify_all();
}

Clock::TimePoint Clock::Now()
{
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.NowLocked();
}

void Clock::SleepFor(Duration duration)
{
    SleepUntil(Now() + duration);
}

void Clock::SleepUntil(TimePoint deadline)
{
    ClockState& state = State();
    WaiterScope scope;
    std::unique_lock<std::mutex> lock(state.mutex);
    for (;;) {
        TimePoint now = state.NowLocked();
        if (now >= deadline) {
            return;
        }
        if (state.mode == Mode::SIMULATED) {
            // Advance notifies sleepCv under this mutex, so no wake-up is lost; the slice only
            // covers a switch back to real time.
            state.sleepCv.wait_for(lock, REAL_SLICE);
        } else {
            state.sleepCv.wait_for(lock, state.RealWait(deadline - now, REAL_SLICE));
        }
    }
}

std::cv_status Clock::WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, TimePoint deadline)
{
    ClockState& state = State();
    WaiterScope scope;
    CvRegistration registration(state, cv);
    RealClock::duration slice;
    {
        std::lock_guard<std::mutex> clockLock(state.mutex);
        TimePoint now = state.NowLocked();
        if (now >= deadline) {
            return std::cv_status::timeout;
        }
        slice = state.mode == Mode::SIMULATED ? RealClock::duration(SIMULATED_SLICE)
                                              : state.RealWait(deadline - now, REAL_SLICE);
    }
    // Every end of the slice goes back to the caller, who re-checks its condition (a spurious
    // wake-up at worst): the standard wait reports a time-out whenever the slice has run out by
    // the time the thread runs again, even when the caller's notify woke it, so waiting on here
    // would lose that notify. A deadline that has passed meanwhile counts as a time-out, as
    // with the standard wait.
    cv.wait_for(lock, slice);
    return Now() >= deadline ? std::cv_status::timeout : std::cv_status::no_timeout;
}

void Clock::UseRealTime()
{
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.Rebase(Mode::REAL, 1.0);
    state.sleepCv.notify_all();
}

void Clock::UseScaledTime(double speedup)
{
    if (!(speedup > 0.0)) {
        return;
    }
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.Rebase(Mode::SCALED, speedup);
    state.sleepCv.notify_all();
}

void Clock::UseSimulatedTime()
{
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.Rebase(Mode::SIMULATED, 1.0);
    state.sleepCv.notify_all();
}

bool Clock::IsSimulated()
{
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.mode == Mode::SIMULATED;
}

void Clock::Advance(Duration duration)
{
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.mode != Mode::SIMULATED || duration <= Duration::zero()) {
        return;
    }
    state.simulatedNow += duration;
    state.sleepCv.notify_all();
    // Safe without the waiters' mutexes: a waiter unregisters its cv under this lock before
    // leaving WaitUntil, so every cv here is alive.
    for (auto& entry : state.waiterCvs) {
        entry.first->notify_all();
    }
}

size_t Clock::WaitingCount()
{
    ClockState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.waiting;
}

bool Clock::AwaitWaiters(size_t count, std::chrono::milliseconds realTimeout)
{
    ClockState& state = State();
    std::unique_lock<std::mutex> lock(state.mutex);
    return state.waitersChanged.wait_for(lock, realTimeout, [&] { return state.waiting >= count; });
}

}  // namespace Vex
