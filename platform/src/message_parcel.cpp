// MessageParcel: side tables for objects, descriptors and large raw data next to the byte
// stream. The stream only holds tags and indices, so a transport can carry the tables its own
// way (object handles, SCM_RIGHTS, a shared buffer) without touching the bytes.
#include "message_parcel.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "iremote_object.h"

namespace Vex {

namespace {

constexpr int32_t RAW_INLINE = 0;
constexpr int32_t RAW_OUT_OF_LINE = 1;

int DuplicateDescriptor(int fd)
{
    return fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

}  // namespace

MessageParcel::MessageParcel() = default;

MessageParcel::~MessageParcel()
{
    for (int fd : fds_) {
        close(fd);
    }
}

bool MessageParcel::WriteInterfaceToken(const std::u16string& name)
{
    return WriteString16(name);
}

std::u16string MessageParcel::ReadInterfaceToken()
{
    return ReadString16();
}

bool MessageParcel::WriteRemoteObject(const sptr<IRemoteObject>& object)
{
    if (object == nullptr) {
        return WriteInt32(0);
    }
    size_t start = GetWritePosition();
    if (!WriteInt32(REMOTE_OBJECT_TAG) || !WriteInt32(static_cast<int32_t>(objects_.size()))) {
        RewindWrite(start);
        return false;
    }
    objects_.push_back(object);
    return true;
}

sptr<IRemoteObject> MessageParcel::ReadRemoteObject()
{
    size_t start = GetReadPosition();
    int32_t tag = 0;
    if (!ReadInt32(tag)) {
        return nullptr;
    }
    if (tag == 0) {
        return nullptr;  // a null object was written
    }
    int32_t index = -1;
    if (tag != REMOTE_OBJECT_TAG || !ReadInt32(index) || index < 0 || static_cast<size_t>(index) >= objects_.size()) {
        RewindRead(start);
        return nullptr;
    }
    return objects_[static_cast<size_t>(index)];
}

bool MessageParcel::WriteFileDescriptor(int fd)
{
    if (fd < 0) {
        return false;
    }
    int copy = DuplicateDescriptor(fd);
    if (copy < 0) {
        return false;
    }
    size_t start = GetWritePosition();
    if (!WriteInt32(FILE_DESCRIPTOR_TAG) || !WriteInt32(static_cast<int32_t>(fds_.size()))) {
        RewindWrite(start);
        close(copy);
        return false;
    }
    fds_.push_back(copy);
    return true;
}

int MessageParcel::ReadFileDescriptor()
{
    size_t start = GetReadPosition();
    int32_t tag = 0;
    int32_t index = -1;
    if (!ReadInt32(tag) || tag != FILE_DESCRIPTOR_TAG || !ReadInt32(index) || index < 0 ||
        static_cast<size_t>(index) >= fds_.size()) {
        RewindRead(start);
        return -1;
    }
    int copy = DuplicateDescriptor(fds_[static_cast<size_t>(index)]);
    if (copy < 0) {
        RewindRead(start);
    }
    return copy;
}

bool MessageParcel::WriteRawData(const void* data, size_t size)
{
    if (size > MAX_RAW_DATA_SIZE || (data == nullptr && size > 0)) {
        return false;
    }
    if (size <= RAW_DATA_INLINE_LIMIT) {
        size_t start = GetWritePosition();
        if (!WriteInt32(static_cast<int32_t>(size)) || !WriteInt32(RAW_INLINE) || !WriteBuffer(data, size)) {
            RewindWrite(start);
            return false;
        }
        return true;
    }
    // Bytes received in place into a sealed memfd go on as that memfd.
    if (std::shared_ptr<const RawDataBlock> shared = RawDataBlock::FindShared(data, size)) {
        return AppendRawBlock(std::move(shared));
    }
    std::string error;
    std::shared_ptr<const RawDataBlock> block = RawDataBlock::FromBytes(data, size, &error);
    if (block == nullptr) {
        // No memfd (descriptor limit): a heap copy still serves this process.
        std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[size]);
        if (copy == nullptr) {
            return false;
        }
        std::memcpy(copy.get(), data, size);
        block = RawDataBlock::Adopt(std::move(copy), size);
    }
    return AppendRawBlock(std::move(block));
}

bool MessageParcel::WriteRawData(std::unique_ptr<uint8_t[]> data, size_t size)
{
    if (size > MAX_RAW_DATA_SIZE || (data == nullptr && size > 0)) {
        return false;
    }
    return AppendRawBlock(RawDataBlock::Adopt(std::move(data), size));
}

bool MessageParcel::AppendRawBlock(std::shared_ptr<const RawDataBlock> block)
{
    size_t start = GetWritePosition();
    if (!WriteInt32(static_cast<int32_t>(block->Size())) || !WriteInt32(RAW_OUT_OF_LINE) ||
        !WriteInt32(static_cast<int32_t>(raw_.size()))) {
        RewindWrite(start);
        return false;
    }
    raw_.push_back(std::move(block));
    return true;
}

const void* MessageParcel::ReadRawData(size_t size)
{
    size_t start = GetReadPosition();
    int32_t written = 0;
    int32_t placement = 0;
    if (!ReadInt32(written) || written < 0 || static_cast<size_t>(written) != size || !ReadInt32(placement)) {
        RewindRead(start);
        return nullptr;
    }
    if (placement == RAW_INLINE) {
        const uint8_t* bytes = ReadBuffer(size);
        if (bytes == nullptr) {
            RewindRead(start);
        }
        return bytes;
    }
    int32_t index = -1;
    if (placement != RAW_OUT_OF_LINE || !ReadInt32(index) || index < 0 || static_cast<size_t>(index) >= raw_.size() ||
        raw_[static_cast<size_t>(index)]->Size() != size) {
        RewindRead(start);
        return nullptr;
    }
    return raw_[static_cast<size_t>(index)]->Data();
}

size_t MessageParcel::GetRawDataSize() const
{
    size_t total = 0;
    for (const auto& block : raw_) {
        total += block->Size();
    }
    return total;
}

bool MessageParcel::CopyFrom(const MessageParcel& other)
{
    if (&other == this) {
        return true;
    }
    std::vector<int> fds;
    fds.reserve(other.fds_.size());
    for (int fd : other.fds_) {
        int copy = DuplicateDescriptor(fd);
        if (copy < 0) {
            for (int opened : fds) {
                close(opened);
            }
            return false;
        }
        fds.push_back(copy);
    }
    size_t maxCapacity = GetMaxCapacity();
    RewindWrite(0);
    SetMaxCapacity(other.GetMaxCapacity() > maxCapacity ? other.GetMaxCapacity() : maxCapacity);
    if (!WriteBuffer(other.GetData(), other.GetDataSize())) {
        for (int opened : fds) {
            close(opened);
        }
        return false;
    }
    RewindRead(0);
    for (int fd : fds_) {
        close(fd);
    }
    fds_ = std::move(fds);
    objects_ = other.objects_;
    raw_ = other.raw_;
    return true;
}

}  // namespace Vex
