// Parcel: the byte layout is documented in parcel.h. Integers are encoded byte by byte so that
// the wire format stays little-endian whatever the host.
#include "parcel.h"

#include <cstring>
#include <type_traits>

namespace Vex {

namespace {

constexpr size_t ALIGNMENT = 4;

size_t AlignUp(size_t size)
{
    return (size + ALIGNMENT - 1) & ~(ALIGNMENT - 1);
}

template <typename T>
void EncodeLittleEndian(T value, uint8_t* out)
{
    using U = std::make_unsigned_t<T>;
    U bits = static_cast<U>(value);
    for (size_t i = 0; i < sizeof(T); ++i) {
        out[i] = static_cast<uint8_t>(bits >> (8 * i));
    }
}

template <typename T>
T DecodeLittleEndian(const uint8_t* in)
{
    using U = std::make_unsigned_t<T>;
    U bits = 0;
    for (size_t i = 0; i < sizeof(T); ++i) {
        bits |= static_cast<U>(static_cast<U>(in[i]) << (8 * i));
    }
    return static_cast<T>(bits);
}

// Restores the read position unless the read is committed: a failed composite read (a string
// whose length fits but whose bytes do not) must leave the parcel as it found it.
class ReadTransaction {
public:
    ReadTransaction(Parcel& parcel) : parcel_(parcel), start_(parcel.GetReadPosition()) {}
    ~ReadTransaction()
    {
        if (!committed_) {
            parcel_.RewindRead(start_);
        }
    }
    void Commit() { committed_ = true; }

private:
    Parcel& parcel_;
    size_t start_;
    bool committed_ = false;
};

// A vector is an Int32 count then its items; a failed write leaves the parcel as it was.
template <typename T, typename WriteOne>
bool WriteVector(Parcel& parcel, const std::vector<T>& value, WriteOne writeOne)
{
    if (value.size() > static_cast<size_t>(INT32_MAX)) {
        return false;
    }
    const size_t start = parcel.GetWritePosition();
    bool ok = parcel.WriteInt32(static_cast<int32_t>(value.size()));
    for (size_t i = 0; ok && i < value.size(); ++i) {
        ok = writeOne(parcel, value[i]);
    }
    if (!ok) {
        parcel.RewindWrite(start);
    }
    return ok;
}

// Refuses a count the readable bytes cannot hold before allocating anything; a failed read
// leaves the read position where it was.
template <typename T, typename ReadOne>
bool ReadVector(Parcel& parcel, std::vector<T>* value, size_t minItemSize, ReadOne readOne)
{
    if (value == nullptr) {
        return false;
    }
    ReadTransaction transaction(parcel);
    int32_t count = 0;
    if (!parcel.ReadInt32(count) || count < 0 || static_cast<size_t>(count) > parcel.GetReadableBytes() / minItemSize) {
        return false;
    }
    std::vector<T> result(static_cast<size_t>(count));
    for (auto& item : result) {
        if (!readOne(parcel, item)) {
            return false;
        }
    }
    value->swap(result);
    transaction.Commit();
    return true;
}

}  // namespace

Parcel::Parcel() : maxCapacity_(DEFAULT_MAX_CAPACITY) {}

Parcel::~Parcel() = default;

bool Parcel::WriteAligned(const void* data, size_t size)
{
    size_t padded = AlignUp(size);
    if (padded < size || padded > maxCapacity_ || data_.size() > maxCapacity_ - padded) {
        return false;
    }
    if (size > 0 && data == nullptr) {
        return false;
    }
    size_t offset = data_.size();
    data_.resize(offset + padded, 0);
    if (size > 0) {
        std::memcpy(data_.data() + offset, data, size);
    }
    return true;
}

const uint8_t* Parcel::ReadAligned(size_t size)
{
    size_t available = data_.size() - readPos_;
    if (size > available) {
        return nullptr;
    }
    static const uint8_t empty = 0;
    const uint8_t* result = data_.empty() ? &empty : data_.data() + readPos_;
    // Tolerates a last item whose padding was never written (a rewound write position).
    size_t padded = AlignUp(size);
    readPos_ += padded <= available ? padded : available;
    return result;
}

bool Parcel::WriteBool(bool value)
{
    return WriteInt32(value ? 1 : 0);
}

bool Parcel::WriteInt8(int8_t value)
{
    return WriteInt32(value);
}

bool Parcel::WriteInt16(int16_t value)
{
    return WriteInt32(value);
}

bool Parcel::WriteInt32(int32_t value)
{
    uint8_t bytes[sizeof(value)];
    EncodeLittleEndian(value, bytes);
    return WriteAligned(bytes, sizeof(bytes));
}

bool Parcel::WriteUint32(uint32_t value)
{
    uint8_t bytes[sizeof(value)];
    EncodeLittleEndian(value, bytes);
    return WriteAligned(bytes, sizeof(bytes));
}

bool Parcel::WriteInt64(int64_t value)
{
    uint8_t bytes[sizeof(value)];
    EncodeLittleEndian(value, bytes);
    return WriteAligned(bytes, sizeof(bytes));
}

bool Parcel::WriteUint64(uint64_t value)
{
    uint8_t bytes[sizeof(value)];
    EncodeLittleEndian(value, bytes);
    return WriteAligned(bytes, sizeof(bytes));
}

bool Parcel::WriteString(const std::string& value)
{
    if (value.size() > static_cast<size_t>(INT32_MAX) - 1) {
        return false;
    }
    size_t start = data_.size();
    // Length, bytes and the terminating NUL (already there: c_str() is NUL-terminated).
    if (!WriteInt32(static_cast<int32_t>(value.size())) || !WriteAligned(value.c_str(), value.size() + 1)) {
        RewindWrite(start);
        return false;
    }
    return true;
}

bool Parcel::WriteCString(const char* value)
{
    if (value == nullptr) {
        return WriteInt32(-1);
    }
    return WriteString(std::string(value));
}

bool Parcel::WriteString16(const std::u16string& value)
{
    if (value.size() > static_cast<size_t>(INT32_MAX / 2) - 1) {
        return false;
    }
    std::vector<uint8_t> bytes((value.size() + 1) * 2, 0);
    for (size_t i = 0; i < value.size(); ++i) {
        EncodeLittleEndian(static_cast<uint16_t>(value[i]), &bytes[i * 2]);
    }
    size_t start = data_.size();
    if (!WriteInt32(static_cast<int32_t>(value.size())) || !WriteAligned(bytes.data(), bytes.size())) {
        RewindWrite(start);
        return false;
    }
    return true;
}

bool Parcel::WriteBuffer(const void* data, size_t size)
{
    return WriteAligned(data, size);
}

bool Parcel::WriteInt32Vector(const std::vector<int32_t>& value)
{
    return WriteVector(*this, value, [](Parcel& parcel, int32_t item) { return parcel.WriteInt32(item); });
}

bool Parcel::WriteUInt32Vector(const std::vector<uint32_t>& value)
{
    return WriteVector(*this, value, [](Parcel& parcel, uint32_t item) { return parcel.WriteUint32(item); });
}

bool Parcel::WriteStringVector(const std::vector<std::string>& value)
{
    return WriteVector(*this, value, [](Parcel& parcel, const std::string& item) { return parcel.WriteString(item); });
}

bool Parcel::WriteParcelable(const Parcelable* object)
{
    if (object == nullptr) {
        return WriteInt32(0);
    }
    // A failed Marshalling is reported, not rolled back: the caller decides what to do.
    return WriteInt32(1) && object->Marshalling(*this);
}

bool Parcel::WriteStrongParcelable(const sptr<Parcelable>& object)
{
    return WriteParcelable(object.GetRefPtr());
}

bool Parcel::ReadBool()
{
    return ReadInt32() != 0;
}

int8_t Parcel::ReadInt8()
{
    return static_cast<int8_t>(ReadInt32());
}

int16_t Parcel::ReadInt16()
{
    return static_cast<int16_t>(ReadInt32());
}

int32_t Parcel::ReadInt32()
{
    int32_t value = 0;
    ReadInt32(value);
    return value;
}

uint32_t Parcel::ReadUint32()
{
    uint32_t value = 0;
    ReadUint32(value);
    return value;
}

int64_t Parcel::ReadInt64()
{
    int64_t value = 0;
    ReadInt64(value);
    return value;
}

uint64_t Parcel::ReadUint64()
{
    uint64_t value = 0;
    ReadUint64(value);
    return value;
}

std::string Parcel::ReadString()
{
    std::string value;
    ReadString(value);
    return value;
}

const char* Parcel::ReadCString()
{
    ReadTransaction transaction(*this);
    int32_t length = 0;
    if (!ReadInt32(length) || length < 0) {
        if (length == -1) {
            transaction.Commit();  // a null string is a successful read of null
        }
        return nullptr;
    }
    const uint8_t* bytes = ReadAligned(static_cast<size_t>(length) + 1);
    if (bytes == nullptr || bytes[length] != 0) {
        return nullptr;
    }
    transaction.Commit();
    return reinterpret_cast<const char*>(bytes);
}

std::u16string Parcel::ReadString16()
{
    std::u16string value;
    ReadString16(value);
    return value;
}

bool Parcel::ReadBool(bool& value)
{
    int32_t raw = 0;
    if (!ReadInt32(raw)) {
        value = false;
        return false;
    }
    value = raw != 0;
    return true;
}

bool Parcel::ReadInt32(int32_t& value)
{
    const uint8_t* bytes = ReadAligned(sizeof(value));
    value = bytes != nullptr ? DecodeLittleEndian<int32_t>(bytes) : 0;
    return bytes != nullptr;
}

bool Parcel::ReadUint32(uint32_t& value)
{
    const uint8_t* bytes = ReadAligned(sizeof(value));
    value = bytes != nullptr ? DecodeLittleEndian<uint32_t>(bytes) : 0;
    return bytes != nullptr;
}

bool Parcel::ReadInt64(int64_t& value)
{
    const uint8_t* bytes = ReadAligned(sizeof(value));
    value = bytes != nullptr ? DecodeLittleEndian<int64_t>(bytes) : 0;
    return bytes != nullptr;
}

bool Parcel::ReadUint64(uint64_t& value)
{
    const uint8_t* bytes = ReadAligned(sizeof(value));
    value = bytes != nullptr ? DecodeLittleEndian<uint64_t>(bytes) : 0;
    return bytes != nullptr;
}

bool Parcel::ReadString(std::string& value)
{
    value.clear();
    ReadTransaction transaction(*this);
    int32_t length = 0;
    if (!ReadInt32(length)) {
        return false;
    }
    if (length < 0) {
        if (length != -1) {
            return false;
        }
        transaction.Commit();  // null string: read as empty
        return true;
    }
    const uint8_t* bytes = ReadAligned(static_cast<size_t>(length) + 1);
    if (bytes == nullptr) {
        return false;
    }
    value.assign(reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
    transaction.Commit();
    return true;
}

bool Parcel::ReadString16(std::u16string& value)
{
    value.clear();
    ReadTransaction transaction(*this);
    int32_t length = 0;
    if (!ReadInt32(length)) {
        return false;
    }
    if (length < 0) {
        if (length != -1) {
            return false;
        }
        transaction.Commit();
        return true;
    }
    if (static_cast<size_t>(length) > GetReadableBytes() / 2) {
        return false;
    }
    const uint8_t* bytes = ReadAligned((static_cast<size_t>(length) + 1) * 2);
    if (bytes == nullptr) {
        return false;
    }
    value.resize(static_cast<size_t>(length));
    for (size_t i = 0; i < value.size(); ++i) {
        value[i] = static_cast<char16_t>(DecodeLittleEndian<uint16_t>(bytes + i * 2));
    }
    transaction.Commit();
    return true;
}

const uint8_t* Parcel::ReadBuffer(size_t size)
{
    return ReadAligned(size);
}

bool Parcel::ReadInt32Vector(std::vector<int32_t>* value)
{
    return ReadVector(*this, value, sizeof(int32_t),
                      [](Parcel& parcel, int32_t& item) { return parcel.ReadInt32(item); });
}

bool Parcel::ReadUInt32Vector(std::vector<uint32_t>* value)
{
    return ReadVector(*this, value, sizeof(uint32_t),
                      [](Parcel& parcel, uint32_t& item) { return parcel.ReadUint32(item); });
}

bool Parcel::ReadStringVector(std::vector<std::string>* value)
{
    // Every string takes at least 8 bytes (length and NUL with padding).
    return ReadVector(*this, value, 8, [](Parcel& parcel, std::string& item) { return parcel.ReadString(item); });
}

size_t Parcel::GetDataSize() const
{
    return data_.size();
}

size_t Parcel::GetReadPosition() const
{
    return readPos_;
}

size_t Parcel::GetWritePosition() const
{
    return data_.size();
}

size_t Parcel::GetReadableBytes() const
{
    return data_.size() - readPos_;
}

size_t Parcel::GetWritableBytes() const
{
    return maxCapacity_ > data_.size() ? maxCapacity_ - data_.size() : 0;
}

size_t Parcel::GetDataCapacity() const
{
    return data_.capacity();
}

bool Parcel::RewindRead(size_t position)
{
    if (position > data_.size()) {
        return false;
    }
    readPos_ = position;
    return true;
}

bool Parcel::RewindWrite(size_t position)
{
    if (position > data_.size()) {
        return false;
    }
    data_.resize(position);
    if (readPos_ > position) {
        readPos_ = position;
    }
    return true;
}

bool Parcel::SkipBytes(size_t bytes)
{
    return ReadAligned(bytes) != nullptr;
}

const uint8_t* Parcel::GetData() const
{
    return data_.data();
}

bool Parcel::SetMaxCapacity(size_t maxCapacity)
{
    if (maxCapacity < data_.size()) {
        return false;
    }
    maxCapacity_ = maxCapacity;
    return true;
}

size_t Parcel::GetMaxCapacity() const
{
    return maxCapacity_;
}

}  // namespace Vex
