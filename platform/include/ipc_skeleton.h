// IPCSkeleton: who is calling. Every thread has its own identity (pid, uid): by default the
// real process's, changed by ScopedIdentity (tests and in-process "processes") and, for the
// duration of a request, by the transport. GetCallingPid/Uid return the caller's identity
// inside OnRemoteRequest and the thread's own identity elsewhere.
// Thread-safety: identities are thread-local; all functions may be called from any thread.
#pragma once

#include <cstdint>

namespace Vex {

struct Identity {
    int32_t pid;
    int32_t uid;
};

class IPCSkeleton {
public:
    static int32_t GetCallingPid();
    static int32_t GetCallingUid();
    static int32_t GetSelfPid();
    static int32_t GetSelfUid();
    static Identity GetSelfIdentity();
    static Identity GetCallingIdentity();
};

// Makes the current thread act as another process until the scope ends.
class ScopedIdentity {
public:
    ScopedIdentity(int32_t pid, int32_t uid);
    ~ScopedIdentity();
    ScopedIdentity(const ScopedIdentity&) = delete;
    ScopedIdentity& operator=(const ScopedIdentity&) = delete;

private:
    Identity savedSelf_;
    Identity savedCalling_;
    bool savedInRequest_;
};

// Used by transports: the caller's identity for the duration of one request.
class ScopedCallingIdentity {
public:
    ScopedCallingIdentity(Identity caller, Identity callee);
    ~ScopedCallingIdentity();
    ScopedCallingIdentity(const ScopedCallingIdentity&) = delete;
    ScopedCallingIdentity& operator=(const ScopedCallingIdentity&) = delete;

private:
    Identity savedSelf_;
    Identity savedCalling_;
    bool savedInRequest_;
};

}  // namespace Vex
