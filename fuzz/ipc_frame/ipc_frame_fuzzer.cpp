// Feeds arbitrary bytes to the IPC frame decoder: it must never read out of bounds, and any
// frame it accepts must encode back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ipc_frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Vex::Frame frame;
    Vex::DecodeResult result = Vex::DecodeFrame(data, size, &frame);
    if (result.status != Vex::DecodeStatus::FRAME) {
        return 0;
    }
    if (result.consumed > size || frame.dataOffset + frame.dataSize > result.consumed) {
        __builtin_trap();
    }
    std::vector<uint8_t> head;
    std::string error;
    if (!Vex::EncodeFrame(frame, frame.dataSize, &head, &error)) {
        __builtin_trap();  // the decoder accepted what the encoder refuses
    }
    // Header and tables are canonical, so they match byte for byte; the data follows them.
    if (head.size() != frame.dataOffset || std::memcmp(head.data(), data, head.size()) != 0) {
        __builtin_trap();
    }
    return 0;
}
