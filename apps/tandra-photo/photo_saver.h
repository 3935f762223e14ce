// PhotoSaver: writes each photo as it arrives into the output folder, atomically (a hidden
// temporary name, then the final one), so a reader never sees a partial file under a final
// name and a failed write leaves no temporary behind.
// Copies: the photo bytes are copied by the kernel from the memfd they arrived in, or written
// from the buffer they arrived in when there is none (no copy of ours either way).
// Thread-safety: one collaboration's photos come from one thread at a time; guarded anyway.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace QUEX {
namespace Tandra {

class PhotoSaver {
public:
    explicit PhotoSaver(std::string folder) : folder_(std::move(folder)) {}

    // Creates the folder when missing; false with *error otherwise.
    bool Prepare(std::string* error);
    // Saves one photo; its final path in *path. The name carries the collaboration and the
    // photo's number, and the extension its format (JPEG, PNG, or .bin when unknown). fd, when
    // not -1, holds the same bytes and is what the file is copied from.
    bool Save(uint32_t collaborationId, const uint8_t* data, size_t size, int fd, std::string* path,
              std::string* error);
    const std::vector<std::string>& Saved() const { return saved_; }

    PhotoSaver(const PhotoSaver&) = delete;
    PhotoSaver& operator=(const PhotoSaver&) = delete;

private:
    const std::string folder_;
    std::mutex mutex_;
    std::vector<std::string> saved_;
};

// The file extension that fits the bytes' format.
const char* ExtensionFor(const uint8_t* data, size_t size);

}  // namespace Tandra
}  // namespace QUEX
