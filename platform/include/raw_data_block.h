// RawDataBlock: one out-of-line raw data item of a MessageParcel (photo bytes), immutable once
// built. Either a heap buffer handed over by its writer, or a sealed memfd (no shrink, grow or
// write, seals locked) mapped read-only: the memfd form crosses a process boundary as a
// descriptor, and the receiver maps the same pages instead of reading bytes off a socket.
// Copies per byte: FromBytes makes one (the kernel's write into the memfd), Adopt and Map
// none; a transport sends a memfd block as it is and moves a heap block into a memfd first
// (one copy). A block sealed from a RawDataBuffer is found again by its address (FindShared),
// so bytes received in place travel on without any copy.
// Thread-safety: immutable after construction; any thread may read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Vex {

class RawDataBlock {
public:
    ~RawDataBlock();
    RawDataBlock(const RawDataBlock&) = delete;
    RawDataBlock& operator=(const RawDataBlock&) = delete;

    // Takes a heap buffer without copying.
    static std::shared_ptr<const RawDataBlock> Adopt(std::unique_ptr<uint8_t[]> data, size_t size);
    // Copies size bytes into a new sealed memfd; null (error set) when the kernel refuses.
    static std::shared_ptr<const RawDataBlock> FromBytes(const void* data, size_t size, std::string* error);
    // Maps a received memfd. Takes ownership of fd (closed on failure too). Refuses a
    // descriptor that is not a memfd sealed against shrink, grow and write, or is smaller
    // than size: a peer could otherwise change or cut the pages under the reader (SIGBUS).
    static std::shared_ptr<const RawDataBlock> Map(int fd, size_t size, std::string* error);

    // The live block sealed from a RawDataBuffer whose bytes are exactly [data, data + size),
    // or null.
    static std::shared_ptr<const RawDataBlock> FindShared(const void* data, size_t size);

    const uint8_t* Data() const { return data_; }
    size_t Size() const { return size_; }
    // The sealed memfd behind the block, or -1 for a heap block. Owned by the block.
    int SharedFd() const { return fd_; }

private:
    friend class RawDataBuffer;
    // Takes the sealed fd and its read-only mapping of mappedLength bytes, and registers the
    // block for FindShared.
    static std::shared_ptr<const RawDataBlock> AdoptSealed(int fd, const uint8_t* mapped, size_t size,
                                                           size_t mappedLength);
    RawDataBlock() = default;
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    int fd_ = -1;
    bool mapped_ = false;
    size_t mappedLength_ = 0;
    bool registered_ = false;
    std::unique_ptr<uint8_t[]> heap_;
};

}  // namespace Vex
