// Frame codec: every length is checked against both the limits and the bytes at hand before
// it is used, so no input makes the decoder read out of bounds or allocate past the limits.
#include "ipc_frame.h"

#include <cstring>

namespace Vex {

namespace {

class Reader {
public:
    Reader(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(size) {}
    bool U16(uint16_t* value) { return Take(value, 2); }
    bool U32(uint32_t* value) { return Take(value, 4); }
    bool U64(uint64_t* value) { return Take(value, 8); }
    const uint8_t* Bytes(size_t count)
    {
        if (count > size_ - pos_) {
            return nullptr;
        }
        const uint8_t* start = bytes_ + pos_;
        pos_ += count;
        return start;
    }
    size_t Position() const { return pos_; }

private:
    template <typename T>
    bool Take(T* value, size_t count)
    {
        const uint8_t* p = Bytes(count);
        if (p == nullptr) {
            return false;
        }
        T result = 0;
        for (size_t i = 0; i < count; ++i) {
            result |= static_cast<T>(static_cast<T>(p[i]) << (8 * i));
        }
        *value = result;
        return true;
    }
    const uint8_t* bytes_;
    size_t size_;
    size_t pos_ = 0;
};

void Put(std::vector<uint8_t>* out, uint64_t value, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out->push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

size_t Pad4(size_t size)
{
    return (size + 3) & ~size_t(3);
}

bool ZeroPadding(const uint8_t* bytes, size_t used, size_t padded)
{
    for (size_t i = used; i < padded; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

DecodeResult Bad(std::string error)
{
    DecodeResult result;
    result.status = DecodeStatus::BAD;
    result.error = std::move(error);
    return result;
}

}  // namespace

DecodeResult DecodeFrame(const uint8_t* bytes, size_t size, Frame* frame)
{
    if (size < IPC_FRAME_HEADER_SIZE) {
        return DecodeResult{DecodeStatus::NEED_MORE, IPC_FRAME_HEADER_SIZE, {}};
    }
    Reader header(bytes, IPC_FRAME_HEADER_SIZE);
    uint32_t magic = 0;
    uint16_t version = 0;
    uint16_t type = 0;
    uint32_t bodySize = 0;
    Frame out;
    header.U32(&magic);
    header.U16(&version);
    header.U16(&type);
    header.U32(&out.flags);
    header.U32(&out.code);
    header.U64(&out.transaction);
    header.U64(&out.handle);
    header.U32(&bodySize);
    header.U32(&out.fdCount);
    if (magic != IPC_FRAME_MAGIC) {
        return Bad("bad frame magic");
    }
    if (version != IPC_FRAME_VERSION) {
        return Bad("unsupported frame version " + std::to_string(version));
    }
    if (type < static_cast<uint16_t>(FrameType::REQUEST) || type > static_cast<uint16_t>(FrameType::RELEASE)) {
        return Bad("unknown frame type " + std::to_string(type));
    }
    out.type = static_cast<FrameType>(type);
    if (bodySize < IPC_BODY_FIXED_SIZE || bodySize > IPC_MAX_BODY_SIZE) {
        return Bad("frame body size " + std::to_string(bodySize) + " out of range");
    }
    if (out.fdCount > IPC_MAX_FDS) {
        return Bad("frame announces " + std::to_string(out.fdCount) + " descriptors, limit " +
                   std::to_string(IPC_MAX_FDS));
    }
    if (out.type == FrameType::RELEASE && (out.code == 0 || out.fdCount != 0)) {
        return Bad("release frame without a count or with descriptors");
    }
    size_t total = IPC_FRAME_HEADER_SIZE + bodySize;
    if (size < total) {
        return DecodeResult{DecodeStatus::NEED_MORE, total, {}};
    }

    Reader body(bytes + IPC_FRAME_HEADER_SIZE, bodySize);
    uint32_t objectCount = 0;
    uint32_t rawCount = 0;
    uint32_t reserved = 0;
    body.U32(&objectCount);
    body.U32(&rawCount);
    body.U32(&out.dataSize);
    body.U32(&reserved);
    if (objectCount > IPC_MAX_OBJECTS || rawCount > IPC_MAX_RAW_ITEMS || out.dataSize > IPC_MAX_DATA_SIZE ||
        reserved != 0) {
        return Bad("frame tables past their limits (" + std::to_string(objectCount) + " objects, " +
                   std::to_string(rawCount) + " raw items, " + std::to_string(out.dataSize) + " data bytes)");
    }
    if (rawCount > out.fdCount) {
        return Bad("frame has more raw items than descriptors");
    }
    if (out.type == FrameType::RELEASE && (objectCount != 0 || out.dataSize != 0)) {
        return Bad("release frame with a payload");
    }
    out.objects.reserve(objectCount);
    for (uint32_t i = 0; i < objectCount; ++i) {
        uint32_t kind = 0;
        uint32_t units = 0;
        FrameObject object;
        if (!body.U32(&kind) || !body.U32(&units) || !body.U64(&object.handle)) {
            return Bad("frame object table cut short");
        }
        if (kind != static_cast<uint32_t>(ObjectKind::SENDER) && kind != static_cast<uint32_t>(ObjectKind::RECEIVER)) {
            return Bad("unknown object kind " + std::to_string(kind));
        }
        if (units > IPC_MAX_DESCRIPTOR_UNITS) {
            return Bad("object descriptor too long");
        }
        object.kind = static_cast<ObjectKind>(kind);
        const uint8_t* text = body.Bytes(Pad4(size_t(units) * 2));
        if (text == nullptr) {
            return Bad("frame object table cut short");
        }
        // One encoding per frame: padding is zero, as the parcel's own format has it.
        if (!ZeroPadding(text, size_t(units) * 2, Pad4(size_t(units) * 2))) {
            return Bad("non-zero padding after an object descriptor");
        }
        object.descriptor.resize(units);
        for (uint32_t u = 0; u < units; ++u) {
            object.descriptor[u] = static_cast<char16_t>(text[2 * u] | (text[2 * u + 1] << 8));
        }
        out.objects.push_back(std::move(object));
    }
    out.rawSizes.resize(rawCount);
    for (uint32_t i = 0; i < rawCount; ++i) {
        if (!body.U64(&out.rawSizes[i])) {
            return Bad("frame raw table cut short");
        }
        if (out.rawSizes[i] > IPC_MAX_RAW_SIZE) {
            return Bad("raw item of " + std::to_string(out.rawSizes[i]) + " bytes past the limit");
        }
    }
    out.dataOffset = IPC_FRAME_HEADER_SIZE + body.Position();
    const uint8_t* data = body.Bytes(Pad4(out.dataSize));
    if (data == nullptr) {
        return Bad("frame data cut short");
    }
    if (!ZeroPadding(data, out.dataSize, Pad4(out.dataSize))) {
        return Bad("non-zero padding after the frame data");
    }
    if (body.Position() != bodySize) {
        return Bad("frame body longer than its contents");
    }
    *frame = std::move(out);
    return DecodeResult{DecodeStatus::FRAME, total, {}};
}

bool EncodeFrame(const Frame& frame, size_t dataSize, std::vector<uint8_t>* head, std::string* error)
{
    if (frame.objects.size() > IPC_MAX_OBJECTS || frame.rawSizes.size() > IPC_MAX_RAW_ITEMS ||
        dataSize > IPC_MAX_DATA_SIZE || frame.fdCount > IPC_MAX_FDS || frame.rawSizes.size() > frame.fdCount) {
        *error = "parcel past the transport's limits (" + std::to_string(frame.objects.size()) + " objects, " +
                 std::to_string(frame.fdCount) + " descriptors, " + std::to_string(frame.rawSizes.size()) +
                 " raw items, " + std::to_string(dataSize) + " bytes)";
        return false;
    }
    size_t bodySize = IPC_BODY_FIXED_SIZE + frame.rawSizes.size() * 8 + Pad4(dataSize);
    for (const FrameObject& object : frame.objects) {
        if (object.descriptor.size() > IPC_MAX_DESCRIPTOR_UNITS) {
            *error = "object descriptor too long for the transport";
            return false;
        }
        bodySize += 16 + Pad4(object.descriptor.size() * 2);
    }
    for (uint64_t rawSize : frame.rawSizes) {
        if (rawSize > IPC_MAX_RAW_SIZE) {
            *error = "raw data past the transport's limit";
            return false;
        }
    }
    head->clear();
    Put(head, IPC_FRAME_MAGIC, 4);
    Put(head, IPC_FRAME_VERSION, 2);
    Put(head, static_cast<uint16_t>(frame.type), 2);
    Put(head, frame.flags, 4);
    Put(head, frame.code, 4);
    Put(head, frame.transaction, 8);
    Put(head, frame.handle, 8);
    Put(head, bodySize, 4);
    Put(head, frame.fdCount, 4);
    Put(head, frame.objects.size(), 4);
    Put(head, frame.rawSizes.size(), 4);
    Put(head, dataSize, 4);
    Put(head, 0, 4);
    for (const FrameObject& object : frame.objects) {
        Put(head, static_cast<uint32_t>(object.kind), 4);
        Put(head, object.descriptor.size(), 4);
        Put(head, object.handle, 8);
        for (char16_t unit : object.descriptor) {
            Put(head, unit, 2);
        }
        head->resize(Pad4(head->size()), 0);
    }
    for (uint64_t rawSize : frame.rawSizes) {
        Put(head, rawSize, 8);
    }
    return true;
}

}  // namespace Vex
