// GeneratedSource: photos drawn as a test card and encoded as JPEG, for devices without a camera
// and for tests and benchmarks; optionally padded to a target size (see PadJpegToSize).
// Thread-safety: one thread at a time. The card's pixels live in one buffer reused by every photo.
#pragma once

#include <vector>

#include "jpeg_encoder.h"
#include "photo_source.h"

namespace QUEX::Tandra::CameraApp {

class GeneratedSource : public PhotoSource {
public:
    explicit GeneratedSource(const PhotoSourceOptions& options);

    bool Open(std::string* error) override;
    int32_t Capture(uint32_t index, Photo& photo, std::string* error) override;
    std::string Describe() const override;

private:
    PhotoSourceOptions options_;
    JpegEncoder encoder_;
    std::vector<uint8_t> pixels_;
};

}  // namespace QUEX::Tandra::CameraApp
