// StartAbilityAdapter: starts a local ability on a peer's behalf (the camera application for a
// take-photo command), through the device context's launcher.
// Thread-safety: may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>

#include "ability_records.h"

namespace QUEX {
namespace Tandra {

class StartAbilityAdapter {
public:
    // 0 when the launcher accepted the start, else its error.
    static int32_t StartAbility(int32_t collaborationSessionId, std::shared_ptr<StartAbilityParam> param);
};

}  // namespace Tandra
}  // namespace QUEX
