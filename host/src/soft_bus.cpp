// The default file send of a bus: the file is read whole, then sent as one message.
#include "soft_bus.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "fd_io.h"
#include "host_types.h"

namespace QUEX {
namespace Tandra {

int32_t SoftBus::SendDataMessageFromFile(int32_t channelId, int32_t ctrlSessionId, const char* head,
                                         uint32_t headLen, int fd, uint32_t len, uint32_t type, bool isFirst)
{
    const uint64_t total = uint64_t{headLen} + len;
    if ((head == nullptr && headLen > 0) || fd < 0 || total > UINT32_MAX) {
        return HOST_ERR_INVALID_PARAM;
    }
    std::unique_ptr<char[]> message(new char[total]);
    if (headLen > 0) {
        std::memcpy(message.get(), head, headLen);
    }
    char* body = message.get() + headLen;
    size_t got = 0;
    if (!Vex::ReadAllAt(fd, body, len, 0, &got)) {
        return HOST_ERR_SEND_FAILED;
    }
    std::memset(body + got, 0, len - got);
    return SendDataMessage(channelId, ctrlSessionId, message.get(), static_cast<uint32_t>(total), type, isFirst);
}

}  // namespace Tandra
}  // namespace QUEX
