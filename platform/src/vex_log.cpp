// The platform log: the privacy-aware formatter and the line's way to stderr or a sink.
#include "vex_log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

namespace Vex {

namespace {

constexpr const char* PRIVATE_TEXT = "<private>";

enum class Length { NONE, HH, H, L, LL, Z, J, T, BIG_L };

template <typename T>
void AppendFormatted(std::string& out, const std::string& directive, T value)
{
    char small[128];
    int needed = std::snprintf(small, sizeof(small), directive.c_str(), value);
    if (needed < 0) {
        return;
    }
    if (static_cast<size_t>(needed) < sizeof(small)) {
        out.append(small, static_cast<size_t>(needed));
        return;
    }
    std::string large(static_cast<size_t>(needed) + 1, '\0');
    std::snprintf(large.data(), large.size(), directive.c_str(), value);
    out.append(large.data(), static_cast<size_t>(needed));
}

// Reads one conversion's argument with the type its length modifier names (the va_list must
// advance correctly whether the value is shown or not) and appends it when public.
void AppendConversion(std::string& out, const std::string& directive, char conversion, Length length, bool isPublic,
                      va_list& args)
{
    auto emit = [&](auto value) {
        if (isPublic) {
            AppendFormatted(out, directive, value);
        } else {
            out += PRIVATE_TEXT;
        }
    };
    switch (conversion) {
        case 'd':
        case 'i':
            switch (length) {
                case Length::L:
                    emit(va_arg(args, long));
                    break;
                case Length::LL:
                    emit(va_arg(args, long long));
                    break;
                case Length::Z:
                    emit(va_arg(args, ssize_t));
                    break;
                case Length::J:
                    emit(va_arg(args, intmax_t));
                    break;
                case Length::T:
                    emit(va_arg(args, ptrdiff_t));
                    break;
                default:
                    emit(va_arg(args, int));
                    break;
            }
            break;
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            switch (length) {
                case Length::L:
                    emit(va_arg(args, unsigned long));
                    break;
                case Length::LL:
                    emit(va_arg(args, unsigned long long));
                    break;
                case Length::Z:
                    emit(va_arg(args, size_t));
                    break;
                case Length::J:
                    emit(va_arg(args, uintmax_t));
                    break;
                case Length::T:
                    emit(va_arg(args, ptrdiff_t));
                    break;
                default:
                    emit(va_arg(args, unsigned int));
                    break;
            }
            break;
        case 'c':
            emit(va_arg(args, int));
            break;
        case 's': {
            const char* text = va_arg(args, const char*);
            emit(text != nullptr ? text : "(null)");
            break;
        }
        case 'p':
            emit(va_arg(args, void*));
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            if (length == Length::BIG_L) {
                emit(va_arg(args, long double));
            } else {
                emit(va_arg(args, double));
            }
            break;
        case 'n':
            (void)va_arg(args, void*);  // never written through
            break;
        default:
            out += directive;  // not a conversion: shown as written
            break;
    }
}

bool IsFlag(char c)
{
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\'';
}

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

struct LogState {
    std::recursive_mutex mutex;
    LogSink sink;
    std::atomic<int> level{LOG_DEBUG};
};

LogState& State()
{
    // Never destroyed: threads may still log while statics are torn down.
    static LogState* state = new LogState();
    return *state;
}

char LevelLetter(LogLevel level)
{
    switch (level) {
        case LOG_DEBUG:
            return 'D';
        case LOG_INFO:
            return 'I';
        case LOG_WARN:
            return 'W';
        case LOG_ERROR:
            return 'E';
        case LOG_FATAL:
            return 'F';
    }
    return '?';
}

void WriteToStderr(const LogRecord& record)
{
    auto now = std::chrono::system_clock::now();
    std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    long millis =
        static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    struct tm local {};
    localtime_r(&seconds, &local);
    std::fprintf(stderr, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5ld %c %X/%s: %s\n", local.tm_mon + 1, local.tm_mday,
                 local.tm_hour, local.tm_min, local.tm_sec, millis, static_cast<int>(getpid()),
                 static_cast<long>(syscall(SYS_gettid)), LevelLetter(record.level), record.domain, record.tag.c_str(),
                 record.message.c_str());
}

}  // namespace

std::string FormatLogMessageV(const char* fmt, va_list args)
{
    std::string out;
    if (fmt == nullptr) {
        return out;
    }
    va_list ap;
    va_copy(ap, args);
    const char* p = fmt;
    while (*p != '\0') {
        if (*p != '%') {
            const char* next = std::strchr(p, '%');
            size_t run = next != nullptr ? static_cast<size_t>(next - p) : std::strlen(p);
            out.append(p, run);
            p += run;
            continue;
        }
        const char* start = p++;
        if (*p == '%') {
            out += '%';
            ++p;
            continue;
        }
        bool isPublic = false;
        if (*p == '{') {
            const char* close = std::strchr(p, '}');
            if (close == nullptr) {
                out.append(start);
                break;
            }
            isPublic = std::string(p + 1, close) == "public";
            p = close + 1;
        }
        std::string directive = "%";
        while (IsFlag(*p)) {
            directive += *p++;
        }
        if (*p == '*') {
            directive += std::to_string(va_arg(ap, int));
            ++p;
        } else {
            while (IsDigit(*p)) {
                directive += *p++;
            }
        }
        if (*p == '.') {
            directive += *p++;
            if (*p == '*') {
                directive += std::to_string(va_arg(ap, int));
                ++p;
            } else {
                while (IsDigit(*p)) {
                    directive += *p++;
                }
            }
        }
        Length length = Length::NONE;
        if (p[0] == 'h' && p[1] == 'h') {
            length = Length::HH;
        } else if (p[0] == 'l' && p[1] == 'l') {
            length = Length::LL;
        } else if (*p == 'h') {
            length = Length::H;
        } else if (*p == 'l') {
            length = Length::L;
        } else if (*p == 'z') {
            length = Length::Z;
        } else if (*p == 'j') {
            length = Length::J;
        } else if (*p == 't') {
            length = Length::T;
        } else if (*p == 'L') {
            length = Length::BIG_L;
        }
        size_t lengthChars = length == Length::NONE ? 0 : (length == Length::HH || length == Length::LL) ? 2 : 1;
        directive.append(p, lengthChars);
        p += lengthChars;
        if (*p == '\0') {
            out.append(start);
            break;
        }
        char conversion = *p++;
        directive += conversion;
        AppendConversion(out, directive, conversion, length, isPublic, ap);
    }
    va_end(ap);
    return out;
}

std::string FormatLogMessage(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string message = FormatLogMessageV(fmt, args);
    va_end(args);
    return message;
}

LogSink SetLogSink(LogSink sink)
{
    LogState& state = State();
    std::lock_guard<std::recursive_mutex> lock(state.mutex);
    LogSink previous = std::move(state.sink);
    state.sink = std::move(sink);
    return previous;
}

void SetLogLevel(LogLevel level)
{
    State().level.store(level, std::memory_order_relaxed);
}

struct LogCapture::Impl {
    mutable std::mutex mutex;
    std::vector<LogRecord> records;
    LogSink previous;
};

LogCapture::LogCapture() : impl_(new Impl())
{
    Impl* impl = impl_;
    impl_->previous = SetLogSink([impl](const LogRecord& record) {
        std::lock_guard<std::mutex> lock(impl->mutex);
        impl->records.push_back(record);
    });
}

LogCapture::~LogCapture()
{
    // Once the old sink is back no thread can be inside ours: sinks run under the log's lock.
    SetLogSink(std::move(impl_->previous));
    delete impl_;
}

std::vector<LogRecord> LogCapture::Records() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->records;
}

bool LogCapture::Contains(const std::string& text) const
{
    return Count(text) > 0;
}

size_t LogCapture::Count(const std::string& text) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    size_t count = 0;
    for (const auto& record : impl_->records) {
        if (record.message.find(text) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->records.clear();
}

}  // namespace Vex

extern "C" int VexLogPrint(Vex::LogType type, Vex::LogLevel level, unsigned int domain, const char* tag,
                           const char* fmt, ...)
{
    using namespace Vex;
    if (fmt == nullptr) {
        return -1;
    }
    LogState& state = State();
    if (static_cast<int>(level) < state.level.load(std::memory_order_relaxed)) {
        return 0;
    }
    va_list args;
    va_start(args, fmt);
    LogRecord record{type, level, domain, tag != nullptr ? tag : "", FormatLogMessageV(fmt, args)};
    va_end(args);
    int written = static_cast<int>(record.message.size());
    std::lock_guard<std::recursive_mutex> lock(state.mutex);
    if (state.sink) {
        state.sink(record);
    } else {
        WriteToStderr(record);
    }
    return written;
}
