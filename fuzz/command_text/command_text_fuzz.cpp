// The command text of a peer's control session as the serving device reads it. Every input
// goes through CreateCommand; one that yields commands is then also opened as a control
// session by the peer, so that its commands execute with whatever the text carried, and the
// link drops afterwards.
// Input: the command text itself.
#include <cstddef>
#include <cstdint>
#include <string>

#include "camera_ability_process.h"
#include "fuzz_device.h"

using namespace QUEX::Tandra;

namespace {
// More commands than this are not executed: each would pre-empt the one before and wait.
constexpr size_t MAX_EXECUTED_COMMANDS = 2;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::FuzzDevice::Get();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz::FuzzDevice& device = Fuzz::FuzzDevice::Get();
    const std::string text(reinterpret_cast<const char*>(data), size);
    size_t commands = CameraAbilityProcess::GetInstance()->CreateCommand(text).size();
    if (commands == 0 || commands > MAX_EXECUTED_COMMANDS) {
        return 0;
    }
    device.BeginInput();
    int32_t result = 0;
    device.OpenFromPeer(text, result);
    device.EndInput();
    return 0;
}
