// Structured system events: VexSysEvent::Write(func, line, domain, name, type, key, value, ...)
// records one event with typed values (string, bool, 32/64-bit integers; enumerations are
// written as 32-bit integers). A per-call-site limit (domain, name, function, line) drops
// writes beyond a number per window of clock time. Events go to the installed sink: tests
// capture them, the daemon writes them as JSON lines.
// Thread-safety: Write and the sink functions may be called from any thread; a sink is called
// under the event log's lock, one event at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "vex_clock.h"

namespace Vex {

using SysEventValue = std::variant<bool, int32_t, uint32_t, int64_t, std::string>;

struct SysEventRecord {
    std::string domain;
    std::string name;
    int32_t type = 0;
    std::string func;
    int64_t line = 0;
    std::vector<std::pair<std::string, SysEventValue>> params;  // in written order
};

using SysEventSink = std::function<void(const SysEventRecord&)>;

class VexSysEvent {
public:
    enum EventType { FAULT = 1, STATISTIC = 2, SECURITY = 3, BEHAVIOR = 4 };
    static constexpr int32_t ERR_WRITE_LIMITED = -11;

    // 0 when written, ERR_WRITE_LIMITED when the call site's limit dropped it.
    template <typename... Types>
    static int Write(const char* func, int64_t line, const std::string& domain, const std::string& eventName,
                     int32_t type, Types&&... keyValues)
    {
        SysEventRecord record{domain, eventName, type, func != nullptr ? func : "", line, {}};
        record.params.reserve(sizeof...(Types) / 2);
        Append(record, std::forward<Types>(keyValues)...);
        return Commit(std::move(record));
    }

    static int Commit(SysEventRecord record);
    // At most maxWrites events per call site in each window (default 100 per 5 s);
    // maxWrites 0 disables the limit.
    static void SetWriteLimit(uint32_t maxWrites, Clock::Duration window);
    static void ResetWriteLimit();  // forgets the history of every call site

private:
    static void Append(SysEventRecord&) {}
    template <typename V, typename... Rest>
    static void Append(SysEventRecord& record, const std::string& key, V&& value, Rest&&... rest)
    {
        record.params.emplace_back(key, ToValue(std::forward<V>(value)));
        Append(record, std::forward<Rest>(rest)...);
    }
    template <typename V>
    static SysEventValue ToValue(V&& value)
    {
        using T = std::decay_t<V>;
        if constexpr (std::is_same_v<T, bool>) {
            return value;
        } else if constexpr (std::is_enum_v<T>) {
            return static_cast<int32_t>(value);
        } else if constexpr (std::is_same_v<T, std::string>) {
            return std::string(value);
        } else if constexpr (std::is_convertible_v<T, const char*>) {
            return std::string(value);
        } else if constexpr (std::is_same_v<T, uint32_t>) {
            return value;
        } else if constexpr (std::is_integral_v<T> && sizeof(T) <= 4) {
            return static_cast<int32_t>(value);
        } else {
            return static_cast<int64_t>(value);
        }
    }
};

// Installs a sink (null: events are kept nowhere); returns the previous one.
SysEventSink SetSysEventSink(SysEventSink sink);

// Captures every written event while it lives.
class SysEventCapture {
public:
    SysEventCapture();
    ~SysEventCapture();
    SysEventCapture(const SysEventCapture&) = delete;
    SysEventCapture& operator=(const SysEventCapture&) = delete;
    std::vector<SysEventRecord> Records() const;
    void Clear();

private:
    struct Impl;
    Impl* impl_;
};

}  // namespace Vex

#define VEX_SYS_EVENT_WRITE(domain, name, type, ...) \
    Vex::VexSysEvent::Write(__FUNCTION__, __LINE__, domain, name, type, ##__VA_ARGS__)
