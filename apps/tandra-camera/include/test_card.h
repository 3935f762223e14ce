// The generated photo: a test card of colour bars, grey steps and gradients with the time, the
// device name and the photo number written on it, and a marker whose place moves with the photo
// number, so that even a thumbnail tells two photos apart.
// Thread-safety: a pure function on the caller's pixels.
#pragma once

#include <cstdint>
#include <string>

#include "bitmap_font.h"

namespace QUEX::Tandra::CameraApp {

struct CardText {
    std::string deviceName;
    std::string time;          // already formatted, e.g. "2024-05-01 12:34:56"
    uint32_t photoNumber = 1;  // as the user counts: 1 for the first photo
};

void DrawTestCard(RgbImage image, const CardText& text);

}  // namespace QUEX::Tandra::CameraApp
