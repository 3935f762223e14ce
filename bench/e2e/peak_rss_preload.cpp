// Preloaded (LD_PRELOAD) into the processes of the end-to-end benchmark that the benchmark does
// not start itself (the camera application, which tandrad starts): as the process exits
// normally it writes its peak resident set (VmHWM, kB) to $E2E_PEAK_RSS_DIR/<name>.<pid>.
// Only reading /proc/self/status at exit, so it changes nothing the process does.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

__attribute__((destructor)) void ReportPeakRss()
{
    const char* dir = std::getenv("E2E_PEAK_RSS_DIR");
    if (dir == nullptr || *dir == '\0') {
        return;
    }
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) {
        return;
    }
    char line[256];
    char name[64] = "unknown";
    long hwm = -1;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::strncmp(line, "Name:", 5) == 0) {
            std::sscanf(line + 5, "%63s", name);
        } else if (std::strncmp(line, "VmHWM:", 6) == 0) {
            hwm = std::strtol(line + 6, nullptr, 10);
        }
    }
    std::fclose(status);
    char path[4096];
    std::snprintf(path, sizeof path, "%s/%s.%d", dir, name, static_cast<int>(getpid()));
    if (std::FILE* out = std::fopen(path, "w")) {
        std::fprintf(out, "%ld\n", hwm);
        std::fclose(out);
    }
}

}  // namespace
