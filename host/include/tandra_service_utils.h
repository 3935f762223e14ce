// TandraServiceUtils: small services of the host: collaboration ids, the local device's type,
// hexadecimal text.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace QUEX {
namespace Tandra {

class TandraServiceUtils {
public:
    // A collaboration id that no running collaboration holds (never 0). Ids count up, so one
    // comes back only after ReleaseCollaborationId and a wrap-around of the counter.
    static uint32_t ObtainIdleCollaborationId();
    // Lets an id be handed out again once its collaboration has ended.
    static void ReleaseCollaborationId(uint32_t collaborationId);
    static uint32_t GetLocalDeviceType();
    static std::string GetLocalNetworkId();
    static std::string GetLocalUdid();
    // Lower-case hexadecimal text without prefix, e.g. 14 -> "e".
    static std::string ConvertHexToString(uint32_t value);
};

}  // namespace Tandra
}  // namespace QUEX
