// Starts are recorded on entry so that a test sees a start that is still blocked.
#include "recording_launcher.h"

namespace QUEX {
namespace Tandra {
namespace Testing {

int32_t RecordingLauncher::StartAbility(int32_t collaborationSessionId, const StartAbilityParam& param)
{
    std::unique_lock<std::mutex> lock(mutex_);
    starts_.push_back({collaborationSessionId, param});
    if (blocking_) {
        ++blocked_;
        cv_.notify_all();
        cv_.wait(lock, [this] { return !blocking_; });
        --blocked_;
    }
    cv_.notify_all();
    return result_;
}

void RecordingLauncher::SetResult(int32_t result)
{
    std::lock_guard<std::mutex> lock(mutex_);
    result_ = result;
}

void RecordingLauncher::Block()
{
    std::lock_guard<std::mutex> lock(mutex_);
    blocking_ = true;
}

void RecordingLauncher::Unblock()
{
    std::lock_guard<std::mutex> lock(mutex_);
    blocking_ = false;
    cv_.notify_all();
}

std::vector<StartRecord> RecordingLauncher::Starts() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return starts_;
}

size_t RecordingLauncher::StartCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return starts_.size();
}

size_t RecordingLauncher::BlockedCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return blocked_;
}

bool RecordingLauncher::AwaitStarts(size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [this, count] { return starts_.size() >= count; });
}

}  // namespace Testing
}  // namespace Tandra
}  // namespace QUEX
