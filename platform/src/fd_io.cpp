#include "fd_io.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Vex {

bool WriteAll(int fd, const void* data, size_t len, off_t offset)
{
    const auto* bytes = static_cast<const uint8_t*>(data);
    size_t done = 0;
    while (done < len) {
        ssize_t n = offset < 0 ? write(fd, bytes + done, len - done)
                               : pwrite(fd, bytes + done, len - done, offset + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = ENOSPC;
            }
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool ReadAllAt(int fd, void* data, size_t len, off_t offset, size_t* got)
{
    auto* bytes = static_cast<uint8_t*>(data);
    *got = 0;
    while (*got < len) {
        ssize_t n = pread(fd, bytes + *got, len - *got, offset + static_cast<off_t>(*got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        *got += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace Vex
