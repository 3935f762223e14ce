// RawDataBuffer: bytes a receiver writes in pieces (a socket read, a decryption) whose payload
// then becomes a sealed memfd RawDataBlock without another copy. The layout: a prefix kept
// apart (a header of the sender's that is not handed on), then the payload, which lives in a
// memfd. Write puts each piece where it belongs: prefix bytes into a private page, payload
// bytes into the memfd by the kernel (pwrite). Seal seals the memfd and maps it read-only
// right after the prefix, so Data() is one contiguous range and a parcel can pass the payload
// to another process as a descriptor: MessageParcel::WriteRawData(pointer) recognises the
// sealed payload's address and takes the block instead of copying it.
// Why the kernel writes the payload: the filler reads into a small buffer it reuses, which
// stays in its caches; a fresh writable mapping of megabytes would instead cost a fault per
// page, and on a virtual machine with shadow page tables a multiple of the copy itself.
// Copies per payload byte: one, the kernel's, from the filler's buffer into the memfd.
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
    // Null (error set) when the kernel refuses the memfd or the address range. REQUIRES: prefix
    // smaller than a page.
    static std::unique_ptr<RawDataBuffer> Create(size_t prefix, size_t payload, std::string* error);
    ~RawDataBuffer();
    RawDataBuffer(const RawDataBuffer&) = delete;
    RawDataBuffer& operator=(const RawDataBuffer&) = delete;

    // Writes len bytes at offset (counted from the start of the prefix). False (error set)
    // when the range lies outside prefix + payload, after Seal, or when the kernel refuses.
    bool Write(size_t offset, const void* data, size_t len, std::string* error);
    // prefix + payload bytes, readable from Seal on (also when it failed, if Readable());
    // null before.
    const uint8_t* Data() const { return sealed_ || mapped_ ? start_ : nullptr; }
    size_t Size() const { return prefix_ + payload_; }
    // The payload as a sealed, shareable block, mapped at Data() + prefix. Null (error set)
    // when sealing failed; the bytes are then still readable at Data(), unless Readable() says
    // otherwise (the kernel refused to map them).
    std::shared_ptr<const RawDataBlock> Seal(std::string* error);
    bool Readable() const { return mapped_; }

private:
    RawDataBuffer() = default;
    uint8_t* region_ = nullptr;  // the prefix page, then room for the payload's mapping
    size_t regionSize_ = 0;
    uint8_t* start_ = nullptr;
    size_t prefix_ = 0;
    size_t payload_ = 0;
    int fd_ = -1;
    bool sealed_ = false;
    bool sealTried_ = false;
    bool mapped_ = false;
};

}  // namespace Vex
