#include "timeline.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace QUEX::Tandra::Timeline {

size_t Timeline::LaneOf(const TimelineEvent& event) const
{
    return static_cast<size_t>(std::find(lanes.begin(), lanes.end(), event.device) - lanes.begin());
}

Timeline BuildTimeline(std::vector<TimelineEvent> events)
{
    Timeline timeline;
    for (const TimelineEvent& event : events) {
        if (std::find(timeline.lanes.begin(), timeline.lanes.end(), event.device) == timeline.lanes.end()) {
            timeline.lanes.push_back(event.device);
        }
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const TimelineEvent& a, const TimelineEvent& b) { return a.timeMs < b.timeMs; });
    if (!events.empty()) {
        timeline.startMs = events.front().timeMs;
        timeline.endMs = events.back().timeMs;
    }
    timeline.events = std::move(events);
    return timeline;
}

std::string FormatOffset(int64_t ms)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%s%lld.%03lld s", ms < 0 ? "-" : "+",
                  static_cast<long long>(std::llabs(ms) / 1000), static_cast<long long>(std::llabs(ms) % 1000));
    return text;
}

std::string FormatUtc(int64_t ms)
{
    std::time_t seconds = static_cast<std::time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[48];
    size_t n = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &utc);
    std::snprintf(text + n, sizeof(text) - n, ".%03lld UTC", static_cast<long long>(((ms % 1000) + 1000) % 1000));
    return text;
}

}  // namespace QUEX::Tandra::Timeline
