// PhotoSource: where the camera application's photos come from (a V4L2 camera, a folder of image
// files, or a generated test card), and ChoosePhotoSource, which picks the first that works in
// that order of preference and says why it passed over the others.
// Thread-safety: a source is used by one thread at a time; distinct sources are independent.
// Photo bytes: the caller owns one Photo and hands it to every Capture, so its buffer grows to the
// largest photo once and is reused; Capture writes the photo straight into it (copies per byte:
// camera MJPEG 1 from the driver's mapped buffer, camera YUYV 1 into planes then the encoder's
// output, folder 1 read from the file, generated 0 besides the encoder's output).
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace QUEX::Tandra::CameraApp {

// One photo's bytes. data grows and is never shrunk (shrinking and growing again would zero-fill
// pages every photo); only the first `size` bytes are the photo.
struct Photo {
    std::vector<uint8_t> data;
    size_t size = 0;
    std::string extension = ".jpg";  // of the photo's format, for the file name: ".jpg", ".png", ...

    const uint8_t* Bytes() const { return data.data(); }
    // Makes room for at least n bytes without touching what is already there.
    uint8_t* Reserve(size_t n);
};

// Result codes of Open and Capture.
enum PhotoResult : int32_t {
    PHOTO_OK = 0,
    PHOTO_ERR_UNAVAILABLE = 1,  // the source cannot be used here (no camera, no folder, no files)
    PHOTO_ERR_NOT_OPEN = 2,     // Capture before a successful Open
    PHOTO_ERR_CAPTURE = 3,      // the camera gave no usable frame
    PHOTO_ERR_IO = 4,           // a file could not be read
    PHOTO_ERR_ENCODE = 5,       // the JPEG encoder failed
};

class PhotoSource {
public:
    virtual ~PhotoSource() = default;
    PhotoSource(const PhotoSource&) = delete;
    PhotoSource& operator=(const PhotoSource&) = delete;

    // Makes the source ready; false with a sentence for the user in *error.
    virtual bool Open(std::string* error) = 0;
    // Fills photo with photo number `index` (0-based); PHOTO_OK or a code with *error set.
    virtual int32_t Capture(uint32_t index, Photo& photo, std::string* error) = 0;
    // What the user is looking at, e.g. "camera /dev/video0 (MJPEG 1280x720)"; valid after Open.
    virtual std::string Describe() const = 0;

protected:
    PhotoSource() = default;
};

enum class SourceKind { Auto, Camera, Folder, Generated };

struct PhotoSourceOptions {
    SourceKind kind = SourceKind::Auto;
    std::string cameraPath;  // a /dev/videoN; empty: the first usable video* in cameraDir
    std::string cameraDir = "/dev";
    std::string folder;                 // image files to send as they are; empty: no folder source
    std::string deviceName = "tandra";  // printed on the test card
    uint32_t width = 1280;              // asked of the camera; size of the test card
    uint32_t height = 720;
    uint64_t targetBytes = 0;            // generated photos are padded up to this size; 0: natural
    int quality = 90;                    // JPEG quality of encoded photos (1-100)
    uint32_t settleFrames = 10;          // camera frames dropped while exposure settles
    std::function<std::time_t()> clock;  // wall time on the test card; empty: the system clock
};

struct SourceChoice {
    std::unique_ptr<PhotoSource> source;  // opened; null when no allowed source works
    std::vector<std::string> skipped;     // why each more preferred source was passed over
};

// Auto tries the camera, then the folder (when one is given), then generated photos; any other
// kind tries that source only.
SourceChoice ChoosePhotoSource(const PhotoSourceOptions& options);

// Parses "1280x720"; false on anything else or a zero side.
bool ParseImageSize(const std::string& text, uint32_t* width, uint32_t* height);
// Parses "4096", "64k", "4MiB", "1.5M" (binary units) into bytes; false on anything else.
bool ParseByteSize(const std::string& text, uint64_t* bytes);

}  // namespace QUEX::Tandra::CameraApp
