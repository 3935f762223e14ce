// The kernel's word on who is at the other end of a Unix socket (SO_PEERCRED).
#pragma once

#include <sys/socket.h>

#include "ipc_peer.h"

namespace Vex {

inline IpcPeer PeerCredentials(int fd)
{
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    IpcPeer peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
        peer.pid = credentials.pid;
        peer.uid = static_cast<int32_t>(credentials.uid);
        peer.gid = static_cast<int32_t>(credentials.gid);
    }
    return peer;
}

}  // namespace Vex
