// FolderSource: the image files of one folder, sent as they are (no re-encoding), in name order,
// starting again from the first when more photos are asked for than there are files.
// Thread-safety: one thread at a time. The file list is read once, at Open.
#pragma once

#include <string>
#include <vector>

#include "photo_source.h"

namespace QUEX::Tandra::CameraApp {

class FolderSource : public PhotoSource {
public:
    explicit FolderSource(std::string folder);

    bool Open(std::string* error) override;
    int32_t Capture(uint32_t index, Photo& photo, std::string* error) override;
    std::string Describe() const override;

    const std::vector<std::string>& Files() const { return files_; }  // full paths, in order

private:
    std::string folder_;
    std::vector<std::string> files_;
};

// True for the extensions of image files a camera or gallery produces (case-insensitive).
bool IsImageFileName(const std::string& name);

}  // namespace QUEX::Tandra::CameraApp
