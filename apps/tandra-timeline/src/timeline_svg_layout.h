// Where each lane and mark of a timeline picture goes; shared by the SVG and the HTML page.
// Thread-safety: pure functions.
#pragma once

#include <string>
#include <vector>

#include "timeline_render.h"

namespace QUEX::Tandra::Timeline {

struct Mark {
    size_t lane = 0;
    size_t row = 0;  // captions that would overlap go on further rows of the lane
    double x = 0;
    bool captionLeft = false;  // near the right edge the caption goes before the mark
};

struct Layout {
    int width = 0;
    int height = 0;
    int plotLeft = 0;
    int plotRight = 0;
    int lanesBottom = 0;
    std::vector<int> laneTop;
    std::vector<int> laneHeight;
    std::vector<Mark> marks;  // one per event, same order
};

Layout LayOut(const Timeline& timeline, int width);
// The <svg> element; titles: native hover text (the HTML page has its own).
std::string SvgBody(const Timeline& timeline, const Layout& layout, const RenderOptions& options, bool titles);

}  // namespace QUEX::Tandra::Timeline
