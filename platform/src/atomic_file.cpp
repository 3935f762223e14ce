#include "atomic_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

namespace Vex {

bool WriteFileAtomically(const std::string& path, const void* data, size_t size, std::string* error)
{
    const size_t slash = path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string temporary = folder + "." + name + ".part";
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write " + temporary + ": " + strerror(errno) + " (is the folder there and writable?)";
        return false;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    size_t written = 0;
    while (written < size) {
        ssize_t n = write(fd, bytes + written, size - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *error = "cannot write " + path + ": " + strerror(n < 0 ? errno : ENOSPC) + " (is the disk full?)";
            close(fd);
            unlink(temporary.c_str());
            return false;
        }
        written += static_cast<size_t>(n);
    }
    if (close(fd) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
        *error = "cannot finish " + path + ": " + strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace Vex
