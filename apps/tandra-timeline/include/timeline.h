// A timeline: the events of several devices on one time axis, one lane per device in the order
// the devices first appear, events in time order (file order among equal times).
// Thread-safety: a value; the renderers only read it.
#pragma once

#include <string>
#include <vector>

#include "timeline_events.h"

namespace QUEX::Tandra::Timeline {

struct Timeline {
    std::vector<std::string> lanes;
    std::vector<TimelineEvent> events;
    int64_t startMs = 0;
    int64_t endMs = 0;

    size_t LaneOf(const TimelineEvent& event) const;
};

Timeline BuildTimeline(std::vector<TimelineEvent> events);

// "+1.250 s" style offset of a time from the start.
std::string FormatOffset(int64_t ms);
// "2024-05-01 12:34:56.789 UTC".
std::string FormatUtc(int64_t ms);

}  // namespace QUEX::Tandra::Timeline
