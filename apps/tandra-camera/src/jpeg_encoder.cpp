#include "jpeg_encoder.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cstring>

namespace QUEX::Tandra::CameraApp {

namespace {

constexpr uint8_t MARKER = 0xFF;
constexpr uint8_t APP15 = 0xEF;                               // application data no decoder claims: skipped by all
constexpr size_t MAX_SEGMENT_LENGTH = 65535;                  // the length field counts itself
constexpr size_t MAX_SEGMENT_TOTAL = MAX_SEGMENT_LENGTH + 2;  // plus the marker
constexpr size_t MIN_SEGMENT_TOTAL = 4;                       // marker and an empty length field

}  // namespace

uint8_t* Photo::Reserve(size_t n)
{
    if (data.size() < n) {
        data.resize(n);
    }
    return data.data();
}

JpegEncoder::JpegEncoder() : handle_(tjInitCompress()) {}

JpegEncoder::~JpegEncoder()
{
    if (handle_ != nullptr) {
        tjDestroy(handle_);
    }
}

bool JpegEncoder::Finish(int rc, unsigned long size, Photo& out, std::string* error)
{
    if (rc != 0) {
        *error = std::string("JPEG encoding failed: ") + tjGetErrorStr2(handle_);
        out.size = 0;
        return false;
    }
    out.size = size;
    out.extension = ".jpg";
    return true;
}

bool JpegEncoder::EncodeRgb(const uint8_t* rgb, uint32_t width, uint32_t height, int quality, Photo& out,
                            std::string* error)
{
    if (handle_ == nullptr) {
        *error = "JPEG encoder unavailable: libturbojpeg could not start";
        return false;
    }
    unsigned long capacity = tjBufSize(static_cast<int>(width), static_cast<int>(height), TJSAMP_420);
    unsigned char* buffer = out.Reserve(capacity);
    unsigned long size = capacity;
    int rc = tjCompress2(handle_, rgb, static_cast<int>(width), 0, static_cast<int>(height), TJPF_RGB, &buffer, &size,
                         TJSAMP_420, quality, TJFLAG_NOREALLOC | TJFLAG_FASTDCT);
    return Finish(rc, size, out, error);
}

bool JpegEncoder::EncodeYuv422(const uint8_t* const planes[3], uint32_t width, uint32_t height, int quality, Photo& out,
                               std::string* error)
{
    if (handle_ == nullptr) {
        *error = "JPEG encoder unavailable: libturbojpeg could not start";
        return false;
    }
    unsigned long capacity = tjBufSize(static_cast<int>(width), static_cast<int>(height), TJSAMP_422);
    unsigned char* buffer = out.Reserve(capacity);
    unsigned long size = capacity;
    const unsigned char* src[3] = {planes[0], planes[1], planes[2]};
    int rc = tjCompressFromYUVPlanes(handle_, src, static_cast<int>(width), nullptr, static_cast<int>(height),
                                     TJSAMP_422, &buffer, &size, quality, TJFLAG_NOREALLOC | TJFLAG_FASTDCT);
    return Finish(rc, size, out, error);
}

void PadJpegToSize(Photo& photo, uint64_t target, uint32_t seed)
{
    if (photo.size < 2 || target < photo.size + MIN_SEGMENT_TOTAL) {
        return;
    }
    size_t padding = static_cast<size_t>(target - photo.size);
    uint8_t* base = photo.Reserve(static_cast<size_t>(target));
    std::memmove(base + 2 + padding, base + 2, photo.size - 2);

    // Split the padding into segments that are all at least the minimum, so any total of four
    // bytes or more comes out exact.
    size_t segments = (padding + MAX_SEGMENT_TOTAL - 1) / MAX_SEGMENT_TOTAL;
    size_t each = padding / segments;
    size_t extra = padding % segments;
    uint8_t* at = base + 2;
    uint32_t state = seed * 2654435761u + 0x9E3779B9u;
    for (size_t s = 0; s < segments; ++s) {
        size_t total = each + (s < extra ? 1 : 0);
        size_t length = total - 2;
        at[0] = MARKER;
        at[1] = APP15;
        at[2] = static_cast<uint8_t>(length >> 8);
        at[3] = static_cast<uint8_t>(length & 0xFF);
        for (size_t i = 4; i < total; i += sizeof(state)) {
            state ^= state << 13;  // xorshift32: cheap noise at memory speed, a word at a time
            state ^= state >> 17;
            state ^= state << 5;
            std::memcpy(at + i, &state, std::min(sizeof(state), total - i));
        }
        at += total;
    }
    photo.size = static_cast<size_t>(target);
}

}  // namespace QUEX::Tandra::CameraApp
