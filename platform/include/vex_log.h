// The platform log. VexLogPrint formats a printf-style message whose conversions may carry a
// privacy flag ("%{public}s", "%{private}d", plain "%d" counts as private): public values are
// printed, private ones replaced by "<private>". Lines go to stderr by default; a test or the
// daemon installs a sink to capture them.
// Thread-safety: VexLogPrint and the sink functions may be called from any thread; a sink is
// called under the log's lock, one line at a time.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Vex {

enum LogType { LOG_APP = 0, LOG_CORE = 3 };
enum LogLevel { LOG_DEBUG = 3, LOG_INFO = 4, LOG_WARN = 5, LOG_ERROR = 6, LOG_FATAL = 7 };

struct LogRecord {
    LogType type;
    LogLevel level;
    uint32_t domain;
    std::string tag;
    std::string message;  // formatted, privacy applied
};

using LogSink = std::function<void(const LogRecord&)>;

// Installs a sink (null restores stderr); returns the previous one.
LogSink SetLogSink(LogSink sink);
// Lines below this level are dropped before formatting (default LOG_DEBUG).
void SetLogLevel(LogLevel level);

// Formats without printing; exposed for tests of the formatter. No printf format attribute:
// the compiler's checker would reject the privacy flags.
std::string FormatLogMessage(const char* fmt, ...);
std::string FormatLogMessageV(const char* fmt, va_list args);

// Captures every line while it lives (and still forwards nothing to stderr).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<LogRecord> Records() const;
    // True when some captured line's message contains the text.
    bool Contains(const std::string& text) const;
    size_t Count(const std::string& text) const;
    void Clear();

private:
    struct Impl;
    Impl* impl_;
};

}  // namespace Vex

// The C entry point the framework's code calls. Returns the number of bytes written, or -1.
extern "C" int VexLogPrint(Vex::LogType type, Vex::LogLevel level, unsigned int domain, const char* tag,
                           const char* fmt, ...);

// The platform's common line shape: "[file:line]function# " + message.
#define VEX_FILENAME (__builtin_strrchr(__FILE__, '/') ? __builtin_strrchr(__FILE__, '/') + 1 : __FILE__)
#define VEX_LOG(level, domain, tag, fmt, ...)                                                                      \
    ((void)VexLogPrint(Vex::LOG_CORE, level, domain, tag, "[%{public}s:%{public}d]%{public}s# " fmt, VEX_FILENAME, \
                       __LINE__, __FUNCTION__, ##__VA_ARGS__))
