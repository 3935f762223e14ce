// MessageParcel side tables: descriptors, remote objects, raw data, interface tokens.
#include "message_parcel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "iremote_stub.h"

namespace Vex {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Contents(const Parcel& parcel)
{
    return Bytes(parcel.GetData(), parcel.GetData() + parcel.GetDataSize());
}

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

TEST(MessageParcelTest, DescriptorReadBackStaysValidAfterOriginalAndParcelAreClosed)
{
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    int readCopy = -1;
    int parcelCopy = -1;
    {
        MessageParcel parcel;
        ASSERT_TRUE(parcel.WriteFileDescriptor(pipeFds[1]));
        EXPECT_EQ(Contents(parcel), (Bytes{0x43, 0x53, 0x44, 0x46, 0, 0, 0, 0}));
        close(pipeFds[1]);  // the caller's own descriptor goes away at once
        ASSERT_EQ(parcel.GetFileDescriptors().size(), 1u);
        parcelCopy = parcel.GetFileDescriptors()[0];
        readCopy = parcel.ReadFileDescriptor();
        ASSERT_GE(readCopy, 0);
        EXPECT_NE(readCopy, parcelCopy);  // a fresh duplicate for the reader
    }
    EXPECT_FALSE(IsOpen(parcelCopy));  // the parcel closed its own copy
    ASSERT_EQ(write(readCopy, "ok", 2), 2);
    close(readCopy);
    char buffer[4] = {};
    EXPECT_EQ(read(pipeFds[0], buffer, sizeof(buffer)), 2);
    EXPECT_STREQ(buffer, "ok");
    close(pipeFds[0]);
}

TEST(MessageParcelTest, InvalidDescriptorIsRefusedAndNonDescriptorReadsMinusOne)
{
    MessageParcel parcel;
    EXPECT_FALSE(parcel.WriteFileDescriptor(-1));
    EXPECT_EQ(parcel.GetDataSize(), 0u);
    parcel.WriteInt32(7);
    EXPECT_EQ(parcel.ReadFileDescriptor(), -1);
    EXPECT_EQ(parcel.ReadInt32(), 7);
}

TEST(MessageParcelTest, RemoteObjectReadBackIsTheSameObject)
{
    sptr<IPCObjectStub> stub = new IPCObjectStub(u"test.Object");
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteRemoteObject(stub));
    ASSERT_TRUE(parcel.WriteRemoteObject(nullptr));
    EXPECT_EQ(Contents(parcel), (Bytes{0x4A, 0x42, 0x4F, 0x52, 0, 0, 0, 0, 0, 0, 0, 0}));
    sptr<IRemoteObject> read = parcel.ReadRemoteObject();
    EXPECT_EQ(read.GetRefPtr(), static_cast<IRemoteObject*>(stub.GetRefPtr()));
    EXPECT_EQ(parcel.ReadRemoteObject(), nullptr);
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

TEST(MessageParcelTest, InterfaceTokenIsString16)
{
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteInterfaceToken(u"ab"));
    EXPECT_EQ(Contents(parcel), (Bytes{2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}));
    EXPECT_EQ(parcel.ReadInterfaceToken(), u"ab");
}

struct RawCase {
    const char* name;
    size_t size;
    bool outOfLine;
};

void PrintTo(const RawCase& c, std::ostream* os)
{
    *os << c.name;
}

class RawDataTest : public testing::TestWithParam<RawCase> {};

TEST_P(RawDataTest, PlacementFollowsTheInlineLimit)
{
    const RawCase& c = GetParam();
    Bytes payload(c.size);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i * 7);
    }
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteRawData(payload.data(), payload.size()));
    ASSERT_TRUE(parcel.WriteInt32(99));  // what follows must still be found
    Bytes header(parcel.GetData(), parcel.GetData() + 8);
    uint32_t size = static_cast<uint32_t>(c.size);
    EXPECT_EQ(header,
              (Bytes{static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size >> 16),
                     static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(c.outOfLine ? 1 : 0), 0, 0, 0}));
    if (c.outOfLine) {
        EXPECT_EQ(parcel.GetDataSize(), 16u);  // size, placement, index, the Int32
        EXPECT_EQ(parcel.GetRawDataSize(), c.size);
    } else {
        EXPECT_EQ(parcel.GetDataSize(), 8 + ((c.size + 3) & ~size_t(3)) + 4);
        EXPECT_EQ(parcel.GetRawDataSize(), 0u);
    }
    EXPECT_EQ(parcel.ReadRawData(c.size + 1), nullptr);  // wrong size: refused, position kept
    EXPECT_EQ(parcel.GetReadPosition(), 0u);
    const void* read = parcel.ReadRawData(c.size);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(std::memcmp(read, payload.data(), c.size), 0);
    EXPECT_EQ(parcel.ReadInt32(), 99);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RawDataTest,
                         testing::Values(RawCase{"Small", 5, false},
                                         RawCase{"AtLimit", MessageParcel::RAW_DATA_INLINE_LIMIT, false},
                                         RawCase{"AboveLimit", MessageParcel::RAW_DATA_INLINE_LIMIT + 1, true},
                                         RawCase{"Megabytes", 3 * 1024 * 1024, true}),
                         [](const testing::TestParamInfo<RawCase>& info) { return std::string(info.param.name); });

TEST(MessageParcelTest, AdoptedRawBufferIsNotCopied)
{
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[64]());
    const uint8_t* address = buffer.get();
    MessageParcel parcel;
    ASSERT_TRUE(parcel.WriteRawData(std::move(buffer), 64));
    EXPECT_EQ(parcel.ReadRawData(64), address);
}

TEST(MessageParcelTest, CopyFromDuplicatesDescriptorsAndKeepsObjects)
{
    sptr<IPCObjectStub> stub = new IPCObjectStub(u"test.Object");
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    MessageParcel copy;
    {
        MessageParcel original;
        original.WriteString("head");
        original.WriteRemoteObject(stub);
        original.WriteFileDescriptor(pipeFds[1]);
        Bytes big(MessageParcel::RAW_DATA_INLINE_LIMIT * 2, 0x5A);
        original.WriteRawData(big.data(), big.size());
        ASSERT_TRUE(copy.CopyFrom(original));
    }
    close(pipeFds[1]);
    EXPECT_EQ(copy.ReadString(), "head");
    EXPECT_EQ(copy.ReadRemoteObject().GetRefPtr(), static_cast<IRemoteObject*>(stub.GetRefPtr()));
    int fd = copy.ReadFileDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, "x", 1), 1);
    close(fd);
    const auto* raw = static_cast<const uint8_t*>(copy.ReadRawData(MessageParcel::RAW_DATA_INLINE_LIMIT * 2));
    ASSERT_NE(raw, nullptr);
    EXPECT_EQ(raw[MessageParcel::RAW_DATA_INLINE_LIMIT], 0x5A);
    close(pipeFds[0]);
}

}  // namespace
}  // namespace Vex
