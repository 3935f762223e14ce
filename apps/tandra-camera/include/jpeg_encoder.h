// JpegEncoder: one TurboJPEG compressor, kept for the life of a source so that every photo reuses
// its state, encoding straight into the caller's Photo buffer (no intermediate copy). Also pads a
// JPEG up to a target size with application segments, which every decoder skips: benchmarks ask for
// photos of 1-128 MiB without paying to encode that many pixels.
// Thread-safety: one thread at a time per encoder.
#pragma once

#include <cstdint>
#include <string>

#include "photo_source.h"

namespace QUEX::Tandra::CameraApp {

class JpegEncoder {
public:
    JpegEncoder();
    ~JpegEncoder();
    JpegEncoder(const JpegEncoder&) = delete;
    JpegEncoder& operator=(const JpegEncoder&) = delete;

    // Packed RGB, 3 bytes a pixel, rows of width*3 bytes; 4:2:0 chroma.
    bool EncodeRgb(const uint8_t* rgb, uint32_t width, uint32_t height, int quality, Photo& out, std::string* error);
    // Planar 4:2:2 YUV (Y: width x height, U and V: width/2 x height each), as cameras deliver
    // after de-interleaving YUYV; no colour conversion is needed.
    bool EncodeYuv422(const uint8_t* const planes[3], uint32_t width, uint32_t height, int quality, Photo& out,
                      std::string* error);

private:
    bool Finish(int rc, unsigned long size, Photo& out, std::string* error);
    void* handle_ = nullptr;
};

// Grows the JPEG in photo to exactly target bytes by inserting application (APP15) segments right after
// the start-of-image marker, filled with pseudo-random bytes derived from seed (incompressible, so
// a transport that compresses cannot cheat a benchmark). Leaves the photo alone when it is already
// within 4 bytes of the target or larger. Moves the encoded bytes once.
void PadJpegToSize(Photo& photo, uint64_t target, uint32_t seed);

}  // namespace QUEX::Tandra::CameraApp
