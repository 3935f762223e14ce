// Photo-size buffers from anonymous mappings populated in one call.
#include "photo_bytes.h"

#include <sys/mman.h>

namespace QUEX {
namespace Tandra {

void PhotoBytesRelease::operator()(char* bytes) const
{
    if (bytes != nullptr) {
        munmap(bytes, length);
    }
}

PhotoBytes AllocatePhotoBytes(size_t length)
{
    if (length == 0) {
        return nullptr;
    }
    void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (address == MAP_FAILED) {
        return nullptr;
    }
    return PhotoBytes(static_cast<char*>(address), PhotoBytesRelease{length});
}

}  // namespace Tandra
}  // namespace QUEX
