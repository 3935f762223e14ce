// MessageOption: how an IPC request is sent: synchronously (the caller waits for the reply)
// or one-way, and the longest wait in seconds. A plain value type.
#pragma once

namespace Vex {

class MessageOption {
public:
    enum {
        TF_SYNC = 0x00,
        TF_ASYNC = 0x01,
    };
    static constexpr int TF_WAIT_TIME = 8;

    MessageOption(int flags = TF_SYNC, int waitTime = TF_WAIT_TIME) : flags_(flags), waitTime_(waitTime) {}
    void SetFlags(int flags) { flags_ = flags; }
    int GetFlags() const { return flags_; }
    void SetWaitTime(int waitTime) { waitTime_ = waitTime; }
    int GetWaitTime() const { return waitTime_; }

private:
    int flags_;
    int waitTime_;
};

}  // namespace Vex
