#include "photo_writer.h"

#include "atomic_file.h"

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
    if (!Vex::WriteFileAtomically(final, photo.Bytes(), photo.size, error)) {
        return false;
    }
    *path = final;
    return true;
}

}  // namespace QUEX::Tandra::CameraApp
