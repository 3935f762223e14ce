#include "atomic_file.h"

#include "fd_io.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/sendfile.h>
#include <unistd.h>

namespace Vex {

namespace {

// Copies size bytes from offset 0 of source to fd in the kernel. False with errno set; *copied
// tells how far it got (0 when the kernel cannot splice these two files at all).
bool SendWhole(int fd, int source, size_t size, size_t* copied)
{
    off_t offset = 0;
    while (static_cast<size_t>(offset) < size) {
        ssize_t n = sendfile(fd, source, &offset, size - static_cast<size_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;  // the source is shorter than it was said to be
            }
            *copied = static_cast<size_t>(offset);
            return false;
        }
    }
    *copied = size;
    return true;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const void* data, size_t size, std::string* error, int sourceFd)
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
    bool written = false;
    bool fromMemory = true;
    if (sourceFd >= 0 && size > 0) {
        size_t copied = 0;
        written = SendWhole(fd, sourceFd, size, &copied);
        // Unless the kernel cannot splice these files at all, a failure is the destination's.
        fromMemory = !written && copied == 0 && (errno == EINVAL || errno == ENOSYS || errno == ESPIPE);
    }
    if (fromMemory) {
        written = WriteAll(fd, data, size);
    }
    if (!written) {
        *error = "cannot write " + path + ": " + strerror(errno) + " (is the disk full?)";
        close(fd);
        unlink(temporary.c_str());
        return false;
    }
    if (close(fd) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
        *error = "cannot finish " + path + ": " + strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace Vex
