#include <algorithm>
#include <cmath>
#include <sstream>

#include "event_vocabulary.h"
#include "timeline_render.h"
#include "timeline_svg_layout.h"

namespace QUEX::Tandra::Timeline {

namespace {

constexpr int LEFT = 190;  // lane names
constexpr int RIGHT = 30;
constexpr int AXIS_Y = 78;
constexpr int LANES_TOP = 88;
constexpr int ROW_HEIGHT = 20;
constexpr int LANE_PAD_TOP = 16;
constexpr int LANE_PAD_BOTTOM = 12;
constexpr int MARK_GAP = 9;         // from a mark's centre to its caption
constexpr double CHAR_WIDTH = 6.6;  // of the 12px caption font, generously
constexpr int LEGEND_HEIGHT = 44;

std::string Number(double value)
{
    std::ostringstream out;
    out.precision(1);
    out << std::fixed << value;
    return out.str();
}

// A step of 1, 2 or 5 times a power of ten giving about `wanted` ticks over span.
int64_t TickStep(int64_t span, int wanted)
{
    double raw = static_cast<double>(std::max<int64_t>(span, 1)) / wanted;
    double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (factor * power >= raw) {
            return std::max<int64_t>(1, static_cast<int64_t>(factor * power));
        }
    }
    return static_cast<int64_t>(10 * power);
}

// Milliseconds for short timelines, seconds from two seconds on.
std::string TickLabel(int64_t ms, int64_t step, int64_t span)
{
    if (span < 2000) {
        return "+" + std::to_string(ms) + " ms";
    }
    std::ostringstream out;
    out.precision(step % 1000 == 0 ? 0 : step % 100 == 0 ? 1 : 2);
    out << std::fixed << "+" << static_cast<double>(ms) / 1000 << " s";
    return out.str();
}

std::string Tip(const TimelineEvent& event, int64_t startMs)
{
    std::string tip = Caption(event);
    tip += "\ntime: " + FormatOffset(event.timeMs - startMs) + "  (" + FormatUtc(event.timeMs) + ")";
    tip += "\ndevice: " + event.device;
    if (!event.name.empty()) {
        tip += "\nevent: " + event.name;
    }
    if (event.scene >= 0) {
        tip += "\nscene: " + SceneName(event.scene);
    }
    if (event.state != 0) {
        tip += "\nstate: " + StateName(event.state);
    }
    for (const auto& [key, value] : event.keys) {
        tip += "\n" + key + ": " + value;
    }
    tip += "\nfrom: " + event.origin;
    return tip;
}

// Lane names stay inside the gutter; the full name is in every mark's hover text.
std::string LaneName(const std::string& name)
{
    constexpr size_t MAX_CHARS = 21;
    return name.size() <= MAX_CHARS ? name : name.substr(0, MAX_CHARS - 3) + "...";
}

}  // namespace

std::string EscapeXml(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            case '\n':
                out += "&#10;";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 && c != '\t') {
                    out += ' ';  // control characters are not allowed in XML
                } else {
                    out += c;
                }
        }
    }
    return out;
}

Layout LayOut(const Timeline& timeline, int width)
{
    Layout layout;
    layout.width = std::max(width, LEFT + RIGHT + 200);
    layout.plotLeft = LEFT + 12;
    layout.plotRight = layout.width - RIGHT - 12;
    const int64_t span = timeline.endMs - timeline.startMs;
    auto xOf = [&](int64_t ms) {
        if (span <= 0) {
            return static_cast<double>(layout.plotLeft);
        }
        return layout.plotLeft + static_cast<double>(ms - timeline.startMs) * (layout.plotRight - layout.plotLeft) /
                                     static_cast<double>(span);
    };
    layout.marks.resize(timeline.events.size());
    std::vector<std::vector<double>> rowEnds(timeline.lanes.size());
    for (size_t i = 0; i < timeline.events.size(); ++i) {
        const TimelineEvent& event = timeline.events[i];
        Mark& mark = layout.marks[i];
        mark.lane = timeline.LaneOf(event);
        mark.x = xOf(event.timeMs);
        double captionWidth = static_cast<double>(Caption(event).size()) * CHAR_WIDTH;
        mark.captionLeft = mark.x + MARK_GAP + captionWidth > layout.width - 4;
        double from = mark.captionLeft ? mark.x - MARK_GAP - captionWidth : mark.x - 6;
        double to = mark.captionLeft ? mark.x + 6 : mark.x + MARK_GAP + captionWidth;
        std::vector<double>& rows = rowEnds[mark.lane];
        size_t row = 0;
        while (row < rows.size() && from < rows[row] + 6) {
            ++row;
        }
        if (row == rows.size()) {
            rows.push_back(to);
        } else {
            rows[row] = to;
        }
        mark.row = row;
    }
    int y = LANES_TOP;
    for (size_t lane = 0; lane < timeline.lanes.size(); ++lane) {
        int rows = static_cast<int>(std::max<size_t>(rowEnds[lane].size(), 1));
        layout.laneTop.push_back(y);
        layout.laneHeight.push_back(LANE_PAD_TOP + rows * ROW_HEIGHT + LANE_PAD_BOTTOM);
        y += layout.laneHeight.back();
    }
    layout.lanesBottom = y;
    layout.height = y + LEGEND_HEIGHT;
    return layout;
}

