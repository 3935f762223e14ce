// OnEventProcess: one event subscription of an application on the serving side (pid, uid,
// event name, the collaboration id given with it, the subscriber's bundle, its callback).
// CachedEvent: an event due while nobody had subscribed to it yet.
// Thread-safety: immutable after construction.
#pragma once

#include <cstdint>
#include <string>

#include "callback_skeleton_proxy.h"

namespace QUEX {
namespace Tandra {

struct OnEventProcess {
    int32_t pid = 0;
    int32_t uid = 0;
    uint32_t collaborationId = 0;
    std::string event;
    std::string bundleName;
    Vex::sptr<CallbackSkeletonProxy> callback;
};

struct CachedEvent {
    uint32_t code = 0;
    std::string event;
    std::string bundleName;
};

}  // namespace Tandra
}  // namespace QUEX
