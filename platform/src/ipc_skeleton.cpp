// Thread-local identities: each thread starts as the real process and is switched by
// ScopedIdentity (a thread acting as another process) or ScopedCallingIdentity (a transport
// running one request).
#include "ipc_skeleton.h"

#include <unistd.h>

namespace Vex {

namespace {

struct ThreadIdentity {
    Identity self{static_cast<int32_t>(getpid()), static_cast<int32_t>(getuid())};
    Identity calling{self};
    bool inRequest = false;
};

ThreadIdentity& Current()
{
    thread_local ThreadIdentity identity;
    return identity;
}

}  // namespace

int32_t IPCSkeleton::GetCallingPid()
{
    return GetCallingIdentity().pid;
}

int32_t IPCSkeleton::GetCallingUid()
{
    return GetCallingIdentity().uid;
}

int32_t IPCSkeleton::GetSelfPid()
{
    return Current().self.pid;
}

int32_t IPCSkeleton::GetSelfUid()
{
    return Current().self.uid;
}

Identity IPCSkeleton::GetSelfIdentity()
{
    return Current().self;
}

Identity IPCSkeleton::GetCallingIdentity()
{
    const ThreadIdentity& identity = Current();
    return identity.inRequest ? identity.calling : identity.self;
}

ScopedIdentity::ScopedIdentity(int32_t pid, int32_t uid)
{
    ThreadIdentity& identity = Current();
    savedSelf_ = identity.self;
    savedCalling_ = identity.calling;
    savedInRequest_ = identity.inRequest;
    identity.self = Identity{pid, uid};
    identity.calling = identity.self;
    identity.inRequest = false;
}

ScopedIdentity::~ScopedIdentity()
{
    ThreadIdentity& identity = Current();
    identity.self = savedSelf_;
    identity.calling = savedCalling_;
    identity.inRequest = savedInRequest_;
}

ScopedCallingIdentity::ScopedCallingIdentity(Identity caller, Identity callee)
{
    ThreadIdentity& identity = Current();
    savedSelf_ = identity.self;
    savedCalling_ = identity.calling;
    savedInRequest_ = identity.inRequest;
    identity.self = callee;
    identity.calling = caller;
    identity.inRequest = true;
}

ScopedCallingIdentity::~ScopedCallingIdentity()
{
    ThreadIdentity& identity = Current();
    identity.self = savedSelf_;
    identity.calling = savedCalling_;
    identity.inRequest = savedInRequest_;
}

}  // namespace Vex
