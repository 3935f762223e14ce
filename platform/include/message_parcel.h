// MessageParcel: the parcel of an IPC request or reply. Besides the Parcel primitives it
// carries remote objects, file descriptors and raw data of any size, each written into the
// byte stream as a small record and kept in side tables that a transport carries along:
//   - InterfaceToken: String16 of the descriptor (ReadInterfaceToken returns it);
//   - RemoteObject: Int32 tag 0x524F424A ("ROBJ"), Int32 index into the object table;
//     a null object is Int32 tag 0 only;
//   - FileDescriptor: Int32 tag 0x46445343 ("FDSC"), Int32 index into the descriptor table;
//     the parcel keeps its own duplicate (closed with the parcel), and ReadFileDescriptor
//     returns a fresh duplicate owned by the caller;
//   - RawData: Int32 size, Int32 placement (0 inline, 1 out of line); inline data follows
//     padded to 4 bytes; out of line, an Int32 index into the out-of-line table follows and
//     the bytes live in one separate immutable block there (no inline copy). Data above
//     RAW_DATA_INLINE_LIMIT bytes goes out of line, written into a sealed memfd (see
//     raw_data_block.h) so that a transport passes it to another process as a descriptor.
// Copies per raw byte: WriteRawData(pointer) copies once (inline: into the stream; out of
// line: the kernel's write into the memfd) unless the bytes are a block sealed in place
// (RawDataBuffer), which is taken as it is; WriteRawData(buffer) and ReadRawData copy none;
// CopyFrom shares the blocks.
// Thread-safety: none; a parcel belongs to one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "parcel.h"
#include "raw_data_block.h"

namespace Vex {

class IRemoteObject;

class MessageParcel : public Parcel {
public:
    static constexpr size_t RAW_DATA_INLINE_LIMIT = 32 * 1024;
    static constexpr size_t MAX_RAW_DATA_SIZE = 256 * 1024 * 1024;
    static constexpr int32_t REMOTE_OBJECT_TAG = 0x524F424A;
    static constexpr int32_t FILE_DESCRIPTOR_TAG = 0x46445343;

    MessageParcel();
    ~MessageParcel() override;

    bool WriteInterfaceToken(const std::u16string& name);
    std::u16string ReadInterfaceToken();

    bool WriteRemoteObject(const sptr<IRemoteObject>& object);
    sptr<IRemoteObject> ReadRemoteObject();

    // Duplicates fd into the parcel; false for an invalid descriptor.
    bool WriteFileDescriptor(int fd);
    // A new duplicate owned by the caller, or -1.
    int ReadFileDescriptor();

    // Copies size bytes (once) into the parcel (large data into a sealed memfd).
    bool WriteRawData(const void* data, size_t size);
    // Takes ownership of an existing buffer without copying (out of line).
    bool WriteRawData(std::unique_ptr<uint8_t[]> data, size_t size);
    // Pointer to size bytes owned by the parcel, null when the next item is not raw data of
    // exactly that size.
    const void* ReadRawData(size_t size);
    size_t GetRawDataSize() const;  // total raw bytes held out of line

    // Side tables, for transports.
    const std::vector<sptr<IRemoteObject>>& GetObjects() const { return objects_; }
    const std::vector<int>& GetFileDescriptors() const { return fds_; }
    const std::vector<std::shared_ptr<const RawDataBlock>>& GetOutOfLineData() const { return raw_; }
    void AppendObject(const sptr<IRemoteObject>& object) { objects_.push_back(object); }
    void AdoptFileDescriptor(int fd) { fds_.push_back(fd); }
    void AppendOutOfLineData(std::shared_ptr<const RawDataBlock> block) { raw_.push_back(std::move(block)); }
    // Copies the bytes and side tables of another parcel (descriptors are duplicated, raw
    // data blocks shared: they are immutable).
    bool CopyFrom(const MessageParcel& other);

private:
    std::vector<sptr<IRemoteObject>> objects_;
    std::vector<int> fds_;
    bool AppendRawBlock(std::shared_ptr<const RawDataBlock> block);
    std::vector<std::shared_ptr<const RawDataBlock>> raw_;
};

}  // namespace Vex
