#include "photo_saver.h"

#include <errno.h>
#include <fcntl.h>
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

bool PhotoSaver::Save(uint32_t collaborationId, const uint8_t* data, size_t size, std::string* path,
                      std::string* error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    char name[96];
    std::snprintf(name, sizeof(name), "photo-%011u-%02zu%s", collaborationId, saved_.size() + 1,
                  ExtensionFor(data, size));
    const std::string finalPath = folder_ + "/" + name;
    inProgress_ = folder_ + "/." + name + ".part";
    int fd = open(inProgress_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write " + inProgress_ + ": " + strerror(errno);
        inProgress_.clear();
        return false;
    }
    size_t written = 0;
    while (written < size) {
        ssize_t n = write(fd, data + written, size - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *error = "cannot write " + finalPath + ": " + strerror(errno) + " (is the disk full?)";
            close(fd);
            unlink(inProgress_.c_str());
            inProgress_.clear();
            return false;
        }
        written += static_cast<size_t>(n);
    }
    // No fsync: the rename alone keeps readers from ever seeing a partial file under the final
    // name, and syncing every photo would halve the throughput for a crash guarantee nobody
    // asked for.
    if (close(fd) != 0 || rename(inProgress_.c_str(), finalPath.c_str()) != 0) {
        *error = "cannot finish " + finalPath + ": " + strerror(errno);
        unlink(inProgress_.c_str());
        inProgress_.clear();
        return false;
    }
    inProgress_.clear();
    saved_.push_back(finalPath);
    *path = finalPath;
    return true;
}

void PhotoSaver::Abandon()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!inProgress_.empty()) {
        unlink(inProgress_.c_str());
        inProgress_.clear();
    }
}

}  // namespace Tandra
}  // namespace QUEX
