// The callback objects the plugin hands to the connection-management service, called with
// arbitrary parcels: the skeleton's decoders of every request code, and the plugin's own
// callbacks that act on a collaboration (the resource decision and the peer's disconnection).
// Input: Uint8 selector, then the parcel bytes after the interface token.
//   bits 0-1: the callback: 0 and 3 the bare skeleton, 1 the resource decision, 2 the
//             disconnection notice;
//   bit 2: the request code is the next Uint32 (little-endian) instead of 501;
//   bit 3: a requesting collaboration with the peer runs first;
//   bit 4: no interface token: the bytes start where it would be.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "camera_ability_callbacks.h"
#include "fuzz_device.h"

using namespace QUEX::Tandra;

namespace {
constexpr uint32_t MESHLINE_CODE = 501;

Vex::sptr<CallbackSkeleton> Callback(uint8_t kind)
{
    // Kept for the process's life, as the service keeps the ones it is given.
    static Vex::sptr<CallbackSkeleton> callbacks[] = {new CallbackSkeleton(), new ApplyResultCallback(),
                                                      new DisconncetCallback(), new CallbackSkeleton()};
    return callbacks[kind & 0x03];
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::FuzzDevice::Get();
    Callback(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const uint8_t selector = data[0];
    ++data;
    --size;
    uint32_t code = MESHLINE_CODE;
    if ((selector & 0x04) != 0) {
        if (size < sizeof(code)) {
            return 0;
        }
        std::memcpy(&code, data, sizeof(code));
        data += sizeof(code);
        size -= sizeof(code);
    }
    Fuzz::FuzzDevice& device = Fuzz::FuzzDevice::Get();
    const bool running = (selector & 0x08) != 0;
    if (running) {
        device.BeginInput();
        uint32_t collaborationId = 0;
        int32_t sessionId = -1;
        if (!device.StartRequesting(collaborationId, sessionId)) {
            std::fprintf(stderr, "the requesting collaboration did not start: the harness is broken\n");
            std::abort();
        }
    }
    Vex::sptr<CallbackSkeleton> callback = Callback(selector);
    Vex::MessageParcel request;
    Vex::MessageParcel reply;
    if ((selector & 0x10) == 0) {
        request.WriteInterfaceToken(callback->GetDescriptor());
    }
    request.WriteBuffer(data, size);
    Vex::MessageOption option;
    callback->SendRequest(code, request, reply, option);
    if (running) {
        device.EndInput();
    }
    return 0;
}
