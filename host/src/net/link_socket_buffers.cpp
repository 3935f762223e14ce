#include "link_socket_buffers.h"

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

void SizeLinkSocketBuffers(asio::ip::tcp::socket& socket)
{
    static const size_t size = LinkSocketBufferFor(ReadSysctlBytes("/proc/sys/net/core/rmem_max"),
                                                   ReadSysctlBytes("/proc/sys/net/core/wmem_max"));
    if (size == 0) {
        return;
    }
    asio::error_code ignored;
    socket.set_option(asio::socket_base::receive_buffer_size(static_cast<int>(size)), ignored);
    socket.set_option(asio::socket_base::send_buffer_size(static_cast<int>(size)), ignored);
}

}  // namespace Tandra
}  // namespace QUEX
