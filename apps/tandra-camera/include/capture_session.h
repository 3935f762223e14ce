// CaptureSession: when the camera application takes photos, as a state machine fed with what
// happens (a key pressed, a tick of time, the end of input) and answering with what to do next.
// Automatic: counts down, then takes the requested photos one per tick, then finishes.
// Interactive: Enter takes a photo, 'c' cancels, 'q' finishes; it finishes by itself once the
// requested number is taken. In both, 'c' and 'q' work at any time; finishing before any photo
// is a cancel (there is nothing to send). It knows no terminal and no clock, so it is tested
// as a table; the caller waits a second after each Countdown and calls Tick after each photo.
// Thread-safety: one thread at a time.
#pragma once

#include <cstdint>

namespace QUEX::Tandra::CameraApp {

enum class CaptureMode { Automatic, Interactive };

enum class CaptureStep {
    Wait,       // nothing to do until the next input
    Countdown,  // show value seconds left, then Tick a second later
    Take,       // take photo number value (0-based), then Tick
    Finish,     // done: send the photos taken
    Cancel,     // done: the user gave up
};

struct CaptureAction {
    CaptureStep step = CaptureStep::Wait;
    uint32_t value = 0;
};

class CaptureSession {
public:
    static constexpr int END_OF_INPUT = -1;

    // count 0 in interactive mode: no limit, until 'q'. Automatic mode with count 0 finishes at
    // once (and so cancels: nothing was taken).
    CaptureSession(CaptureMode mode, uint32_t count, uint32_t countdownSeconds);

    CaptureAction Key(int key);  // a byte read from the terminal, or END_OF_INPUT
    CaptureAction Tick();        // a countdown second passed, or the last photo was saved

    bool Done() const { return done_; }
    uint32_t Taken() const { return taken_; }
    CaptureMode Mode() const { return mode_; }

private:
    CaptureAction End(CaptureStep step);
    CaptureAction TakeNext();

    CaptureMode mode_;
    uint32_t count_;
    uint32_t countdown_;
    uint32_t taken_ = 0;
    bool done_ = false;
};

}  // namespace QUEX::Tandra::CameraApp
