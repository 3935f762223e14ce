// Receive buffers whose payload is written into a memfd piece by piece and sealed once complete.
#include "raw_data_buffer.h"

#include "fd_io.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Vex {

namespace {

size_t PageSize()
{
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

size_t RoundUp(size_t n, size_t page)
{
    return (n + page - 1) / page * page;
}

std::string Errno(const char* what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

std::unique_ptr<RawDataBuffer> RawDataBuffer::Create(size_t prefix, size_t payload, std::string* error)
{
    const size_t page = PageSize();
    if (prefix >= page || payload == 0) {
        *error = "raw data buffer: prefix of a page or more, or no payload";
        return nullptr;
    }
    std::unique_ptr<RawDataBuffer> buffer(new RawDataBuffer());
    buffer->prefix_ = prefix;
    buffer->payload_ = payload;
    buffer->fd_ = memfd_create("vex-raw-data", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (buffer->fd_ < 0) {
        *error = Errno("memfd_create");
        return nullptr;
    }
    if (ftruncate(buffer->fd_, static_cast<off_t>(payload)) != 0) {
        *error = Errno("sizing memfd");
        return nullptr;
    }
    // One reservation so that the prefix and the payload end up contiguous: the prefix at the
    // end of an anonymous page, the memfd's read-only mapping over the rest once sealed. Until
    // then the rest is an inaccessible placeholder that keeps the addresses ours.
    buffer->regionSize_ = page + RoundUp(payload, page);
    void* region = mmap(nullptr, buffer->regionSize_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (region == MAP_FAILED) {
        *error = Errno("reserving a raw data buffer");
        return nullptr;
    }
    buffer->region_ = static_cast<uint8_t*>(region);
    if (mprotect(buffer->region_, page, PROT_READ | PROT_WRITE) != 0) {
        *error = Errno("opening a raw data buffer's prefix page");
        return nullptr;
    }
    buffer->start_ = buffer->region_ + page - prefix;
    return buffer;
}

RawDataBuffer::~RawDataBuffer()
{
    if (region_ != nullptr) {
        // A sealed payload's mapping belongs to its block.
        munmap(region_, sealed_ ? PageSize() : regionSize_);
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool RawDataBuffer::Write(size_t offset, const void* data, size_t len, std::string* error)
{
    if (sealTried_ || offset > Size() || len > Size() - offset) {
        *error = "raw data buffer: write outside the buffer or after sealing";
        return false;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (offset < prefix_) {
        const size_t head = std::min(len, prefix_ - offset);
        std::memcpy(start_ + offset, bytes, head);
        offset += head;
        bytes += head;
        len -= head;
    }
    if (len > 0 && !WriteAll(fd_, bytes, len, static_cast<off_t>(offset - prefix_))) {
        *error = Errno("writing a raw data memfd");
        return false;
    }
    return true;
}

std::shared_ptr<const RawDataBlock> RawDataBuffer::Seal(std::string* error)
{
    if (sealTried_ || fd_ < 0) {
        *error = "raw data buffer sealed twice";
        return nullptr;
    }
    sealTried_ = true;
    const size_t page = PageSize();
    uint8_t* payloadAt = region_ + page;
    const size_t mapped = regionSize_ - page;
    // No writable mapping of the memfd ever existed, so the write seal is granted at once.
    const int sealResult = fcntl(fd_, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
    const int sealErrno = errno;
    // Mapped even when the seal failed: the bytes must be readable for the filler.
    if (mmap(payloadAt, mapped, PROT_READ, MAP_SHARED | MAP_FIXED, fd_, 0) == MAP_FAILED) {
        *error = Errno("mapping a raw data memfd read-only");
        return nullptr;
    }
    mapped_ = true;
    mprotect(region_, page, PROT_READ);
    if (sealResult != 0) {
        errno = sealErrno;
        *error = Errno("sealing a raw data memfd");
        return nullptr;
    }
    sealed_ = true;
    int fd = fd_;
    fd_ = -1;
    return RawDataBlock::AdoptSealed(fd, payloadAt, payload_, mapped);
}

}  // namespace Vex
