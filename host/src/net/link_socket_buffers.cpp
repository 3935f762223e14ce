#include "link_socket_buffers.h"

#include <sys/socket.h>

#include <fstream>

namespace QUEX {
namespace Tandra {

size_t LinkSocketBufferFor(size_t rmemMax, size_t wmemMax)
{
    return rmemMax >= LINK_SOCKET_BUFFER && wmemMax >= LINK_SOCKET_BUFFER ? LINK_SOCKET_BUFFER : 0;
}

size_t ReadSysctlBytes(const std::string& path)
{
    std::ifstream in(path);
    unsigned long long value = 0;
    if (!(in >> value)) {
        return 0;
    }
    return static_cast<size_t>(value);
}

void SizeLinkSocketBuffers(int socketFd)
{
    static const size_t size = LinkSocketBufferFor(ReadSysctlBytes("/proc/sys/net/core/rmem_max"),
                                                   ReadSysctlBytes("/proc/sys/net/core/wmem_max"));
    if (size == 0) {
        return;
    }
    // A refusal leaves auto-tuning on, which still works: nothing to report.
    const int value = static_cast<int>(size);
    setsockopt(socketFd, SOL_SOCKET, SO_RCVBUF, &value, sizeof(value));
    setsockopt(socketFd, SOL_SOCKET, SO_SNDBUF, &value, sizeof(value));
}

}  // namespace Tandra
}  // namespace QUEX
