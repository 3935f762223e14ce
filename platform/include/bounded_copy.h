// BoundedCopy: a copy that refuses to overrun its destination. It fails cleanly (non-zero,
// destination zeroed up to destMax) when the source does not fit, a pointer is null or the
// ranges overlap; 0 (EOK) on success.
// Thread-safety: a pure function.
#pragma once

#include <cstddef>

namespace Vex {

constexpr int EOK = 0;
constexpr int ERANGE_AND_RESET = 162;
constexpr int EINVAL_AND_RESET = 150;
constexpr int EOVERLAP_AND_RESET = 182;

int BoundedCopy(void* dest, size_t destMax, const void* src, size_t count);

}  // namespace Vex
