// IPC counters behind one lock with a condition, so that leak checks wait for them to settle
// instead of polling.
#include <condition_variable>
#include <mutex>

#include "ipc_stats_counter.h"

namespace Vex {

namespace {

struct Counters {
    std::mutex mutex;
    std::condition_variable changed;
    IpcStats stats;
};

Counters& Get()
{
    // Never destroyed: proxies held by statics release their handles during exit.
    static Counters* counters = new Counters();
    return *counters;
}

}  // namespace

void AddIpcStat(IpcCounter counter, long delta)
{
    Counters& counters = Get();
    {
        std::lock_guard<std::mutex> lock(counters.mutex);
        size_t* field = counter == IpcCounter::CONNECTIONS ? &counters.stats.connections
                        : counter == IpcCounter::EXPORTED  ? &counters.stats.exportedHandles
                                                           : &counters.stats.proxyHandles;
        *field = static_cast<size_t>(static_cast<long>(*field) + delta);
    }
    counters.changed.notify_all();
}

IpcStats GetIpcStats()
{
    Counters& counters = Get();
    std::lock_guard<std::mutex> lock(counters.mutex);
    return counters.stats;
}

bool WaitForIpcStats(const std::function<bool(const IpcStats&)>& predicate, std::chrono::milliseconds timeout)
{
    Counters& counters = Get();
    std::unique_lock<std::mutex> lock(counters.mutex);
    return counters.changed.wait_for(lock, timeout, [&] { return predicate(counters.stats); });
}

}  // namespace Vex
