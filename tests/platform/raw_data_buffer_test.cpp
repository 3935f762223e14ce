// Buffers filled in place and sealed into shareable blocks, and parcels taking them without a copy.
#include "raw_data_buffer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "iremote_object.h"
#include "message_parcel.h"

namespace Vex {
namespace {

constexpr size_t PREFIX = 8;

std::unique_ptr<RawDataBuffer> Filled(size_t payload)
{
    std::string error;
    auto buffer = RawDataBuffer::Create(PREFIX, payload, &error);
    EXPECT_NE(buffer, nullptr) << error;
    if (buffer != nullptr) {
        std::vector<uint8_t> bytes(buffer->Size());
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<uint8_t>(i * 7 + 3);
        }
        // Pieces of uneven sizes, the first ending inside the prefix and the second crossing
        // into the payload, as a reader's chunks fall.
        size_t offset = 0;
        for (size_t piece = 5; offset < bytes.size(); piece = piece * 3 + 1) {
            size_t len = std::min(piece, bytes.size() - offset);
            EXPECT_TRUE(buffer->Write(offset, bytes.data() + offset, len, &error)) << error;
            offset += len;
        }
    }
    return buffer;
}

TEST(RawDataBufferTest, SealedPayloadIsInPlaceReadOnlyAndMapsInAnotherReader)
{
    // Sizes around a page boundary: the payload's end need not fill its last page.
    for (size_t payload : {size_t{1}, size_t{4096}, size_t{4097}, size_t{3} << 20}) {
        SCOPED_TRACE(payload);
        auto buffer = Filled(payload);
        ASSERT_NE(buffer, nullptr);
        std::string error;
        auto block = buffer->Seal(&error);
        ASSERT_NE(block, nullptr) << error;
        EXPECT_EQ(block->Data(), buffer->Data() + PREFIX);
        EXPECT_EQ(block->Size(), payload);
        // Prefix and payload both still read as written.
        for (size_t i = 0; i < buffer->Size(); ++i) {
            ASSERT_EQ(buffer->Data()[i], static_cast<uint8_t>(i * 7 + 3)) << i;
        }
        // What a receiving process does with the descriptor: it insists on the seals.
        int fd = dup(block->SharedFd());
        ASSERT_GE(fd, 0);
        auto mapped = RawDataBlock::Map(fd, payload, &error);
        ASSERT_NE(mapped, nullptr) << error;
        EXPECT_EQ(std::memcmp(mapped->Data(), block->Data(), payload), 0);
        EXPECT_EQ(write(block->SharedFd(), "x", 1), -1);
        // The block outlives the buffer it was sealed from.
        buffer.reset();
        EXPECT_EQ(std::memcmp(mapped->Data(), block->Data(), payload), 0);
    }
}

TEST(RawDataBufferTest, RefusesWhatItCannotLayOut)
{
    std::string error;
    EXPECT_EQ(RawDataBuffer::Create(static_cast<size_t>(sysconf(_SC_PAGESIZE)), 100, &error), nullptr);
    EXPECT_EQ(RawDataBuffer::Create(PREFIX, 0, &error), nullptr);
    auto buffer = Filled(100);
    EXPECT_EQ(buffer->Data(), nullptr) << "readable before it is sealed";
    const uint8_t byte = 1;
    EXPECT_FALSE(buffer->Write(buffer->Size(), &byte, 1, &error)) << "a write past the end";
    EXPECT_FALSE(buffer->Write(SIZE_MAX, &byte, 2, &error)) << "an offset that wraps";
    ASSERT_NE(buffer->Seal(&error), nullptr) << error;
    EXPECT_FALSE(buffer->Write(0, &byte, 1, &error)) << "a write after sealing";
    EXPECT_EQ(buffer->Seal(&error), nullptr);
}

TEST(RawDataBufferTest, ParcelTakesExactlyTheSealedPayloadAndCopiesAnythingElse)
{
    const size_t payload = MessageParcel::RAW_DATA_INLINE_LIMIT * 4;
    auto buffer = Filled(payload);
    std::string error;
    auto block = buffer->Seal(&error);
    ASSERT_NE(block, nullptr) << error;

    struct Case {
        const char* name;
        const uint8_t* data;
        size_t size;
        bool shared;
    };
    const Case cases[] = {
        {"the payload", block->Data(), payload, true},
        {"payload cut short", block->Data(), payload - 1, false},
        {"inside the payload", block->Data() + 1, payload - 1, false},
        {"prefix and payload", buffer->Data(), buffer->Size(), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MessageParcel parcel;
        ASSERT_TRUE(parcel.WriteRawData(c.data, c.size));
        ASSERT_EQ(parcel.GetOutOfLineData().size(), 1u);
        EXPECT_EQ(parcel.GetOutOfLineData()[0] == block, c.shared);
        const void* read = parcel.ReadRawData(c.size);
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(std::memcmp(read, c.data, c.size), 0);
    }
}

TEST(RawDataBufferTest, ReleasedBlockIsNoLongerFound)
{
    auto buffer = Filled(64 * 1024);
    std::string error;
    auto block = buffer->Seal(&error);
    ASSERT_NE(block, nullptr) << error;
    const uint8_t* data = block->Data();
    const size_t size = block->Size();
    EXPECT_EQ(RawDataBlock::FindShared(data, size), block);
    buffer.reset();
    block.reset();
    EXPECT_EQ(RawDataBlock::FindShared(data, size), nullptr);
}

}  // namespace
}  // namespace Vex
