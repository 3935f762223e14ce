// Structured events: the per-call-site write limit and the sink. The limit counts writes in
// fixed windows of clock time that start with a call site's first write after the previous
// window ended.
#include "vex_sys_event.h"

#include <map>
#include <mutex>
#include <tuple>

namespace Vex {

namespace {

constexpr uint32_t DEFAULT_MAX_WRITES = 100;
constexpr Clock::Duration DEFAULT_WINDOW = std::chrono::seconds(5);

using CallSite = std::tuple<std::string, std::string, std::string, int64_t>;

struct Window {
    Clock::TimePoint start;
    uint32_t count = 0;
};

struct EventState {
    std::recursive_mutex mutex;
    SysEventSink sink;
    uint32_t maxWrites = DEFAULT_MAX_WRITES;
    Clock::Duration window = DEFAULT_WINDOW;
    std::map<CallSite, Window> sites;
};

EventState& State()
{
    // Never destroyed: threads may still write events while statics are torn down.
    static EventState* state = new EventState();
    return *state;
}

}  // namespace

int VexSysEvent::Commit(SysEventRecord record)
{
    Clock::TimePoint now = Clock::Now();
    EventState& state = State();
    std::lock_guard<std::recursive_mutex> lock(state.mutex);
    if (state.maxWrites > 0) {
        Window& window = state.sites[CallSite(record.domain, record.name, record.func, record.line)];
        if (window.count == 0 || now - window.start >= state.window) {
            window.start = now;
            window.count = 0;
        }
        if (window.count >= state.maxWrites) {
            return ERR_WRITE_LIMITED;
        }
        ++window.count;
    }
    if (state.sink) {
        state.sink(record);
    }
    return 0;
}

void VexSysEvent::SetWriteLimit(uint32_t maxWrites, Clock::Duration window)
{
    EventState& state = State();
    std::lock_guard<std::recursive_mutex> lock(state.mutex);
    state.maxWrites = maxWrites;
    state.window = window;
}

void VexSysEvent::ResetWriteLimit()
{
    EventState& state = State();
    std::lock_guard<std::recursive_mutex> lock(state.mutex);
    state.sites.clear();
}

SysEventSink SetSysEventSink(SysEventSink sink)
{
    EventState& state = State();
    std::lock_guard<std::recursive_mutex> lock(state.mutex);
    SysEventSink previous = std::move(state.sink);
    state.sink = std::move(sink);
    return previous;
}

struct SysEventCapture::Impl {
    mutable std::mutex mutex;
    std::vector<SysEventRecord> records;
    SysEventSink previous;
};

SysEventCapture::SysEventCapture() : impl_(new Impl())
{
    Impl* impl = impl_;
    impl_->previous = SetSysEventSink([impl](const SysEventRecord& record) {
        std::lock_guard<std::mutex> lock(impl->mutex);
        impl->records.push_back(record);
    });
}

SysEventCapture::~SysEventCapture()
{
    // Sinks run under the event log's lock: once the old one is back, ours is idle.
    SetSysEventSink(std::move(impl_->previous));
    delete impl_;
}

std::vector<SysEventRecord> SysEventCapture::Records() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->records;
}

void SysEventCapture::Clear()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->records.clear();
}

}  // namespace Vex
