// Pictures of a timeline: an SVG (one lane per device, one mark per event at its time on a shared
// axis, a caption beside each mark stacked so none overlap, the event's keys on hover) and a
// self-contained HTML page around the same picture (inline CSS and JS, no external assets) with
// a side-by-side table of the events below it.
// Thread-safety: pure functions.
#pragma once

#include <string>

#include "timeline.h"

namespace QUEX::Tandra::Timeline {

struct RenderOptions {
    std::string title = "Collaboration timeline";
    int width = 1400;  // of the picture, in pixels
};

std::string RenderSvg(const Timeline& timeline, const RenderOptions& options);
std::string RenderHtml(const Timeline& timeline, const RenderOptions& options);

// Escapes text for XML and HTML content and attribute values; newlines become &#10;.
std::string EscapeXml(const std::string& text);

}  // namespace QUEX::Tandra::Timeline
