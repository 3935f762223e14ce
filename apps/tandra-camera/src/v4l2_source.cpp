#include "v4l2_source.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace QUEX::Tandra::CameraApp {

namespace {

constexpr uint32_t BUFFER_COUNT = 4;
constexpr int FRAME_TIMEOUT_MS = 3000;

int Ioctl(int fd, unsigned long request, void* arg)
{
    int rc;
    do {
        rc = ioctl(fd, request, arg);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

std::string FourCc(uint32_t format)
{
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i) {
        text[i] = static_cast<char>((format >> (8 * i)) & 0xFF);
    }
    return text;
}

}  // namespace

std::vector<std::string> ListVideoDevices(const std::string& folder)
{
    std::vector<std::pair<unsigned long, std::string>> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
        std::string name = entry.path().filename().string();
        if (name.size() > 5 && name.compare(0, 5, "video") == 0 &&
            std::all_of(name.begin() + 5, name.end(), [](unsigned char c) { return std::isdigit(c); })) {
            found.emplace_back(std::stoul(name.substr(5)), entry.path().string());
        }
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> paths;
    for (auto& [number, path] : found) {
        paths.push_back(std::move(path));
    }
    return paths;
}

V4l2Source::V4l2Source(std::string devicePath, const PhotoSourceOptions& options)
    : path_(std::move(devicePath)), options_(options)
{
}

V4l2Source::~V4l2Source()
{
    Close();
}

bool V4l2Source::Fail(const std::string& what, std::string* error)
{
    *error = "camera " + path_ + ": " + what;
    Close();
    return false;
}

bool V4l2Source::Open(std::string* error)
{
    Close();
    fd_ = open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
        int err = errno;
        return Fail(std::string("cannot open it: ") + std::strerror(err) +
                        (err == EACCES ? " (add yourself to the video group)" : ""),
                    error);
    }
    v4l2_capability caps{};
    if (Ioctl(fd_, VIDIOC_QUERYCAP, &caps) != 0) {
        return Fail(std::string("not a V4L2 video device (") + std::strerror(errno) + ")", error);
    }
    uint32_t deviceCaps = (caps.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? caps.device_caps : caps.capabilities;
    if ((deviceCaps & V4L2_CAP_VIDEO_CAPTURE) == 0 || (deviceCaps & V4L2_CAP_STREAMING) == 0) {
        // Cameras also expose metadata nodes; those are not a camera to take photos with.
        return Fail("does not capture video by streaming (a metadata or output node?)", error);
    }

    bool hasMjpeg = false;
    bool hasYuyv = false;
    v4l2_fmtdesc desc{};
    desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    while (Ioctl(fd_, VIDIOC_ENUM_FMT, &desc) == 0) {
        hasMjpeg |= desc.pixelformat == V4L2_PIX_FMT_MJPEG || desc.pixelformat == V4L2_PIX_FMT_JPEG;
        hasYuyv |= desc.pixelformat == V4L2_PIX_FMT_YUYV;
        ++desc.index;
    }
    if (!hasMjpeg && !hasYuyv) {
        return Fail("offers neither MJPEG nor YUYV frames", error);
    }

    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = options_.width;
    format.fmt.pix.height = options_.height;
    format.fmt.pix.pixelformat = hasMjpeg ? V4L2_PIX_FMT_MJPEG : V4L2_PIX_FMT_YUYV;
    format.fmt.pix.field = V4L2_FIELD_ANY;
    if (Ioctl(fd_, VIDIOC_S_FMT, &format) != 0) {
        return Fail(std::string("refused the frame format (") + std::strerror(errno) + ")", error);
    }
    // The driver picks the nearest size it supports; it may also swap MJPEG for JPEG.
    uint32_t got = format.fmt.pix.pixelformat;
    if (got != V4L2_PIX_FMT_MJPEG && got != V4L2_PIX_FMT_JPEG && got != V4L2_PIX_FMT_YUYV) {
        return Fail("gives frames as " + FourCc(got) + ", not MJPEG or YUYV", error);
    }
    mjpeg_ = got != V4L2_PIX_FMT_YUYV;
    width_ = format.fmt.pix.width;
    height_ = format.fmt.pix.height;
    bytesPerLine_ = std::max(format.fmt.pix.bytesperline, width_ * 2);
    if (!mjpeg_ && (width_ < 2 || width_ % 2 != 0 || height_ == 0)) {
        return Fail("gives YUYV frames of an odd size " + std::to_string(width_) + "x" + std::to_string(height_),
                    error);
    }
    return StartStreaming(error);
}

bool V4l2Source::StartStreaming(std::string* error)
{
    v4l2_requestbuffers request{};
    request.count = BUFFER_COUNT;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (Ioctl(fd_, VIDIOC_REQBUFS, &request) != 0 || request.count < 2) {
        return Fail("cannot share frame buffers with the driver (is another program using the camera?)", error);
    }
    for (uint32_t i = 0; i < request.count; ++i) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = i;
        if (Ioctl(fd_, VIDIOC_QUERYBUF, &buffer) != 0) {
            return Fail(std::string("cannot query frame buffer (") + std::strerror(errno) + ")", error);
        }
        void* start = mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, buffer.m.offset);
        if (start == MAP_FAILED) {
            return Fail(std::string("cannot map frame buffer (") + std::strerror(errno) + ")", error);
        }
        buffers_.push_back({start, buffer.length});
        if (Ioctl(fd_, VIDIOC_QBUF, &buffer) != 0) {
            return Fail(std::string("cannot queue frame buffer (") + std::strerror(errno) + ")", error);
        }
    }
    v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (Ioctl(fd_, VIDIOC_STREAMON, &type) != 0) {
        return Fail(std::string("cannot start streaming (") + std::strerror(errno) + ")", error);
    }
    streaming_ = true;
    settled_ = false;
    if (!mjpeg_) {
        planes_.resize(static_cast<size_t>(width_) * height_ * 2);
    }
    return true;
}

