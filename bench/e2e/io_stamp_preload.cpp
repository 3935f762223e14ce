// Preloaded (LD_PRELOAD) into the daemons and tandra-photo by the end-to-end benchmark: stamps
// the calls that mark where a photo is on its way (pread of the camera's file by the serving
// daemon, pwrite into shared memory by the requesting daemon, sendfile by tandra-photo) with the
// real-time clock, and writes them as "<seconds> <call> <bytes>" lines to
// $E2E_IO_STAMP_DIR/<name>.<pid> when the process exits normally. The stamps are kept in memory
// until then, so a photo's hundreds of calls cost a clock read each and no file I/O.
// Thread-safety: any thread may stamp; slots are claimed with an atomic counter and the table
// simply stops growing when full. The exit dump may miss a call still being stamped on another
// thread, which the benchmark does not need.
#include <dlfcn.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "probe_file.h"

namespace {

struct Stamp {
    timespec at;
    const char* call;
    long long bytes;
};

constexpr int CAPACITY = 1 << 18;
Stamp g_stamps[CAPACITY];
std::atomic<int> g_count{0};

// Leaves errno as the wrapped call set it: the caller reads it next.
void Record(const char* call, long long bytes)
{
    int slot = g_count.fetch_add(1, std::memory_order_relaxed);
    if (slot >= CAPACITY) {
        return;
    }
    int saved = errno;
    clock_gettime(CLOCK_REALTIME, &g_stamps[slot].at);
    errno = saved;
    g_stamps[slot].call = call;
    g_stamps[slot].bytes = bytes;
}

template <typename Function>
Function Next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

__attribute__((destructor)) void Dump()
{
    char path[4096];
    if (!ProbeFile("E2E_IO_STAMP_DIR", path, sizeof path)) {
        return;
    }
    std::FILE* out = std::fopen(path, "w");
    if (out == nullptr) {
        return;
    }
    int count = g_count.load();
    if (count > CAPACITY) {
        count = CAPACITY;
    }
    for (int i = 0; i < count; ++i) {
        std::fprintf(out, "%lld.%09ld %s %lld\n", static_cast<long long>(g_stamps[i].at.tv_sec),
                     g_stamps[i].at.tv_nsec, g_stamps[i].call, g_stamps[i].bytes);
    }
    std::fclose(out);
}

}  // namespace

extern "C" ssize_t pread(int fd, void* buffer, size_t count, off_t offset)
{
    static auto real = Next<ssize_t (*)(int, void*, size_t, off_t)>("pread");
    ssize_t result = real(fd, buffer, count, offset);
    if (result > 0) {
        Record("pread", result);
    }
    return result;
}

extern "C" ssize_t pwrite(int fd, const void* buffer, size_t count, off_t offset)
{
    static auto real = Next<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
    ssize_t result = real(fd, buffer, count, offset);
    if (result > 0) {
        Record("pwrite", result);
    }
    return result;
}

extern "C" ssize_t sendfile(int out, int in, off_t* offset, size_t count)
{
    static auto real = Next<ssize_t (*)(int, int, off_t*, size_t)>("sendfile");
    Record("sendfile-start", static_cast<long long>(count));
    ssize_t result = real(out, in, offset, count);
    Record("sendfile", result);
    return result;
}
