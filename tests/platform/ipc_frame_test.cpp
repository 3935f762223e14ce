// The frame codec alone: what it encodes decodes to the same frame, a frame arrives only when
// complete, and every malformed field is refused with a reason.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "ipc_frame.h"

namespace Vex {
namespace {

Frame Sample()
{
    Frame frame;
    frame.type = FrameType::REQUEST;
    frame.flags = 1;
    frame.code = 77;
    frame.transaction = 0x1122334455667788ull;
    frame.handle = 9;
    frame.fdCount = 3;
    frame.objects.push_back(FrameObject{ObjectKind::SENDER, 4, u"test.IEcho1"});  // padded by 2 bytes
    frame.objects.push_back(FrameObject{ObjectKind::RECEIVER, 2, u""});
    frame.rawSizes.push_back(64 * 1024 * 1024);
    return frame;
}

std::vector<uint8_t> Wire(const Frame& frame, const std::vector<uint8_t>& data)
{
    std::vector<uint8_t> bytes;
    std::string error;
    EXPECT_TRUE(EncodeFrame(frame, data.size(), &bytes, &error)) << error;
    bytes.insert(bytes.end(), data.begin(), data.end());
    bytes.resize(bytes.size() + IpcDataPadding(data.size()), 0);
    return bytes;
}

TEST(IpcFrameTest, RoundTripsAndArrivesOnlyWhenComplete)
{
    std::vector<uint8_t> data{1, 2, 3, 4, 5};
    std::vector<uint8_t> bytes = Wire(Sample(), data);
    bytes.push_back(0xAB);  // the start of the next frame stays unread
    for (size_t cut = 0; cut + 1 < bytes.size(); ++cut) {
        Frame frame;
        DecodeResult result = DecodeFrame(bytes.data(), cut, &frame);
        ASSERT_EQ(result.status, DecodeStatus::NEED_MORE) << cut;
        EXPECT_GT(result.consumed, cut);
    }
    Frame frame;
    DecodeResult result = DecodeFrame(bytes.data(), bytes.size(), &frame);
    ASSERT_EQ(result.status, DecodeStatus::FRAME) << result.error;
    EXPECT_EQ(result.consumed, bytes.size() - 1);
    Frame expected = Sample();
    EXPECT_EQ(frame.type, expected.type);
    EXPECT_EQ(frame.flags, expected.flags);
    EXPECT_EQ(frame.code, expected.code);
    EXPECT_EQ(frame.transaction, expected.transaction);
    EXPECT_EQ(frame.handle, expected.handle);
    EXPECT_EQ(frame.fdCount, expected.fdCount);
    EXPECT_EQ(frame.ParcelFdCount(), 2u);
    EXPECT_EQ(frame.objects, expected.objects);
    EXPECT_EQ(frame.rawSizes, expected.rawSizes);
    ASSERT_EQ(frame.dataSize, data.size());
    EXPECT_EQ(std::memcmp(bytes.data() + frame.dataOffset, data.data(), data.size()), 0);
}

TEST(IpcFrameTest, EncoderRefusesWhatTheDecoderWould)
{
    std::vector<uint8_t> bytes;
    std::string error;
    Frame frame = Sample();
    EXPECT_FALSE(EncodeFrame(frame, IPC_MAX_DATA_SIZE + 1, &bytes, &error));
    frame.fdCount = IPC_MAX_FDS + 1;
    EXPECT_FALSE(EncodeFrame(frame, 0, &bytes, &error));
    frame = Sample();
    frame.objects[0].descriptor.assign(IPC_MAX_DESCRIPTOR_UNITS + 1, u'x');
    EXPECT_FALSE(EncodeFrame(frame, 0, &bytes, &error));
}

struct Corruption {
    const char* name;
    std::function<void(std::vector<uint8_t>&)> apply;
    const char* error;
};

void PrintTo(const Corruption& c, std::ostream* os)
{
    *os << c.name;
}

void Put32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value)
{
    std::memcpy(bytes.data() + offset, &value, 4);
}

class IpcFrameCorruptionTest : public testing::TestWithParam<Corruption> {};

TEST_P(IpcFrameCorruptionTest, IsRefusedWithAReason)
{
    std::vector<uint8_t> bytes = Wire(Sample(), {9, 9, 9, 9, 9});  // padded by 3 bytes
    GetParam().apply(bytes);
    Frame frame;
    DecodeResult result = DecodeFrame(bytes.data(), bytes.size(), &frame);
    ASSERT_EQ(result.status, DecodeStatus::BAD);
    EXPECT_NE(result.error.find(GetParam().error), std::string::npos) << result.error;
}

// Offsets: header fields at 0 magic, 4 version, 6 type, 32 body size, 36 descriptors; body at
// 40 object count, 44 raw count, 48 data size, 52 reserved, 56 first object (kind, length).
INSTANTIATE_TEST_SUITE_P(
    Fields, IpcFrameCorruptionTest,
    testing::Values(
        Corruption{"Magic", [](auto& b) { b[0] ^= 1; }, "magic"},
        Corruption{"Version", [](auto& b) { b[4] = 2; }, "version"},
        Corruption{"Type", [](auto& b) { b[6] = 9; }, "frame type"},
        Corruption{"BodyTooSmall", [](auto& b) { Put32(b, 32, 8); }, "body size"},
        Corruption{"BodyTooLarge", [](auto& b) { Put32(b, 32, IPC_MAX_BODY_SIZE + 1); }, "body size"},
        Corruption{"TooManyDescriptors", [](auto& b) { Put32(b, 36, IPC_MAX_FDS + 1); }, "descriptors"},
        Corruption{"TooManyObjects", [](auto& b) { Put32(b, 40, IPC_MAX_OBJECTS + 1); }, "limits"},
        Corruption{"TooManyRawItems", [](auto& b) { Put32(b, 44, IPC_MAX_RAW_ITEMS + 1); }, "limits"},
        Corruption{"DataPastLimit", [](auto& b) { Put32(b, 48, IPC_MAX_DATA_SIZE + 1); }, "limits"},
        Corruption{"DataPastBody", [](auto& b) { Put32(b, 48, 4096); }, "cut short"},
        Corruption{"Reserved", [](auto& b) { Put32(b, 52, 1); }, "limits"},
        Corruption{"ObjectKind", [](auto& b) { Put32(b, 56, 7); }, "object kind"},
        Corruption{"DescriptorTooLong", [](auto& b) { Put32(b, 60, IPC_MAX_DESCRIPTOR_UNITS + 1); }, "too long"},
        Corruption{"DescriptorPastBody", [](auto& b) { Put32(b, 60, 200); }, "cut short"},
        Corruption{"DescriptorPadding", [](auto& b) { b[56 + 16 + 22] = 1; }, "padding"},
        Corruption{"DataPadding", [](auto& b) { b[b.size() - 1] = 1; }, "padding"},
        Corruption{"RawWithoutDescriptor", [](auto& b) { Put32(b, 36, 0); }, "more raw items"},
        Corruption{"RawPastLimit", [](auto& b) { Put32(b, 40 + 16 + 40 + 16 + 4, 0x7FFFFFFF); }, "past the limit"},
        Corruption{"TrailingBytes",
                   [](auto& b) {
                       Put32(b, 32, static_cast<uint32_t>(b.size() - IPC_FRAME_HEADER_SIZE + 4));
                       b.resize(b.size() + 4, 0);
                   },
                   "longer than its contents"},
        Corruption{"ReleaseWithoutCount",
                   [](auto& b) {
                       b[6] = static_cast<uint8_t>(FrameType::RELEASE);
                       Put32(b, 12, 0);
                   },
                   "release frame"}),
    [](const testing::TestParamInfo<Corruption>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Vex
