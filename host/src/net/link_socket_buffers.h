// Socket buffer sizes for link connections. A photo is one message of megabytes that starts
// after the link has been idle; with the kernel's auto-tuned buffers such a message starts on a
// small receive window and the two I/O threads take turns waiting for each other: the link part
// of a 32 MiB photo took about 55 ms on loopback against 43 ms with fixed 4 MiB buffers (it is
// the receive buffer that counts; the send buffer alone changed nothing).
// Fixing a buffer size turns auto-tuning off for that socket, and the kernel silently caps the
// size at net.core.rmem_max / wmem_max, so the buffers are fixed only where the system allows
// the whole size; elsewhere auto-tuning stays, which beats a capped fixed buffer.
// Thread-safety: the functions keep no state apart from the limits, read once per process
// (thread-safe static initialisation).
#pragma once

#include <cstddef>
#include <string>

namespace QUEX {
namespace Tandra {

// The size asked of both buffers of a link connection.
constexpr size_t LINK_SOCKET_BUFFER = size_t{4} << 20;

// The buffer size to fix for limits rmemMax and wmemMax (bytes), or 0 to keep auto-tuning.
size_t LinkSocketBufferFor(size_t rmemMax, size_t wmemMax);

// A limit read from a /proc/sys file: its number, or 0 when unreadable or not a number.
size_t ReadSysctlBytes(const std::string& path);

// Fixes both buffers of a link connection's socket (its descriptor) where this system allows it.
// Takes the bare descriptor so that callers and tests need no socket library.
void SizeLinkSocketBuffers(int socketFd);

}  // namespace Tandra
}  // namespace QUEX
