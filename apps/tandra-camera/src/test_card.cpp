#include "test_card.h"

#include <algorithm>

namespace QUEX::Tandra::CameraApp {

namespace {

constexpr Rgb BARS[] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                        {191, 0, 191},   {191, 0, 0},   {0, 0, 191}};
constexpr Rgb WHITE{255, 255, 255};
constexpr Rgb BLACK{0, 0, 0};
constexpr Rgb PANEL{24, 24, 32};
constexpr Rgb ACCENT{255, 200, 0};

// Hue ramp: red, yellow, green, cyan, blue, magenta and back, at full saturation.
Rgb Hue(uint32_t position, uint32_t span)
{
    uint32_t h = static_cast<uint32_t>(static_cast<uint64_t>(position) * 1536 / std::max<uint32_t>(span, 1)) % 1536;
    uint8_t f = static_cast<uint8_t>(h % 256);
    switch (h / 256) {
        case 0:
            return {255, f, 0};
        case 1:
            return {static_cast<uint8_t>(255 - f), 255, 0};
        case 2:
            return {0, 255, f};
        case 3:
            return {0, static_cast<uint8_t>(255 - f), 255};
        case 4:
            return {f, 0, 255};
        default:
            return {255, 0, static_cast<uint8_t>(255 - f)};
    }
}

}  // namespace

void DrawTestCard(RgbImage image, const CardText& text)
{
    const int64_t w = image.width;
    const int64_t h = image.height;
    const int64_t barsBottom = h * 6 / 10;
    const int64_t stepsBottom = h * 7 / 10;
    const int64_t greyBottom = h * 85 / 100;

    constexpr int64_t barCount = static_cast<int64_t>(std::size(BARS));
    for (int64_t i = 0; i < barCount; ++i) {
        FillRect(image, w * i / barCount, 0, w * (i + 1) / barCount - w * i / barCount, barsBottom, BARS[i]);
    }
    constexpr int64_t steps = 8;
    for (int64_t i = 0; i < steps; ++i) {
        uint8_t level = static_cast<uint8_t>(255 * i / (steps - 1));
        FillRect(image, w * i / steps, barsBottom, w * (i + 1) / steps - w * i / steps, stepsBottom - barsBottom,
                 {level, level, level});
    }
    for (int64_t x = 0; x < w; ++x) {
        uint8_t level = static_cast<uint8_t>(255 * x / std::max<int64_t>(w - 1, 1));
        FillRect(image, x, stepsBottom, 1, greyBottom - stepsBottom, {level, level, level});
        FillRect(image, x, greyBottom, 1, h - greyBottom, Hue(static_cast<uint32_t>(x), static_cast<uint32_t>(w)));
    }

    // Text panel in the middle of the bars, as large as fits.
    const std::string lines[] = {"TANDRA CAMERA", text.deviceName, "PHOTO " + std::to_string(text.photoNumber),
                                 text.time};
    size_t longest = 1;
    for (const std::string& line : lines) {
        longest = std::max(longest, line.size());
    }
    uint32_t scale = static_cast<uint32_t>(std::max<int64_t>(
        1, std::min<int64_t>(w * 8 / 10 / static_cast<int64_t>(longest * GLYPH_ADVANCE), barsBottom / 60)));
    const int64_t lineHeight = static_cast<int64_t>(GLYPH_HEIGHT + 3) * scale;
    const int64_t panelW = static_cast<int64_t>(longest * GLYPH_ADVANCE + 4) * scale;
    const int64_t panelH = lineHeight * static_cast<int64_t>(std::size(lines)) + 3 * scale;
    const int64_t panelX = (w - panelW) / 2;
    const int64_t panelY = std::max<int64_t>((barsBottom - panelH) / 2, 0);
    FillRect(image, panelX - scale, panelY - scale, panelW + 2 * scale, panelH + 2 * scale, WHITE);
    FillRect(image, panelX, panelY, panelW, panelH, PANEL);
    int64_t y = panelY + 2 * scale;
    for (size_t i = 0; i < std::size(lines); ++i) {
        const std::string& line = lines[i];
        int64_t x = panelX + (panelW - static_cast<int64_t>(TextWidth(line, scale))) / 2;
        DrawText(image, x + scale / 2 + 1, y + scale / 2 + 1, scale, BLACK, line);  // shadow
        DrawText(image, x, y, scale, i == 2 ? ACCENT : WHITE, line);
        y += lineHeight;
    }

    // The marker walks along the grey steps, one eighth of the width per photo; drawn last so that
    // the text panel of a tiny card cannot hide it.
    const int64_t marker = std::max<int64_t>((stepsBottom - barsBottom) / 2, 2);
    int64_t markerX = (w / steps) * static_cast<int64_t>((text.photoNumber - 1) % steps) + (w / steps - marker) / 2;
    FillRect(image, markerX, barsBottom + (stepsBottom - barsBottom - marker) / 2, marker, marker, ACCENT);
}

}  // namespace QUEX::Tandra::CameraApp
