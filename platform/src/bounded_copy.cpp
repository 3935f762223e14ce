#include "bounded_copy.h"

#include <cstdint>
#include <cstring>

namespace Vex {

int BoundedCopy(void* dest, size_t destMax, const void* src, size_t count)
{
    if (dest == nullptr || destMax == 0) {
        return dest == nullptr ? EINVAL_AND_RESET : ERANGE_AND_RESET;
    }
    if (src == nullptr) {
        std::memset(dest, 0, destMax);
        return EINVAL_AND_RESET;
    }
    if (count > destMax) {
        std::memset(dest, 0, destMax);
        return ERANGE_AND_RESET;
    }
    if (count == 0) {
        return EOK;
    }
    auto d = reinterpret_cast<uintptr_t>(dest);
    auto s = reinterpret_cast<uintptr_t>(src);
    if ((d < s && d + count > s) || (s < d && s + count > d) || d == s) {
        std::memset(dest, 0, destMax);
        return EOVERLAP_AND_RESET;
    }
    std::memcpy(dest, src, count);
    return EOK;
}

}  // namespace Vex
