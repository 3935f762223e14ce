// Where a preloaded probe of the end-to-end benchmark writes: <the folder in an environment
// variable>/<process name>.<pid>, so that the benchmark can tell the processes' files apart.
// Thread-safety: reads only the environment and /proc/self; safe from any thread.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

// The probe's file for this process, or false when the variable is unset or empty.
inline bool ProbeFile(const char* folderVariable, char* path, size_t size)
{
    const char* dir = std::getenv(folderVariable);
    if (dir == nullptr || *dir == '\0') {
        return false;
    }
    char name[32] = "unknown";
    if (std::FILE* comm = std::fopen("/proc/self/comm", "r")) {
        if (std::fgets(name, sizeof name, comm) != nullptr) {
            name[std::strcspn(name, "\n")] = '\0';
        }
        std::fclose(comm);
    }
    int length = std::snprintf(path, size, "%s/%s.%d", dir, name, static_cast<int>(getpid()));
    return length > 0 && static_cast<size_t>(length) < size;
}
