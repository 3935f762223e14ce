// Parcel: a growable byte buffer with independent read and write positions, and the
// Parcelable protocol for records that cross IPC. The byte layout is a wire format shared by
// both ends of a transport, so it is fixed here:
//   - every item starts on a 4-byte boundary; padding bytes are zero; integers little-endian;
//   - Int32/Uint32/Bool: 4 bytes (Bool is 0 or 1 as an Int32); Int64/Uint64: 8 bytes;
//   - String: Int32 byte length (-1 for a null string), the bytes, one NUL, zero padding;
//   - String16: Int32 length in UTF-16 units, the units, one NUL unit, zero padding;
//   - Buffer (WriteBuffer/ReadBuffer): the raw bytes, zero padding, no length prefix;
//   - StrongParcelable: Int32 presence flag (1 present, 0 null), then the object's Marshalling.
// A read past the end yields 0 / empty and leaves the read position unchanged; the
// bool-returning Read forms report that failure.
// Thread-safety: none; a parcel belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "refbase.h"

namespace Vex {

class Parcel;

class Parcelable : public virtual RefBase {
public:
    ~Parcelable() override = default;
    // Writes the object into the parcel; false when a write failed.
    virtual bool Marshalling(Parcel& parcel) const = 0;
    // Subclasses provide: static T* Unmarshalling(Parcel& parcel) (or sptr<T>), null on failure.
};

class Parcel {
public:
    // Default limit of the byte stream; large payloads travel as MessageParcel raw data.
    static constexpr size_t DEFAULT_MAX_CAPACITY = 256 * 1024 * 1024;

    Parcel();
    virtual ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    bool WriteBool(bool value);
    bool WriteInt8(int8_t value);
    bool WriteInt16(int16_t value);
    bool WriteInt32(int32_t value);
    bool WriteUint32(uint32_t value);
    bool WriteInt64(int64_t value);
    bool WriteUint64(uint64_t value);
    bool WriteString(const std::string& value);
    bool WriteCString(const char* value);
    bool WriteString16(const std::u16string& value);
    bool WriteBuffer(const void* data, size_t size);
    bool WriteInt32Vector(const std::vector<int32_t>& value);
    bool WriteUInt32Vector(const std::vector<uint32_t>& value);
    bool WriteStringVector(const std::vector<std::string>& value);
    // Int32 presence flag, then object->Marshalling(*this) when present.
    bool WriteParcelable(const Parcelable* object);
    bool WriteStrongParcelable(const sptr<Parcelable>& object);

    bool ReadBool();
    int8_t ReadInt8();
    int16_t ReadInt16();
    int32_t ReadInt32();
    uint32_t ReadUint32();
    int64_t ReadInt64();
    uint64_t ReadUint64();
    std::string ReadString();
    const char* ReadCString();
    std::u16string ReadString16();
    bool ReadBool(bool& value);
    bool ReadInt32(int32_t& value);
    bool ReadUint32(uint32_t& value);
    bool ReadInt64(int64_t& value);
    bool ReadUint64(uint64_t& value);
    bool ReadString(std::string& value);
    bool ReadString16(std::u16string& value);
    // Pointer into the parcel's own storage (valid while the parcel lives), null when short.
    const uint8_t* ReadBuffer(size_t size);
    bool ReadInt32Vector(std::vector<int32_t>* value);
    bool ReadUInt32Vector(std::vector<uint32_t>* value);
    bool ReadStringVector(std::vector<std::string>* value);

    // Reads the presence flag then T::Unmarshalling; null when absent or unreadable.
    template <typename T>
    sptr<T> ReadStrongParcelable()
    {
        int32_t present = 0;
        if (!ReadInt32(present) || present == 0) {
            return nullptr;
        }
        return sptr<T>(T::Unmarshalling(*this));
    }
    template <typename T>
    T* ReadParcelable()
    {
        int32_t present = 0;
        if (!ReadInt32(present) || present == 0) {
            return nullptr;
        }
        return T::Unmarshalling(*this);
    }

    size_t GetDataSize() const;  // bytes written
    size_t GetReadPosition() const;
    size_t GetWritePosition() const;
    size_t GetReadableBytes() const;  // written but not yet read
    size_t GetWritableBytes() const;
    size_t GetDataCapacity() const;
    bool RewindRead(size_t position);
    bool RewindWrite(size_t position);
    bool SkipBytes(size_t bytes);
    const uint8_t* GetData() const;  // the written bytes
    // Test seam and a real limit: writes fail once the data would exceed this size.
    bool SetMaxCapacity(size_t maxCapacity);
    size_t GetMaxCapacity() const;

protected:
    bool WriteAligned(const void* data, size_t size);
    const uint8_t* ReadAligned(size_t size);

private:
    std::vector<uint8_t> data_;
    size_t readPos_ = 0;
    size_t maxCapacity_;
};

}  // namespace Vex
