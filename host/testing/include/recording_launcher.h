// RecordingLauncher: the test backend behind StartAbility. It records every start (recorded
// on entry, so a blocked start is visible), answers with a chosen result, and can hold starts
// until the test releases them, to script a camera app that is slow to come up.
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "ability_launcher.h"

namespace QUEX {
namespace Tandra {
namespace Testing {

struct StartRecord {
    int32_t collaborationSessionId = 0;
    StartAbilityParam param;
};

class RecordingLauncher : public AbilityLauncher {
public:
    int32_t StartAbility(int32_t collaborationSessionId, const StartAbilityParam& param) override;

    // The result of the following starts (default 0).
    void SetResult(int32_t result);
    // From now on starts block until Unblock (which also lets the blocked ones go).
    void Block();
    void Unblock();

    std::vector<StartRecord> Starts() const;
    size_t StartCount() const;
    size_t BlockedCount() const;
    // At least count starts have been entered (real-time deadline).
    bool AwaitStarts(size_t count, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    int32_t result_ = 0;
    bool blocking_ = false;
    size_t blocked_ = 0;
    std::vector<StartRecord> starts_;
};

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
