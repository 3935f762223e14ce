// The transport's side of IpcStats: counters moved by connections and proxies.
// Thread-safety: any thread.
#pragma once

#include "ipc_stats.h"

namespace Vex {

enum class IpcCounter { CONNECTIONS, EXPORTED, PROXIES };
void AddIpcStat(IpcCounter counter, long delta);

}  // namespace Vex
