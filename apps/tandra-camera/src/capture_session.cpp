#include "capture_session.h"

namespace QUEX::Tandra::CameraApp {

CaptureSession::CaptureSession(CaptureMode mode, uint32_t count, uint32_t countdownSeconds)
    : mode_(mode), count_(count), countdown_(countdownSeconds)
{
}

CaptureAction CaptureSession::End(CaptureStep step)
{
    done_ = true;
    if (step == CaptureStep::Finish && taken_ == 0) {
        step = CaptureStep::Cancel;
    }
    return {step, taken_};
}

CaptureAction CaptureSession::TakeNext()
{
    return {CaptureStep::Take, taken_++};
}

CaptureAction CaptureSession::Key(int key)
{
    if (done_) {
        return {};
    }
    switch (key) {
        case 'c':
        case 'C':
            return End(CaptureStep::Cancel);
        case 'q':
        case 'Q':
            return End(CaptureStep::Finish);
        case END_OF_INPUT:
            // Automatic mode needs no input; interactive mode has lost its user.
            return mode_ == CaptureMode::Interactive ? End(CaptureStep::Finish) : CaptureAction{};
        case '\n':
        case '\r':
            if (mode_ == CaptureMode::Interactive && (count_ == 0 || taken_ < count_)) {
                return TakeNext();
            }
            return {};
        default:
            return {};
    }
}

CaptureAction CaptureSession::Tick()
{
    if (done_) {
        return {};
    }
    if (count_ > 0 && taken_ >= count_) {
        return End(CaptureStep::Finish);
    }
    if (mode_ == CaptureMode::Interactive) {
        return {};
    }
    if (count_ == 0) {
        return End(CaptureStep::Finish);
    }
    if (countdown_ > 0) {
        return {CaptureStep::Countdown, countdown_--};
    }
    return TakeNext();
}

}  // namespace QUEX::Tandra::CameraApp
