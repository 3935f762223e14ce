// IpcPeer: the process at the other end of an IPC connection, as the kernel reported it
// (SO_PEERCRED at connect time), never as the peer described itself. A plain value.
#pragma once

#include <cstdint>

namespace Vex {

struct IpcPeer {
    int32_t pid = -1;
    int32_t uid = -1;
    int32_t gid = -1;
};

}  // namespace Vex
