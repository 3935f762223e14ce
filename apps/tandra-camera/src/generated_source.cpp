#include "generated_source.h"

#include <ctime>

#include "test_card.h"

namespace QUEX::Tandra::CameraApp {

namespace {

// Beyond this a card is no longer a photo but a memory problem: 64 megapixels.
constexpr uint64_t MAX_PIXELS = 64ull << 20;

std::string FormatTime(std::time_t when)
{
    std::tm local{};
    localtime_r(&when, &local);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace

GeneratedSource::GeneratedSource(const PhotoSourceOptions& options) : options_(options) {}

bool GeneratedSource::Open(std::string* error)
{
    uint64_t pixels = static_cast<uint64_t>(options_.width) * options_.height;
    if (pixels == 0 || pixels > MAX_PIXELS) {
        *error = "cannot generate " + std::to_string(options_.width) + "x" + std::to_string(options_.height) +
                 " photos: choose a size between 1x1 and 64 megapixels (use --target-size for large files)";
        return false;
    }
    if (options_.quality < 1 || options_.quality > 100) {
        *error = "JPEG quality " + std::to_string(options_.quality) + " is out of range: choose 1 to 100";
        return false;
    }
    pixels_.resize(static_cast<size_t>(pixels) * 3);
    return true;
}

int32_t GeneratedSource::Capture(uint32_t index, Photo& photo, std::string* error)
{
    if (pixels_.empty()) {
        *error = "the generated-photo source was not opened";
        return PHOTO_ERR_NOT_OPEN;
    }
    std::time_t now = options_.clock ? options_.clock() : std::time(nullptr);
    DrawTestCard({pixels_.data(), options_.width, options_.height}, {options_.deviceName, FormatTime(now), index + 1});
    if (!encoder_.EncodeRgb(pixels_.data(), options_.width, options_.height, options_.quality, photo, error)) {
        return PHOTO_ERR_ENCODE;
    }
    if (options_.targetBytes > 0) {
        PadJpegToSize(photo, options_.targetBytes, index);
    }
    return PHOTO_OK;
}

std::string GeneratedSource::Describe() const
{
    std::string text = "generated test card " + std::to_string(options_.width) + "x" + std::to_string(options_.height);
    if (options_.targetBytes > 0) {
        text += ", padded to " + std::to_string(options_.targetBytes) + " bytes";
    }
    return text;
}

}  // namespace QUEX::Tandra::CameraApp
