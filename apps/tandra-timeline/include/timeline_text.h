// The timeline as plain text for a terminal: one line per event, its offset from the first
// event, and its caption in the column of its device, devices side by side.
// Thread-safety: a pure function.
#pragma once

#include <string>

#include "timeline.h"

namespace QUEX::Tandra::Timeline {

// width: of the whole line in characters; columns shrink to fit, long captions are cut with "...".
std::string RenderText(const Timeline& timeline, size_t width);

}  // namespace QUEX::Tandra::Timeline
