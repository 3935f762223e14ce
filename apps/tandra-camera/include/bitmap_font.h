// A built-in 5x7 capitals font for writing on generated photos without a font library: digits,
// capital letters (small letters are drawn as capitals) and the punctuation of dates, times and
// names; anything else is drawn as '?'.
// Thread-safety: pure functions on the caller's pixels.
#pragma once

#include <cstdint>
#include <string>

namespace QUEX::Tandra::CameraApp {

struct Rgb {
    uint8_t r, g, b;
};

// An RGB image the caller owns: packed 3 bytes a pixel, rows of width*3 bytes.
struct RgbImage {
    uint8_t* pixels;
    uint32_t width;
    uint32_t height;
};

constexpr uint32_t GLYPH_WIDTH = 5;
constexpr uint32_t GLYPH_HEIGHT = 7;
constexpr uint32_t GLYPH_ADVANCE = GLYPH_WIDTH + 1;  // one column of space between letters

// Width in pixels of text drawn at scale (each font pixel becomes scale x scale).
uint32_t TextWidth(const std::string& text, uint32_t scale);
// Draws text with its top-left corner at (x, y), clipped to the image.
void DrawText(RgbImage image, int64_t x, int64_t y, uint32_t scale, Rgb colour, const std::string& text);
// Fills a rectangle, clipped to the image.
void FillRect(RgbImage image, int64_t x, int64_t y, int64_t w, int64_t h, Rgb colour);

}  // namespace QUEX::Tandra::CameraApp
