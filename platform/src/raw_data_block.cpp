// Raw data blocks: heap buffers, and sealed memfds written with write(2) (one kernel copy, no
// page faults in the writer) and mapped read-only on demand: a reader that copies the bytes on
// by their descriptor (sendfile into a file) touches none of them, and wiring 128 MiB of pages
// in and out again would cost it 7 to 15 ms per photo for nothing.
#include "raw_data_block.h"

#include "fd_io.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

namespace Vex {

namespace {

constexpr int REQUIRED_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

std::string Errno(const char* what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

// An empty block still needs a valid address, since ReadRawData returns non-null for it.
const uint8_t EMPTY_BYTE = 0;

// Blocks sealed in place, by address: weak, since a block lives as long as its users do.
std::mutex registryMutex;
std::map<const uint8_t*, std::weak_ptr<const RawDataBlock>>& Registry()
{
    static auto* registry = new std::map<const uint8_t*, std::weak_ptr<const RawDataBlock>>();
    return *registry;
}

}  // namespace

RawDataBlock::~RawDataBlock()
{
    if (registered_) {
        std::lock_guard<std::mutex> lock(registryMutex);
        auto it = Registry().find(data_);
        // A block at the same address registered meanwhile keeps its entry.
        if (it != Registry().end() && it->second.expired()) {
            Registry().erase(it);
        }
    }
    if (mapped_) {
        munmap(const_cast<uint8_t*>(data_), mappedLength_ != 0 ? mappedLength_ : size_);
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::shared_ptr<const RawDataBlock> RawDataBlock::Adopt(std::unique_ptr<uint8_t[]> data, size_t size)
{
    std::shared_ptr<RawDataBlock> block(new RawDataBlock());
    block->heap_ = std::move(data);
    block->data_ = block->heap_ != nullptr ? block->heap_.get() : &EMPTY_BYTE;
    block->size_ = size;
    return block;
}

std::shared_ptr<const RawDataBlock> RawDataBlock::FromBytes(const void* data, size_t size, std::string* error)
{
    std::shared_ptr<RawDataBlock> block(new RawDataBlock());
    block->fd_ = memfd_create("vex-raw-data", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (block->fd_ < 0) {
        *error = Errno("memfd_create");
        return nullptr;
    }
    if (!WriteAll(block->fd_, data, size)) {
        *error = Errno("write to memfd");
        return nullptr;
    }
    if (fcntl(block->fd_, F_ADD_SEALS, REQUIRED_SEALS | F_SEAL_SEAL) != 0) {
        *error = Errno("sealing memfd");
        return nullptr;
    }
    block->size_ = size;
    if (size == 0) {
        block->data_ = &EMPTY_BYTE;
        return block;
    }
    // Local readers (a one-way copy in this process) fault pages in lazily: most blocks are
    // only sent, never read here.
    void* address = mmap(nullptr, size, PROT_READ, MAP_SHARED, block->fd_, 0);
    if (address == MAP_FAILED) {
        *error = Errno("mmap of memfd");
        return nullptr;
    }
    block->data_ = static_cast<const uint8_t*>(address);
    block->mapped_ = true;
    return block;
}

std::shared_ptr<const RawDataBlock> RawDataBlock::AdoptSealed(int fd, const uint8_t* mapped, size_t size,
                                                              size_t mappedLength)
{
    std::shared_ptr<RawDataBlock> block(new RawDataBlock());
    block->fd_ = fd;
    block->data_ = mapped;
    block->size_ = size;
    block->mapped_ = true;
    block->mappedLength_ = mappedLength;
    block->registered_ = true;
    std::lock_guard<std::mutex> lock(registryMutex);
    Registry()[mapped] = block;
    return block;
}

std::shared_ptr<const RawDataBlock> RawDataBlock::FindShared(const void* data, size_t size)
{
    std::lock_guard<std::mutex> lock(registryMutex);
    auto it = Registry().find(static_cast<const uint8_t*>(data));
    if (it == Registry().end()) {
        return nullptr;
    }
    std::shared_ptr<const RawDataBlock> block = it->second.lock();
    return block != nullptr && block->Size() == size ? block : nullptr;
}

std::shared_ptr<const RawDataBlock> RawDataBlock::Map(int fd, size_t size, std::string* error)
{
    std::shared_ptr<RawDataBlock> block(new RawDataBlock());
    block->fd_ = fd;
    int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & REQUIRED_SEALS) != REQUIRED_SEALS) {
        *error = "raw data descriptor is not a sealed memfd";
        return nullptr;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || info.st_size < 0 || static_cast<uint64_t>(info.st_size) < size) {
        *error = "raw data memfd is smaller than announced";
        return nullptr;
    }
    block->size_ = size;
    if (size == 0) {
        block->data_ = &EMPTY_BYTE;
        return block;
    }
    void* address = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        *error = Errno("mmap of received memfd");
        return nullptr;
    }
    block->data_ = static_cast<const uint8_t*>(address);
    block->mapped_ = true;
    return block;
}

}  // namespace Vex
