// IpcClient: one connection to an IpcServer. Objects go both ways on it: a request carries
// remote objects as handles (local objects are exported on first pass, proxies of the
// server's objects go back as the handle the server knows), descriptors with SCM_RIGHTS and
// raw data above the inline limit as sealed memfds that the receiver maps.
// Copies per byte of a large raw item across the boundary: one, the writer's WriteRawData
// (the kernel's write into the memfd); the socket carries only the descriptor and the reader
// maps the same pages. Parcel bytes (small) are copied once more on receipt.
// Requests: synchronous ones wait up to MessageOption::GetWaitTime() seconds and then fail
// with ERR_TIMED_OUT; TF_ASYNC returns once written. Inside a stub, IPCSkeleton's calling
// pid/uid are the peer's SO_PEERCRED. When the connection drops, the server's pid is declared
// dead in this process: death recipients on its proxies fire once, and requests on them fail
// with ERR_DEAD_OBJECT at once.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <memory>
#include <string>

#include "ipc_peer.h"
#include "iremote_object.h"

namespace Vex {

class IpcConnection;

class IpcClient {
public:
    // Connects to the server at socketPath; null with error set when it does not answer.
    static std::shared_ptr<IpcClient> Connect(const std::string& socketPath, std::string* error);
    ~IpcClient();  // Close()
    IpcClient(const IpcClient&) = delete;
    IpcClient& operator=(const IpcClient&) = delete;

    // A proxy of the server's system ability, null when it has none or the connection is gone.
    sptr<IRemoteObject> GetSystemAbility(int32_t id);
    // Makes SystemAbilityManagerClient's manager answer from the server too (this process's
    // own abilities first), so code written against GetSystemAbility works unchanged.
    void InstallAsSystemAbilityManager();
    IpcPeer ServerPeer() const;
    bool IsConnected() const;
    // Closes the connection and waits until it is closed; idempotent.
    void Close();

private:
    explicit IpcClient(std::shared_ptr<IpcConnection> connection);
    std::shared_ptr<IpcConnection> connection_;
};

}  // namespace Vex
