#include "folder_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace QUEX::Tandra::CameraApp {

namespace {

constexpr const char* IMAGE_EXTENSIONS[] = {".jpg",  ".jpeg", ".png", ".gif",  ".webp", ".bmp",
                                            ".heic", ".heif", ".tif", ".tiff", ".avif"};

std::string LowerExtension(const std::string& name)
{
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        return {};
    }
    std::string ext = name.substr(dot);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace

bool IsImageFileName(const std::string& name)
{
    std::string ext = LowerExtension(name);
    return std::find_if(std::begin(IMAGE_EXTENSIONS), std::end(IMAGE_EXTENSIONS),
                        [&](const char* known) { return ext == known; }) != std::end(IMAGE_EXTENSIONS);
}

FolderSource::FolderSource(std::string folder) : folder_(std::move(folder)) {}

bool FolderSource::Open(std::string* error)
{
    namespace fs = std::filesystem;
    files_.clear();
    std::error_code ec;
    fs::directory_iterator it(folder_, ec);
    if (ec) {
        *error =
            "cannot read the photo folder " + folder_ + ": " + ec.message() + " (check the path given to --from-dir)";
        return false;
    }
    for (const fs::directory_entry& entry : it) {
        std::error_code typeError;
        if (entry.is_regular_file(typeError) && IsImageFileName(entry.path().filename().string())) {
            files_.push_back(entry.path().string());
        }
    }
    if (files_.empty()) {
        *error = "the photo folder " + folder_ +
                 " has no image files (.jpg, .jpeg, .png, ...): add some, or leave out --from-dir to use "
                 "generated photos";
        return false;
    }
    std::sort(files_.begin(), files_.end());
    return true;
}

int32_t FolderSource::Capture(uint32_t index, Photo& photo, std::string* error)
{
    if (files_.empty()) {
        *error = "the photo folder was not opened";
        return PHOTO_ERR_NOT_OPEN;
    }
    const std::string& path = files_[index % files_.size()];
    Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
        *error = "cannot read " + path + ": " + std::strerror(errno) + " (was it removed or renamed?)";
        return PHOTO_ERR_IO;
    }
    size_t size = static_cast<size_t>(st.st_size);
    uint8_t* buffer = photo.Reserve(size);
    size_t done = 0;
    while (done < size) {
        ssize_t n = read(fd.get(), buffer + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *error = "cannot read " + path + ": " + (n < 0 ? std::strerror(errno) : "the file shrank while reading");
            photo.size = 0;
            return PHOTO_ERR_IO;
        }
        done += static_cast<size_t>(n);
    }
    photo.size = size;
    photo.extension = LowerExtension(path);
    return PHOTO_OK;
}

std::string FolderSource::Describe() const
{
    return "folder " + folder_ + " (" + std::to_string(files_.size()) + " image file" +
           (files_.size() == 1 ? "" : "s") + ")";
}

}  // namespace QUEX::Tandra::CameraApp
