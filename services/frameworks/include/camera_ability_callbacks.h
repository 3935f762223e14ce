// The requesting side's callbacks given to the connection manager: ApplyResultCallback carries
// the decision on a resource application to the waiting request, DisconncetCallback (the
// misspelling is part of the interface) ends the collaboration with a peer that disconnected.
// Thread-safety: called on IPC threads, several at once; they hold no state and forward to the
// plugin singleton, whose operations guard their own data.
#pragma once

#include <cstdint>
#include <string>

#include "callback_skeleton.h"

namespace QUEX {
namespace Tandra {

class ApplyResultCallback : public CallbackSkeleton {
public:
    // first: the peer's network id, second: the service name, third: the reason.
    int32_t ApplyResult(std::string first, std::string second, std::string third, int32_t value,
                        int32_t resultCode) override;
};

class DisconncetCallback : public CallbackSkeleton {
public:
    using CallbackSkeleton::OnDisconnected;
    // second: the network id of the peer that disconnected.
    int32_t OnDisconnected(std::string second, std::string third) override;
};

}  // namespace Tandra
}  // namespace QUEX
