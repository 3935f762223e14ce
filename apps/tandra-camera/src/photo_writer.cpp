#include "photo_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace QUEX::Tandra::CameraApp {

PhotoWriter::PhotoWriter(std::string folder, std::string prefix)
    : folder_(std::move(folder)), prefix_(std::move(prefix))
{
}

bool PhotoWriter::Prepare(std::string* error) const
{
    std::error_code ec;
    std::filesystem::create_directories(folder_, ec);
    if (ec || !std::filesystem::is_directory(folder_, ec)) {
        *error = "cannot use " + folder_ + " as the photo folder: " + (ec ? ec.message() : "not a folder") +
                 " (choose another with --out)";
        return false;
    }
    return true;
}

std::string PhotoWriter::PathFor(uint32_t index, const std::string& extension) const
{
    char number[16];
    std::snprintf(number, sizeof(number), "%04u", index + 1);
    return (std::filesystem::path(folder_) / (prefix_ + number + extension)).string();
}

bool PhotoWriter::Save(uint32_t index, const Photo& photo, std::string* path, std::string* error) const
{
    std::string final = PathFor(index, photo.extension);
    std::string temporary = final + ".part";
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot create " + temporary + ": " + std::strerror(errno) + " (is the photo folder writable?)";
        return false;
    }
    size_t done = 0;
    while (done < photo.size) {
        ssize_t n = write(fd, photo.Bytes() + done, photo.size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *error = "cannot write " + temporary + ": " + std::strerror(n < 0 ? errno : ENOSPC) +
                     " (free some space in the photo folder)";
            close(fd);
            unlink(temporary.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0 || rename(temporary.c_str(), final.c_str()) != 0) {
        *error = "cannot save " + final + ": " + std::strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    *path = final;
    return true;
}

}  // namespace QUEX::Tandra::CameraApp
