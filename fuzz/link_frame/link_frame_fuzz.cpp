// Feeds arbitrary bytes, split at a fuzzer-chosen point, to the link's frame decoder and parses
// each structured body it yields, as a connection would.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "net_frame.h"

using namespace QUEX::Tandra;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    FrameLimits limits;
    limits.maxControlBody = 1u << 16;
    limits.maxDataBody = 1u << 20;
    FrameRole role = static_cast<FrameRole>(data[0] % 3);
    size_t split = data[1] % (size - 1);
    const char* bytes = reinterpret_cast<const char*>(data + 2);
    size_t len = size - 2;
    split = std::min(split, len);
    FrameDecoder decoder(role, limits);
    std::vector<FrameDecoder::Frame> frames;
    if (decoder.Feed(bytes, split, &frames)) {
        decoder.Feed(bytes + split, len - split, &frames);
    }
    for (const FrameDecoder::Frame& f : frames) {
        std::string error;
        std::string name;
        std::string text;
        std::vector<AbilityInfo> abilities;
        HelloInfo hello;
        switch (f.header.type) {
            case FrameType::HELLO:
                ParseHello(f.body.data(), f.body.size(), &hello, &error);
                break;
            case FrameType::ABILITIES:
                ParseAbilities(f.body.data(), f.body.size(), &abilities, &error);
                break;
            case FrameType::OPEN_SESSION:
                ParseOpenSession(f.body.data(), f.body.size(), &name, &text, &error);
                break;
            default:
                break;
        }
    }
    return 0;
}
