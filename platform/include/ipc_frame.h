// IPC frames: the unit a Unix-socket connection carries, and its encoder and decoder. Pure
// functions of bytes (no sockets, no objects), so the decoder can be fuzzed and tested alone.
// Thread-safety: pure functions; a Frame is a plain value.
//
// Layout (little-endian, every item on a 4-byte boundary):
//   header (40 bytes): u32 magic 'VIPC', u16 version 1, u16 type, u32 flags (MessageOption
//     flags of a request), u32 code (request code; reply status as int32; release count),
//     u64 transaction id, u64 handle (the target of a request or release), u32 body size,
//     u32 descriptor count (descriptors passed with SCM_RIGHTS alongside the frame's first byte);
//   body: u32 object count, u32 raw count, u32 data size, u32 zero;
//     objects: u32 kind, u32 descriptor length (UTF-16 units), u64 handle, the units, zero
//       padding; kind SENDER: an object the sender exports under that handle; kind RECEIVER:
//       an object the receiver exported earlier (a proxy passed back);
//     raw sizes: u64 each; raw item i is the memfd descriptor number (parcel descriptors + i);
//     data: the parcel's bytes, zero padding to 4.
//   The body must be exactly as long as announced. Descriptors: the parcel's first, then one
//   memfd per raw item, so the parcel has (descriptor count - raw count).
// Limits (a frame past any of them is bad input; the connection that sent it is closed):
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Vex {

constexpr uint32_t IPC_FRAME_MAGIC = 0x43504956;  // "VIPC"
constexpr uint16_t IPC_FRAME_VERSION = 1;
constexpr size_t IPC_FRAME_HEADER_SIZE = 40;
constexpr size_t IPC_BODY_FIXED_SIZE = 16;
constexpr size_t IPC_MAX_DATA_SIZE = 4 * 1024 * 1024;        // parcel bytes; raw data goes in memfds
constexpr size_t IPC_MAX_OBJECTS = 64;                        // remote objects per frame
constexpr size_t IPC_MAX_DESCRIPTOR_UNITS = 256;              // interface descriptor length
constexpr size_t IPC_MAX_RAW_ITEMS = 16;                      // out-of-line raw items per frame
constexpr uint64_t IPC_MAX_RAW_SIZE = 256ull * 1024 * 1024;   // one raw item (the parcel's limit)
constexpr size_t IPC_MAX_FDS = 64;                            // descriptors per frame, raw memfds included
constexpr size_t IPC_MAX_BODY_SIZE = IPC_BODY_FIXED_SIZE + IPC_MAX_OBJECTS * (16 + 2 * (IPC_MAX_DESCRIPTOR_UNITS + 2)) +
                                     IPC_MAX_RAW_ITEMS * 8 + IPC_MAX_DATA_SIZE;

enum class FrameType : uint16_t { REQUEST = 1, REPLY = 2, RELEASE = 3 };
enum class ObjectKind : uint32_t { SENDER = 1, RECEIVER = 2 };

struct FrameObject {
    ObjectKind kind = ObjectKind::SENDER;
    uint64_t handle = 0;
    std::u16string descriptor;
    bool operator==(const FrameObject& other) const
    {
        return kind == other.kind && handle == other.handle && descriptor == other.descriptor;
    }
};

struct Frame {
    FrameType type = FrameType::REQUEST;
    uint32_t flags = 0;
    uint32_t code = 0;  // request code, reply status (int32 bits) or release count
    uint64_t transaction = 0;
    uint64_t handle = 0;
    uint32_t fdCount = 0;
    std::vector<FrameObject> objects;
    std::vector<uint64_t> rawSizes;
    // Decoding: where the parcel bytes are in the decoded buffer (never copied out).
    size_t dataOffset = 0;
    uint32_t dataSize = 0;

    uint32_t ParcelFdCount() const { return fdCount - static_cast<uint32_t>(rawSizes.size()); }
};

enum class DecodeStatus { FRAME, NEED_MORE, BAD };

struct DecodeResult {
    DecodeStatus status = DecodeStatus::NEED_MORE;
    size_t consumed = 0;  // FRAME: the frame's length; NEED_MORE: bytes needed in all (0 = header)
    std::string error;    // BAD: what was wrong, for the log
};

// Decodes the frame at the start of bytes. NEED_MORE until the whole frame is there (a bad
// header is reported as soon as it is complete).
DecodeResult DecodeFrame(const uint8_t* bytes, size_t size, Frame* frame);

// Encodes header, tables and the data size into head; the dataSize parcel bytes and their
// padding follow it on the wire (sent from the parcel itself). False when a limit is passed.
bool EncodeFrame(const Frame& frame, size_t dataSize, std::vector<uint8_t>* head, std::string* error);

// Zero bytes that follow dataSize bytes of data on the wire.
inline size_t IpcDataPadding(size_t dataSize)
{
    return (4 - (dataSize & 3)) & 3;
}

}  // namespace Vex
