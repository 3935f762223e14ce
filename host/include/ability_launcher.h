// AbilityLauncher: the backend that starts a local ability (the camera application) on a
// peer's behalf. Implementations: the recording launcher of the test backends and, later, the
// daemon's launcher that starts the camera app.
// Thread-safety: StartAbility may be called from any thread, several at once; it may block
// while the start is in progress.
#pragma once

#include <cstdint>

#include "ability_records.h"

namespace QUEX {
namespace Tandra {

class AbilityLauncher {
public:
    AbilityLauncher() = default;
    virtual ~AbilityLauncher() = default;
    AbilityLauncher(const AbilityLauncher&) = delete;
    AbilityLauncher& operator=(const AbilityLauncher&) = delete;

    // 0 when the ability was started, else the launcher's error.
    virtual int32_t StartAbility(int32_t collaborationSessionId, const StartAbilityParam& param) = 0;
    // The collaboration of the session has been released: an ability still running for it
    // serves nobody any more. Default: nothing.
    virtual void OnSessionReleased(int32_t collaborationSessionId) { (void)collaborationSessionId; }
};

}  // namespace Tandra
}  // namespace QUEX
