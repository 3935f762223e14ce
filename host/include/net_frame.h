// The device link's wire frames, as a pure codec: bytes in, a checked frame or an error out.
// Every frame is a 24-byte header (magic "TNL", version, type, flags, three 32-bit fields, body
// length) followed by the body. The header is checked, including the body length against the
// limit for its type and connection, BEFORE anything is allocated for the body, so a peer can
// never make this device allocate more than a declared and allowed length.
// FrameDecoder splits a byte stream into frames (used by the fuzzer and the tests; connections
// read the header and then the body straight into the buffer the listener sees).
// Thread-safety: free functions are pure; a FrameDecoder belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ability_records.h"

namespace QUEX {
namespace Tandra {

constexpr size_t FRAME_HEADER_SIZE = 24;
constexpr uint8_t FRAME_VERSION = 1;

enum class FrameType : uint8_t {
    HELLO = 1,          // body: JSON HelloInfo; first frame on every connection
    ABILITIES = 2,      // body: JSON list of AbilityInfo
    HEARTBEAT = 3,      // no body
    PAIR_REQUEST = 4,   // no body
    PAIR_CONFIRM = 5,   // c = 1 accepted, 0 declined; b = 1 when declined for want of an answer in time
    OPEN_SESSION = 10,  // a = opener's session id; body: u32 name length, name, command text
    OPEN_RESULT = 11,   // a = opener's id, b = receiver's id (0 when refused), c = result
    CLOSE_SESSION = 12, // a = receiver's id of the session
    CTRL_MESSAGE = 13,  // a = receiver's id of the session, c = message type; body: the message
    OPEN_CHANNEL = 20,  // a = opener's channel id
    CLOSE_CHANNEL = 21, // a = opener's channel id
    DATA_MESSAGE = 22,  // a = channel id (see flags), b = receiver's control session id, c = type
};

// DATA_MESSAGE flags.
constexpr uint8_t FRAME_FLAG_FIRST = 0x01;          // isFirst of SendDataMessage
constexpr uint8_t FRAME_FLAG_RECEIVER_CHANNEL = 0x02;  // a is the receiver's own channel id

// Which connection a frame arrived on: a new one accepts only HELLO; the control connection
// everything but channel traffic; the data connection only channel traffic and heartbeats.
enum class FrameRole : uint8_t { HANDSHAKE, CONTROL, DATA };

struct FrameLimits {
    uint32_t maxControlBody = 4u << 20;   // control messages and command texts
    uint32_t maxDataBody = 1u << 30;      // one data message
    bool shareableDataBodies = false;     // large data messages received into sealed memfds
    static constexpr uint32_t MAX_META_BODY = 64u << 10;  // hello and ability lists
};

struct FrameHeader {
    FrameType type = FrameType::HEARTBEAT;
    uint8_t flags = 0;
    uint32_t a = 0;
    uint32_t b = 0;
    uint32_t c = 0;
    uint32_t length = 0;
};

void EncodeFrameHeader(const FrameHeader& header, uint8_t* out);
// True when the header is well formed and allowed on a connection of this role within the
// limits; otherwise *error says what is wrong (for the one log line that closes the link).
bool DecodeFrameHeader(const uint8_t* in, FrameRole role, const FrameLimits& limits, FrameHeader* out,
                       std::string* error);

// What a device says about itself right after the TLS handshake.
struct HelloInfo {
    std::string deviceName;
    uint32_t deviceType = 0;
    uint16_t port = 0;        // its TLS port, for dialling back
    bool dataRole = false;    // this connection carries data channels
    bool pairing = false;     // the dialler wants to pair
};

std::string EncodeHello(const HelloInfo& hello);
bool ParseHello(const char* data, size_t len, HelloInfo* out, std::string* error);
std::string EncodeAbilities(const std::vector<AbilityInfo>& abilities);
bool ParseAbilities(const char* data, size_t len, std::vector<AbilityInfo>* out, std::string* error);
std::string EncodeOpenSession(const std::string& name, const std::string& commandText);
bool ParseOpenSession(const char* data, size_t len, std::string* name, std::string* commandText, std::string* error);

// Splits a stream into frames, for a connection of one role. After an error it stays failed.
class FrameDecoder {
public:
    struct Frame {
        FrameHeader header;
        std::vector<char> body;
    };
    FrameDecoder(FrameRole role, FrameLimits limits) : role_(role), limits_(limits) {}
    // After a HELLO a connection takes the role it announced.
    void SetRole(FrameRole role) { role_ = role; }
    // Appends bytes; complete frames go to *frames. False on the first bad frame.
    bool Feed(const char* data, size_t len, std::vector<Frame>* frames);
    const std::string& Error() const { return error_; }

private:
    FrameRole role_;
    FrameLimits limits_;
    uint8_t header_[FRAME_HEADER_SIZE] = {};
    size_t headerHave_ = 0;
    bool inBody_ = false;
    Frame current_;
    size_t bodyHave_ = 0;
    std::string error_;
};

}  // namespace Tandra
}  // namespace QUEX
