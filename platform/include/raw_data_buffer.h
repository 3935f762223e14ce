// RawDataBuffer: memory a receiver fills in place (a socket read, a decryption) whose payload
// then becomes a sealed memfd RawDataBlock without a copy. The buffer is one contiguous range:
// a prefix kept apart (a header of the sender's that is not handed on) and right after it, on a
// page boundary, the payload, which lives in a memfd mapped writable while it is filled. Seal
// swaps that mapping for a read-only one and seals the memfd, so a parcel can pass the payload
// to another process as a descriptor: MessageParcel::WriteRawData(pointer) recognises the
// sealed payload's address and takes the block instead of copying it.
// Copies per payload byte: none here (the filler's write is the only one); the pages are
// taken in one call when the buffer is created (no fault per page while it is filled), and
// after Seal they count in this process's resident set only once read again.
// Thread-safety: one filler; Seal once, after the filling is done. The block is immutable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "raw_data_block.h"

namespace Vex {

class RawDataBuffer {
public:
    // Null (error set) when the kernel refuses the memfd or the mapping. REQUIRES: prefix
    // smaller than a page.
    static std::unique_ptr<RawDataBuffer> Create(size_t prefix, size_t payload, std::string* error);
    ~RawDataBuffer();
    RawDataBuffer(const RawDataBuffer&) = delete;
    RawDataBuffer& operator=(const RawDataBuffer&) = delete;

    // prefix + payload bytes: writable until Seal, readable as long as the buffer lives.
    uint8_t* Data() const { return start_; }
    size_t Size() const { return prefix_ + payload_; }
    // The payload as a sealed, shareable block, mapped at Data() + prefix. The prefix stays
    // readable; the payload is read-only from now on. Null (error set) when sealing failed;
    // the buffer is then still readable as it was, unless Readable() says otherwise (the kernel
    // refused to map it again).
    std::shared_ptr<const RawDataBlock> Seal(std::string* error);
    bool Readable() const { return readable_; }

private:
    RawDataBuffer() = default;
    uint8_t* region_ = nullptr;  // the prefix page, then the payload's pages
    size_t regionSize_ = 0;
    uint8_t* start_ = nullptr;
    size_t prefix_ = 0;
    size_t payload_ = 0;
    int fd_ = -1;
    bool sealed_ = false;
    bool readable_ = true;
};

}  // namespace Vex
