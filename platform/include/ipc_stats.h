// IpcStats: process-wide counts of the IPC transport's live state, for leak checks: open
// connections, objects exported to peers (handles a peer may still call) and proxies of peer
// objects. Handle 0 (a server's system ability manager) is permanent and not counted.
// Thread-safety: all functions may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

namespace Vex {

struct IpcStats {
    size_t connections = 0;
    size_t exportedHandles = 0;
    size_t proxyHandles = 0;
    bool operator==(const IpcStats& other) const
    {
        return connections == other.connections && exportedHandles == other.exportedHandles &&
               proxyHandles == other.proxyHandles;
    }
};

IpcStats GetIpcStats();
// Waits (real time) until the counts satisfy the predicate; false on time-out. Handle
// releases travel as frames, so counts settle a moment after the requests that moved them.
bool WaitForIpcStats(const std::function<bool(const IpcStats&)>& predicate, std::chrono::milliseconds timeout);

}  // namespace Vex