bool V4l2Source::Dequeue(uint32_t* index, uint32_t* used, std::string* error)
{
    for (;;) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        if (Ioctl(fd_, VIDIOC_DQBUF, &buffer) == 0) {
            if ((buffer.flags & V4L2_BUF_FLAG_ERROR) != 0 || buffer.index >= buffers_.size()) {
                if (!Requeue(buffer.index, error)) {
                    return false;
                }
                continue;  // a damaged frame: wait for the next
            }
            *index = buffer.index;
            *used = buffer.bytesused;
            return true;
        }
        if (errno != EAGAIN) {
            *error = "camera " + path_ + ": lost while streaming (" + std::strerror(errno) + ")";
            return false;
        }
        pollfd waiter{fd_, POLLIN, 0};
        int ready = poll(&waiter, 1, FRAME_TIMEOUT_MS);
        if (ready == 0) {
            *error = "camera " + path_ + ": no frame within " + std::to_string(FRAME_TIMEOUT_MS / 1000) +
                     " s (is another program using the camera?)";
            return false;
        }
        if (ready < 0 && errno != EINTR) {
            *error = "camera " + path_ + ": waiting for a frame failed (" + std::strerror(errno) + ")";
            return false;
        }
    }
}

bool V4l2Source::Requeue(uint32_t index, std::string* error)
{
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    if (Ioctl(fd_, VIDIOC_QBUF, &buffer) != 0) {
        *error = "camera " + path_ + ": cannot give a frame buffer back (" + std::strerror(errno) + ")";
        return false;
    }
    return true;
}

void V4l2Source::DropQueuedFrames()
{
    for (;;) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        if (Ioctl(fd_, VIDIOC_DQBUF, &buffer) != 0) {
            return;  // EAGAIN: nothing stale left
        }
        std::string ignored;
        if (!Requeue(buffer.index, &ignored)) {
            return;
        }
    }
}

int32_t V4l2Source::Capture(uint32_t /*index*/, Photo& photo, std::string* error)
{
    if (!streaming_) {
        *error = "camera " + path_ + " was not opened";
        return PHOTO_ERR_NOT_OPEN;
    }
    uint32_t buffer = 0;
    uint32_t used = 0;
    if (!settled_) {
        for (uint32_t i = 0; i < options_.settleFrames; ++i) {
            if (!Dequeue(&buffer, &used, error) || !Requeue(buffer, error)) {
                return PHOTO_ERR_CAPTURE;
            }
        }
        settled_ = true;
    } else {
        DropQueuedFrames();
    }
    if (!Dequeue(&buffer, &used, error)) {
        return PHOTO_ERR_CAPTURE;
    }
    int32_t rc = Convert(buffers_[buffer], used, photo, error);
    if (!Requeue(buffer, error)) {
        return PHOTO_ERR_CAPTURE;
    }
    return rc;
}

int32_t V4l2Source::Convert(const Mapping& frame, uint32_t used, Photo& photo, std::string* error)
{
    const auto* bytes = static_cast<const uint8_t*>(frame.start);
    used = std::min<uint32_t>(used, static_cast<uint32_t>(frame.length));
    if (mjpeg_) {
        if (used < 4 || bytes[0] != 0xFF || bytes[1] != 0xD8) {
            *error = "camera " + path_ + ": sent a frame that is not a JPEG image";
            return PHOTO_ERR_CAPTURE;
        }
        std::memcpy(photo.Reserve(used), bytes, used);
        photo.size = used;
        photo.extension = ".jpg";
        return PHOTO_OK;
    }
    if (used < static_cast<uint64_t>(bytesPerLine_) * (height_ - 1) + width_ * 2) {
        *error = "camera " + path_ + ": sent a short frame (" + std::to_string(used) + " bytes)";
        return PHOTO_ERR_CAPTURE;
    }
    // YUYV is Y0 U Y1 V for each pair of pixels; the encoder wants the planes apart.
    uint8_t* y = planes_.data();
    uint8_t* u = y + static_cast<size_t>(width_) * height_;
    uint8_t* v = u + static_cast<size_t>(width_ / 2) * height_;
    for (uint32_t row = 0; row < height_; ++row) {
        const uint8_t* in = bytes + static_cast<size_t>(row) * bytesPerLine_;
        for (uint32_t pair = 0; pair < width_ / 2; ++pair) {
            *y++ = in[0];
            *u++ = in[1];
            *y++ = in[2];
            *v++ = in[3];
            in += 4;
        }
    }
    const uint8_t* planes[3] = {planes_.data(), planes_.data() + static_cast<size_t>(width_) * height_,
                                planes_.data() + static_cast<size_t>(width_) * height_ * 3 / 2};
    if (!encoder_.EncodeYuv422(planes, width_, height_, options_.quality, photo, error)) {
        return PHOTO_ERR_ENCODE;
    }
    return PHOTO_OK;
}

std::string V4l2Source::Describe() const
{
    return "camera " + path_ + " (" + (mjpeg_ ? "MJPEG " : "YUYV encoded as JPEG, ") + std::to_string(width_) + "x" +
           std::to_string(height_) + ")";
}

void V4l2Source::Close()
{
    if (fd_ >= 0 && streaming_) {
        v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        Ioctl(fd_, VIDIOC_STREAMOFF, &type);
    }
    streaming_ = false;
    for (const Mapping& mapping : buffers_) {
        munmap(mapping.start, mapping.length);
    }
    buffers_.clear();
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

}  // namespace QUEX::Tandra::CameraApp