std::string SvgBody(const Timeline& timeline, const Layout& layout, const RenderOptions& options, bool titles)
{
    std::ostringstream svg;
    const int64_t span = timeline.endMs - timeline.startMs;
    svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"timeline\" width=\"" << layout.width << "\" height=\""
        << layout.height << "\" viewBox=\"0 0 " << layout.width << ' ' << layout.height
        << "\" font-family=\"DejaVu Sans, Verdana, sans-serif\" font-size=\"12\">\n";
    svg << "<style>.mark circle{stroke:#fff;stroke-width:1.5}.begun circle{fill:#2563eb}.ok circle{fill:#16a34a}"
           ".failed circle{fill:#dc2626}.ended circle{fill:#d97706}.other circle{fill:#64748b}"
           ".failed text{fill:#b91c1c;font-weight:bold}.ring{fill:none;stroke:#0f172a;stroke-width:1.2}"
           ".stem{stroke:#94a3b8;stroke-width:1;stroke-dasharray:2 2}.mark:hover text{font-weight:bold}"
           ".grid{stroke:#e2e8f0}.tick{fill:#475569;font-size:11px}</style>\n";
    svg << "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
    svg << "<text x=\"16\" y=\"28\" font-size=\"18\" font-weight=\"bold\" fill=\"#0f172a\">" << EscapeXml(options.title)
        << "</text>\n";
    svg << "<text x=\"16\" y=\"50\" fill=\"#475569\">" << timeline.lanes.size() << " device"
        << (timeline.lanes.size() == 1 ? "" : "s") << ", " << timeline.events.size() << " event"
        << (timeline.events.size() == 1 ? "" : "s") << ", from " << EscapeXml(FormatUtc(timeline.startMs)) << " over "
        << EscapeXml(FormatOffset(span).substr(1)) << "</text>\n";

    // Axis with ticks and grid lines through every lane.
    svg << "<g class=\"axis\"><line x1=\"" << layout.plotLeft << "\" y1=\"" << AXIS_Y << "\" x2=\"" << layout.plotRight
        << "\" y2=\"" << AXIS_Y << "\" stroke=\"#334155\"/>\n";
    int64_t step = TickStep(span, 10);
    for (int64_t t = 0; t <= std::max<int64_t>(span, 0); t += step) {
        double x = span > 0 ? layout.plotLeft + static_cast<double>(t) * (layout.plotRight - layout.plotLeft) / span
                            : layout.plotLeft;
        svg << "<line class=\"grid\" x1=\"" << Number(x) << "\" y1=\"" << AXIS_Y << "\" x2=\"" << Number(x)
            << "\" y2=\"" << layout.lanesBottom << "\"/><line x1=\"" << Number(x) << "\" y1=\"" << AXIS_Y - 4
            << "\" x2=\"" << Number(x) << "\" y2=\"" << AXIS_Y << "\" stroke=\"#334155\"/><text class=\"tick\" x=\""
            << Number(x) << "\" y=\"" << AXIS_Y - 8 << "\" text-anchor=\"middle\">" << TickLabel(t, step, span)
            << "</text>\n";
        if (span <= 0) {
            break;
        }
    }
    svg << "</g>\n";

    for (size_t lane = 0; lane < timeline.lanes.size(); ++lane) {
        size_t count = std::count_if(timeline.events.begin(), timeline.events.end(),
                                     [&](const TimelineEvent& e) { return e.device == timeline.lanes[lane]; });
        int top = layout.laneTop[lane];
        svg << "<g class=\"lane\"><rect x=\"0\" y=\"" << top << "\" width=\"" << layout.width << "\" height=\""
            << layout.laneHeight[lane] << "\" fill=\"" << (lane % 2 == 0 ? "#f1f5f9" : "#f8fafc")
            << "\" fill-opacity=\"0.7\"/><line x1=\"0\" y1=\"" << top << "\" x2=\"" << layout.width << "\" y2=\"" << top
            << "\" stroke=\"#cbd5e1\"/><text x=\"16\" y=\"" << top + 24
            << "\" font-size=\"14\" font-weight=\"bold\" fill=\"#0f172a\">" << EscapeXml(LaneName(timeline.lanes[lane]))
            << "</text><text x=\"16\" y=\"" << top + 42 << "\" fill=\"#64748b\" font-size=\"11\">" << count << " event"
            << (count == 1 ? "" : "s") << "</text></g>\n";
    }

    for (size_t i = 0; i < timeline.events.size(); ++i) {
        const TimelineEvent& event = timeline.events[i];
        const Mark& mark = layout.marks[i];
        int top = layout.laneTop[mark.lane];
        double y = top + LANE_PAD_TOP + mark.row * ROW_HEIGHT + ROW_HEIGHT / 2.0;
        std::string tip = Tip(event, timeline.startMs);
        svg << "<g class=\"mark " << ResultClass(event) << "\" data-tip=\"" << EscapeXml(tip) << "\">";
        if (titles) {
            svg << "<title>" << EscapeXml(tip) << "</title>";
        }
        svg << "<line class=\"stem\" x1=\"" << Number(mark.x) << "\" y1=\"" << top + 2 << "\" x2=\"" << Number(mark.x)
            << "\" y2=\"" << Number(y - 5) << "\"/>";
        if (event.state != 0) {
            svg << "<circle class=\"ring\" cx=\"" << Number(mark.x) << "\" cy=\"" << Number(y) << "\" r=\"8.5\"/>";
        }
        svg << "<circle cx=\"" << Number(mark.x) << "\" cy=\"" << Number(y) << "\" r=\"5.5\"/><text x=\""
            << Number(mark.captionLeft ? mark.x - MARK_GAP : mark.x + MARK_GAP) << "\" y=\"" << Number(y + 4)
            << "\" fill=\"#1e293b\"" << (mark.captionLeft ? " text-anchor=\"end\"" : "") << ">"
            << EscapeXml(Caption(event)) << "</text></g>\n";
    }

    // Legend.
    int legendY = layout.lanesBottom + 26;
    svg << "<g class=\"legend\"><line x1=\"0\" y1=\"" << layout.lanesBottom << "\" x2=\"" << layout.width << "\" y2=\""
        << layout.lanesBottom << "\" stroke=\"#cbd5e1\"/>";
    int x = 16;
    const std::pair<const char*, const char*> entries[] = {
        {"begun", "stage begun"}, {"ok", "stage ok"}, {"failed", "failed"}, {"ended", "ended by cancel or user"}};
    for (const auto& [cls, words] : entries) {
        svg << "<g class=\"" << cls << "\"><circle cx=\"" << x + 6 << "\" cy=\"" << legendY - 4
            << "\" r=\"5.5\" stroke=\"#fff\"/></g><text x=\"" << x + 16 << "\" y=\"" << legendY
            << "\" fill=\"#334155\">" << words << "</text>";
        x += 30 + static_cast<int>(std::string(words).size() * CHAR_WIDTH);
    }
    svg << "<circle class=\"ring\" cx=\"" << x + 6 << "\" cy=\"" << legendY - 4 << "\" r=\"7\"/><text x=\"" << x + 18
        << "\" y=\"" << legendY << "\" fill=\"#334155\">collaboration begins or ends</text></g>\n";
    svg << "</svg>\n";
    return svg.str();
}

std::string RenderSvg(const Timeline& timeline, const RenderOptions& options)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" +
           SvgBody(timeline, LayOut(timeline, options.width), options, true);
}

}  // namespace QUEX::Tandra::Timeline
