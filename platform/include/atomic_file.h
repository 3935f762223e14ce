// Writing a whole file so that no reader ever sees part of it under its final name: the bytes
// go to a hidden temporary name in the same folder (".<name>.part"), then take the final name
// by rename. On failure the temporary is removed. No fsync: the rename alone gives readers
// the guarantee, and syncing every photo would halve the throughput.
// Copies: the bytes are written straight from the caller's buffer, or copied by the kernel
// from a descriptor that holds them (no page of the caller's touched at all).
// Thread-safety: a plain function; distinct paths may be written from several threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Vex {

// True when path holds exactly the bytes; otherwise *error says what failed and what to do.
// sourceFd, when not -1, is a file whose first size bytes are the same as data's: the kernel
// copies them from there (sendfile), which for megabytes in a fresh mapping costs a fraction
// of writing from the mapping; data is used when the kernel cannot.
bool WriteFileAtomically(const std::string& path, const void* data, size_t size, std::string* error,
                         int sourceFd = -1);

}  // namespace Vex
