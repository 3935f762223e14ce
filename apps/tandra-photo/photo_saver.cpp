#include "photo_saver.h"

#include "atomic_file.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace QUEX {
namespace Tandra {

const char* ExtensionFor(const uint8_t* data, size_t size)
{
    if (size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) {
        return ".jpg";
    }
    if (size >= 8 && memcmp(data, "\x89PNG\r\n\x1a\n", 8) == 0) {
        return ".png";
    }
    return ".bin";
}

bool PhotoSaver::Prepare(std::string* error)
{
    std::string partial;
    for (size_t slash = 0; slash != std::string::npos;) {
        slash = folder_.find('/', slash + 1);
        partial = folder_.substr(0, slash);
        if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
            *error = "cannot create the output folder " + partial + ": " + strerror(errno) + "; choose another with --out";
            return false;
        }
    }
    if (access(folder_.c_str(), W_OK) != 0) {
        *error = "the output folder " + folder_ + " is not writable: choose another with --out";
        return false;
    }
    return true;
}

bool PhotoSaver::Save(uint32_t collaborationId, const uint8_t* data, size_t size, int fd, std::string* path,
                      std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    char name[96];
    std::snprintf(name, sizeof(name), "photo-%011u-%02zu%s", collaborationId, saved_.size() + 1,
                  ExtensionFor(data, size));
    const std::string finalPath = folder_ + "/" + name;
    if (!Vex::WriteFileAtomically(finalPath, data, size, error, fd)) {
        return false;
    }
    saved_.push_back(finalPath);
    *path = finalPath;
    return true;
}

}  // namespace Tandra
}  // namespace QUEX
