// V4l2Source: a V4L2 camera (/dev/videoN) streamed through memory-mapped driver buffers. Takes
// MJPEG frames as they are where the camera offers them, else YUYV frames encoded to JPEG; drops
// the first frames while exposure settles, and before each photo drops frames that were queued
// up while nobody was taking photos, so a photo shows the moment it was asked for.
// Thread-safety: one thread at a time. The planes for YUYV encoding are one reused buffer.
#pragma once

#include <string>
#include <vector>

#include "jpeg_encoder.h"
#include "photo_source.h"

namespace QUEX::Tandra::CameraApp {

class V4l2Source : public PhotoSource {
public:
    V4l2Source(std::string devicePath, const PhotoSourceOptions& options);
    ~V4l2Source() override;

    bool Open(std::string* error) override;
    int32_t Capture(uint32_t index, Photo& photo, std::string* error) override;
    std::string Describe() const override;

private:
    struct Mapping {
        void* start = nullptr;
        size_t length = 0;
    };
    bool Fail(const std::string& what, std::string* error);
    bool StartStreaming(std::string* error);
    // Waits for the next frame and hands its buffer index and length; false on time-out or error.
    bool Dequeue(uint32_t* buffer, uint32_t* used, std::string* error);
    bool Requeue(uint32_t buffer, std::string* error);
    void DropQueuedFrames();
    int32_t Convert(const Mapping& frame, uint32_t used, Photo& photo, std::string* error);
    void Close();

    std::string path_;
    PhotoSourceOptions options_;
    int fd_ = -1;
    bool mjpeg_ = false;
    bool streaming_ = false;
    bool settled_ = false;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    uint32_t bytesPerLine_ = 0;
    std::vector<Mapping> buffers_;
    std::vector<uint8_t> planes_;
    JpegEncoder encoder_;
};

// The video* device nodes of a folder such as /dev, in number order.
std::vector<std::string> ListVideoDevices(const std::string& folder);

}  // namespace QUEX::Tandra::CameraApp
