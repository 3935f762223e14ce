// An application's request to the camera ability, as the framework service's stub receives it
// and hands it to the plugin's DispatchRequest: every request code with arbitrary argument
// bytes after a valid header, or an arbitrary header. The parcel's side tables hold the
// applications' callback objects and photo descriptors that the bytes may point at.
// Input: Uint8 selector, then the parcel bytes after the envelope.
//   bits 0-2: request code 1, 2, 3, 4, 5, 10 (0 to 5) with a valid header; 6 and 7: the bytes
//             are the whole header and arguments;
//   bit 3: a serving collaboration runs first (its session id is 1, its camera application
//          subscribed), so put-image and remote-cancel requests can reach it;
//   bit 4: a requesting collaboration runs first (ignored when bit 3 is set);
//   bit 5: the camera application sends the request, else the requesting application;
//   bit 6: with bit 4, the first Uint32 of the arguments becomes the running collaboration's
//          id (ids are not known in advance), so that a cancel can name it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_device.h"
#include "host_service_stub.h"

using namespace QUEX::Tandra;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::FuzzDevice::Get();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const uint8_t selector = data[0];
    uint32_t collaborationId = 0;
    Fuzz::FuzzDevice& device = Fuzz::FuzzDevice::Get();
    device.BeginInput();
    if ((selector & 0x08) != 0) {
        if (device.StartServing() != 1) {
            std::fprintf(stderr, "the serving collaboration did not start: the harness is broken\n");
            std::abort();
        }
    } else if ((selector & 0x10) != 0) {
        int32_t sessionId = -1;
        if (!device.StartRequesting(collaborationId, sessionId)) {
            std::fprintf(stderr, "the requesting collaboration did not start: the harness is broken\n");
            std::abort();
        }
    }

    Vex::MessageParcel request;
    Vex::MessageParcel reply;
    request.WriteInterfaceToken(HostServiceStub::GetDescriptor());
    request.WriteUint32(SERVICE_TYPE_COLLABORATION_TO_DEVICE);
    const uint32_t codeIndex = selector & 0x07;
    if (codeIndex < std::size(Fuzz::REQUEST_CODES)) {
        for (uint32_t value : {Fuzz::REQUEST_CODES[codeIndex], 0u, 0u, 0u}) {
            request.WriteUint32(value);
        }
    }
    std::vector<uint8_t> arguments(data + 1, data + size);
    if ((selector & 0x48) == 0x40 && (selector & 0x10) != 0 && arguments.size() >= sizeof(collaborationId)) {
        std::memcpy(arguments.data(), &collaborationId, sizeof(collaborationId));
    }
    request.WriteBuffer(arguments.data(), arguments.size());
    device.FillSideTables(request);
    if ((selector & 0x20) != 0) {
        device.SendToService(request, reply, Fuzz::CAMERA_PID, Fuzz::CAMERA_UID);
    } else {
        device.SendToService(request, reply, Fuzz::APP_PID, Fuzz::APP_UID);
    }
    device.EndInput();
    return 0;
}
