// Whole-buffer reads and writes on file descriptors: the kernel may move fewer bytes than asked
// (a signal, a file system's own limit), so each call here loops until all are moved, the file
// ends, or a real error.
// Thread-safety: plain functions; the positional forms may share a descriptor across threads.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace Vex {

// Writes all len bytes at offset, or at the file position when offset is -1. False with errno
// set when a write failed (ENOSPC when the file takes no more bytes).
bool WriteAll(int fd, const void* data, size_t len, off_t offset = -1);

// Reads len bytes from offset, stopping early only where the file ends; *got is the count read.
// False with errno set when a read failed (*got then counts the bytes read before it).
bool ReadAllAt(int fd, void* data, size_t len, off_t offset, size_t* got);

}  // namespace Vex
