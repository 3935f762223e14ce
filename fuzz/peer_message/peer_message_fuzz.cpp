// The peer's messages as the requesting device receives them: a collaboration is started for
// each input, then the input's messages arrive on its control session or on a data channel
// through the host's session layer, and the link finally drops.
// Input: up to 16 records of [Uint8 route (bit 0: data channel)][Uint16 LE length][bytes];
// a record whose length runs past the end takes what is left.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <string>

#include "fuzz_device.h"

using namespace QUEX::Tandra;

namespace {
constexpr size_t MAX_MESSAGES = 16;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::FuzzDevice::Get();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz::FuzzDevice& device = Fuzz::FuzzDevice::Get();
    device.BeginInput();
    uint32_t collaborationId = 0;
    int32_t sessionId = -1;
    if (!device.StartRequesting(collaborationId, sessionId)) {
        std::fprintf(stderr, "the collaboration did not start: the harness is broken\n");
        std::abort();
    }
    {
        Testing::ScriptedPeer& peer = device.Device().Peer();
        size_t at = 0;
        for (size_t count = 0; count < MAX_MESSAGES && at + 3 <= size; ++count) {
            const bool onDataChannel = (data[at] & 1) != 0;
            size_t length = static_cast<size_t>(data[at + 1]) | (static_cast<size_t>(data[at + 2]) << 8);
            at += 3;
            length = std::min(length, size - at);
            std::string bytes(reinterpret_cast<const char*>(data + at), length);
            at += length;
            uint64_t ticket = onDataChannel ? peer.SendOnDataChannel(sessionId, std::move(bytes))
                                            : peer.SendOnSession(sessionId, std::move(bytes));
            peer.AwaitDelivered(ticket);
        }
    }
    device.EndInput();
    return 0;
}
