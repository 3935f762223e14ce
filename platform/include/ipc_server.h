// IpcServer: serves a Unix stream socket; every process that connects gets one connection on
// which both sides may call each other's objects (the server calls the callback objects a
// client passed it). The server's system abilities are published on each connection: a
// client's GetSystemAbility(id) looks them up in this process's SystemAbilityManagerClient
// manager at the time of the call. A connection that drops (exit, kill -9, close, bad input)
// declares its peer's pid dead here; a new connection from that pid revives it.
// Limits, frame layout and copies per byte: ipc_frame.h, raw_data_block.h, ipc_client.h.
// Thread-safety: all operations may be called from any thread. The observer runs on the IPC
// event loop thread and must not make synchronous IPC requests.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ipc_peer.h"

namespace Vex {

class IpcServer {
public:
    // Binds and listens at socketPath; the caller prepares the folder and removes a stale
    // file. Null with error set when the socket cannot be served.
    static std::unique_ptr<IpcServer> Listen(const std::string& socketPath, std::string* error);
    ~IpcServer();  // Stop()
    IpcServer(const IpcServer&) = delete;
    IpcServer& operator=(const IpcServer&) = delete;

    // Told of each connection opening (true) and closing (false).
    void SetConnectionObserver(std::function<void(const IpcPeer& peer, bool connected)> observer);
    size_t ConnectionCount() const;
    // Stops accepting and closes every connection (clients see this process die); waits until
    // they are closed. Idempotent.
    void Stop();

    struct Impl;

private:
    explicit IpcServer(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> impl_;
};

}  // namespace Vex
