// Receive buffers whose payload is a memfd from the start, sealed in place once filled.
#include "raw_data_buffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

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
    // One reservation so that the prefix and the payload are contiguous: an anonymous page for
    // the prefix, then the memfd over the rest. The payload's pages are populated in one call.
    buffer->regionSize_ = page + RoundUp(payload, page);
    void* region = mmap(nullptr, buffer->regionSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (region == MAP_FAILED) {
        *error = Errno("reserving a raw data buffer");
        return nullptr;
    }
    buffer->region_ = static_cast<uint8_t*>(region);
    void* payloadAt = mmap(buffer->region_ + page, buffer->regionSize_ - page, PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_FIXED | MAP_POPULATE, buffer->fd_, 0);
    if (payloadAt == MAP_FAILED) {
        *error = Errno("mapping a raw data memfd");
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

std::shared_ptr<const RawDataBlock> RawDataBuffer::Seal(std::string* error)
{
    if (sealed_ || fd_ < 0) {
        *error = "raw data buffer sealed twice";
        return nullptr;
    }
    const size_t page = PageSize();
    uint8_t* payloadAt = region_ + page;
    const size_t mapped = regionSize_ - page;
    // The write seal needs every writable mapping gone, and a shared mapping made before the seal
    // counts as writable even when read-only. So: a placeholder keeps the address range ours,
    // the memfd is sealed, and then mapped read-only where the filler (and the prefix) expect it.
    if (mmap(payloadAt, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) == MAP_FAILED) {
        *error = Errno("unmapping a raw data memfd");
        return nullptr;
    }
    const int sealResult = fcntl(fd_, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
    const int sealErrno = errno;
    // Mapped again even when the seal failed: the bytes must stay readable for the filler.
    if (mmap(payloadAt, mapped, PROT_READ, MAP_SHARED | MAP_FIXED, fd_, 0) == MAP_FAILED) {
        readable_ = false;
        *error = Errno("remapping a raw data memfd read-only");
        return nullptr;
    }
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
