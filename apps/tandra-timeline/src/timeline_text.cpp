#include "timeline_text.h"

#include <algorithm>

#include "event_vocabulary.h"

namespace QUEX::Tandra::Timeline {

namespace {

constexpr size_t TIME_COLUMN = 11;  // "+123.456 s" and a space
constexpr const char* SEPARATOR = " | ";

std::string Fit(std::string text, size_t width)
{
    if (text.size() > width) {
        text = width > 3 ? text.substr(0, width - 3) + "..." : text.substr(0, width);
    }
    text.resize(width, ' ');
    return text;
}

std::string Trimmed(std::string line)
{
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

}  // namespace

std::string RenderText(const Timeline& timeline, size_t width)
{
    const size_t lanes = std::max<size_t>(timeline.lanes.size(), 1);
    const size_t separators = lanes * 3;
    const size_t column =
        std::max<size_t>(12, (width > TIME_COLUMN + separators ? width - TIME_COLUMN - separators : 0) / lanes);

    std::string text = "Timeline from " + FormatUtc(timeline.startMs) + ": " + std::to_string(timeline.lanes.size()) +
                       " device" + (timeline.lanes.size() == 1 ? "" : "s") + ", " +
                       std::to_string(timeline.events.size()) + " event" + (timeline.events.size() == 1 ? "" : "s") +
                       "\n";
    std::string header = Fit("time", TIME_COLUMN);
    for (const std::string& lane : timeline.lanes) {
        header += SEPARATOR + Fit(lane, column);
    }
    text += Trimmed(header);
    text += Trimmed(std::string(TIME_COLUMN, '-') + std::string((column + 3) * timeline.lanes.size(), '-'));
    for (const TimelineEvent& event : timeline.events) {
        size_t lane = timeline.LaneOf(event);
        std::string caption = Caption(event);
        if (event.state == 1) {
            caption += " [begins]";
        } else if (event.state == 2) {
            caption += " [ends]";
        }
        std::string line = Fit(FormatOffset(event.timeMs - timeline.startMs), TIME_COLUMN);
        for (size_t i = 0; i < timeline.lanes.size(); ++i) {
            line += SEPARATOR + Fit(i == lane ? caption : "", column);
        }
        text += Trimmed(line);
    }
    return text;
}

}  // namespace QUEX::Tandra::Timeline
