// ProcessRegistry: which processes are alive, and the delivery of death notices. Declaring a
// process dead marks it dead and hands every death recipient attached to its objects to the
// death-notice thread, which calls each exactly once (never after its removal, never on the
// declaring thread). A transport that sees a peer connection drop declares its pid dead.
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "refbase.h"

namespace Vex {

class IPCObjectBase;

class ProcessRegistry {
public:
    static ProcessRegistry& Get();

    void DeclareDead(int32_t pid);
    // Used by transports: these objects died on their own (their connection closed while the
    // owning pid may live on, as when a process talks to itself); recipients fire as above.
    void DeclareObjectsDead(const std::vector<sptr<IPCObjectBase>>& objects);
    bool IsDead(int32_t pid) const;
    // Test seam: a pid may be reused by a new process.
    void Revive(int32_t pid);
    // Blocks until every death notice queued so far has been delivered; false on time-out
    // (real time, since notices run on a real thread).
    bool WaitForDeathNotices(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

    // Used by objects (stubs and proxies) to join and leave their owner's object list.
    void Attach(IPCObjectBase* object, int32_t pid);
    void Detach(IPCObjectBase* object, int32_t pid);

private:
    ProcessRegistry();
    ~ProcessRegistry();
    struct Impl;
    Impl* impl_;
};

}  // namespace Vex
