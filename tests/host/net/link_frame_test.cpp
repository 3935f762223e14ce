// The frame codec as a pure unit: header checks per connection role and limit, stream
// splitting at every byte boundary, and the structured bodies.
#include <gtest/gtest.h>

#include <cstring>

#include "net_frame.h"

namespace QUEX {
namespace Tandra {
namespace {

std::string Header(FrameType type, uint32_t length, uint8_t flags = 0)
{
    FrameHeader h;
    h.type = type;
    h.flags = flags;
    h.a = 5;
    h.b = 6;
    h.c = 7;
    h.length = length;
    std::string out(FRAME_HEADER_SIZE, '\0');
    EncodeFrameHeader(h, reinterpret_cast<uint8_t*>(&out[0]));
    return out;
}

struct HeaderRow {
    const char* name;
    std::string bytes;
    FrameRole role;
    const char* error;  // "" when accepted
};

void PrintTo(const HeaderRow& row, std::ostream* os)
{
    *os << row.name;
}


class FrameHeaderTest : public ::testing::TestWithParam<HeaderRow> {};

TEST_P(FrameHeaderTest, AcceptsOnlyWellFormedFramesAllowedOnTheConnection)
{
    FrameLimits limits;
    limits.maxControlBody = 100;
    limits.maxDataBody = 1000;
    FrameHeader h;
    std::string error;
    bool ok = DecodeFrameHeader(reinterpret_cast<const uint8_t*>(GetParam().bytes.data()), GetParam().role, limits,
                                &h, &error);
    if (std::string(GetParam().error).empty()) {
        ASSERT_TRUE(ok) << error;
        EXPECT_EQ(h.a, 5u);
        EXPECT_EQ(h.b, 6u);
        EXPECT_EQ(h.c, 7u);
    } else {
        EXPECT_FALSE(ok);
        EXPECT_NE(error.find(GetParam().error), std::string::npos) << error;
    }
}

std::string Patched(std::string bytes, size_t at, char value)
{
    bytes[at] = value;
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FrameHeaderTest,
    ::testing::Values(
        HeaderRow{"DataAtTheLimit", Header(FrameType::DATA_MESSAGE, 1000, FRAME_FLAG_FIRST), FrameRole::DATA, ""},
        HeaderRow{"DataPastTheLimit", Header(FrameType::DATA_MESSAGE, 1001), FrameRole::DATA, "exceeds the limit"},
        HeaderRow{"DataOnControl", Header(FrameType::DATA_MESSAGE, 1), FrameRole::CONTROL, "not allowed"},
        HeaderRow{"ControlOnData", Header(FrameType::CTRL_MESSAGE, 1), FrameRole::DATA, "not allowed"},
        HeaderRow{"ControlPastTheLimit", Header(FrameType::CTRL_MESSAGE, 101), FrameRole::CONTROL, "exceeds"},
        HeaderRow{"AnythingButHelloFirst", Header(FrameType::HEARTBEAT, 0), FrameRole::HANDSHAKE, "not allowed"},
        HeaderRow{"HeartbeatWithBody", Header(FrameType::HEARTBEAT, 1), FrameRole::CONTROL, "exceeds"},
        HeaderRow{"HugeHello", Header(FrameType::HELLO, 1u << 30), FrameRole::HANDSHAKE, "exceeds"},
        HeaderRow{"UnknownType", Header(static_cast<FrameType>(99), 0), FrameRole::CONTROL, "not allowed"},
        HeaderRow{"BadMagic", Patched(Header(FrameType::HEARTBEAT, 0), 0, 'X'), FrameRole::CONTROL, "bad magic"},
        HeaderRow{"BadVersion", Patched(Header(FrameType::HEARTBEAT, 0), 3, 9), FrameRole::CONTROL, "version"},
        HeaderRow{"ReservedBytes", Patched(Header(FrameType::HEARTBEAT, 0), 6, 1), FrameRole::CONTROL, "reserved"},
        HeaderRow{"FlagsOnControl", Header(FrameType::CTRL_MESSAGE, 0, 1), FrameRole::CONTROL, "flags"},
        HeaderRow{"UnknownDataFlag", Header(FrameType::DATA_MESSAGE, 0, 0x80), FrameRole::DATA, "flags"}),
    [](const ::testing::TestParamInfo<HeaderRow>& info) { return info.param.name; });

TEST(FrameDecoderTest, SplitsAStreamFedInPiecesOfAnySize)
{
    HelloInfo hello;
    hello.deviceName = "B";
    hello.port = 4000;
    std::string helloBody = EncodeHello(hello);
    std::string stream = Header(FrameType::HELLO, static_cast<uint32_t>(helloBody.size())) + helloBody +
                         Header(FrameType::CTRL_MESSAGE, 3) + "abc" + Header(FrameType::HEARTBEAT, 0) +
                         Header(FrameType::CTRL_MESSAGE, 0);
    for (size_t piece = 1; piece <= stream.size(); ++piece) {
        FrameDecoder decoder(FrameRole::HANDSHAKE, FrameLimits());
        std::vector<FrameDecoder::Frame> frames;
        for (size_t at = 0; at < stream.size(); at += piece) {
            ASSERT_TRUE(decoder.Feed(stream.data() + at, std::min(piece, stream.size() - at), &frames))
                << decoder.Error();
        }
        ASSERT_EQ(frames.size(), 4u) << "piece " << piece;
        EXPECT_EQ(std::string(frames[1].body.begin(), frames[1].body.end()), "abc");
        EXPECT_EQ(frames[2].header.type, FrameType::HEARTBEAT);
        EXPECT_TRUE(frames[3].body.empty());
    }
}

TEST(FrameDecoderTest, StopsAtTheFirstBadFrameAndStaysFailed)
{
    FrameDecoder decoder(FrameRole::CONTROL, FrameLimits());
    std::vector<FrameDecoder::Frame> frames;
    std::string stream = Header(FrameType::HEARTBEAT, 0) + Header(FrameType::CTRL_MESSAGE, 5u << 20);
    EXPECT_FALSE(decoder.Feed(stream.data(), stream.size(), &frames));
    EXPECT_EQ(frames.size(), 1u);
    EXPECT_FALSE(decoder.Feed(stream.data(), FRAME_HEADER_SIZE, &frames));
    EXPECT_NE(decoder.Error().find("exceeds"), std::string::npos);
}

TEST(FrameBodiesTest, RoundTripAndRejectMalformedBodies)
{
    std::string name;
    std::string text;
    std::string error;
    std::string body = EncodeOpenSession("00000000001-X", "{\"a\":1}");
    ASSERT_TRUE(ParseOpenSession(body.data(), body.size(), &name, &text, &error));
    EXPECT_EQ(name, "00000000001-X");
    EXPECT_EQ(text, "{\"a\":1}");
    std::string longName = body;
    longName[0] = 0x7f;
    EXPECT_FALSE(ParseOpenSession(longName.data(), longName.size(), &name, &text, &error));
    EXPECT_FALSE(ParseOpenSession(body.data(), 3, &name, &text, &error));

    std::vector<AbilityInfo> abilities{{"com.example.camera", "Camera", "entry", "capture", "page"}};
    std::string list = EncodeAbilities(abilities);
    std::vector<AbilityInfo> parsed;
    ASSERT_TRUE(ParseAbilities(list.data(), list.size(), &parsed, &error));
    ASSERT_EQ(parsed.size(), 1u);
    EXPECT_EQ(parsed[0].bundleName, "com.example.camera");
    EXPECT_EQ(parsed[0].abilityType, "page");

    HelloInfo hello;
    for (const std::string& bad : std::vector<std::string>{"{", "[]", "{\"type\":1,\"port\":70000,\"role\":\"control\",\"pair\":false}",
                                  "{\"type\":1,\"port\":1,\"role\":\"other\",\"pair\":false}",
                                  "{\"name\":5,\"type\":1,\"port\":1,\"role\":\"data\",\"pair\":false}",
                                  std::string(40, '['), "{\"a\":" + std::string(40, '[')}) {
        EXPECT_FALSE(ParseHello(bad.data(), bad.size(), &hello, &error)) << bad;
    }
    // A peer nesting past the reader's limit gets an error, not an exception through the decoder.
    std::string deep = std::string(40, '[') + std::string(40, ']');
    EXPECT_FALSE(ParseAbilities(deep.data(), deep.size(), &parsed, &error));
    EXPECT_NE(error.find("nested"), std::string::npos) << error;
}

}  // namespace
}  // namespace Tandra
}  // namespace QUEX
