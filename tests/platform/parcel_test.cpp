// Parcel wire format, round trips, bounds and parcelables.
#include "parcel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>

namespace Vex {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Contents(const Parcel& parcel)
{
    return Bytes(parcel.GetData(), parcel.GetData() + parcel.GetDataSize());
}

class Point : public Parcelable {
public:
    Point(int32_t x, int32_t y) : x_(x), y_(y) {}
    bool Marshalling(Parcel& parcel) const override { return parcel.WriteInt32(x_) && parcel.WriteInt32(y_); }
    static Point* Unmarshalling(Parcel& parcel)
    {
        int32_t x = 0;
        int32_t y = 0;
        if (!parcel.ReadInt32(x) || !parcel.ReadInt32(y)) {
            return nullptr;
        }
        return new Point(x, y);
    }
    int32_t x_;
    int32_t y_;
};

struct LayoutCase {
    const char* name;
    std::function<bool(Parcel&)> write;
    Bytes expected;
    std::function<bool(Parcel&)> readBack;  // true when the read value equals the written one
};

void PrintTo(const LayoutCase& c, std::ostream* os)
{
    *os << c.name;
}

class ParcelLayoutTest : public testing::TestWithParam<LayoutCase> {};

TEST_P(ParcelLayoutTest, WritesDocumentedBytesAndReadsThemBack)
{
    const LayoutCase& c = GetParam();
    Parcel parcel;
    ASSERT_TRUE(c.write(parcel));
    EXPECT_EQ(Contents(parcel), c.expected);
    EXPECT_EQ(parcel.GetDataSize() % 4, 0u);
    EXPECT_TRUE(c.readBack(parcel));
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Primitives, ParcelLayoutTest,
    testing::Values(LayoutCase{"Int32",
                               [](Parcel& p) { return p.WriteInt32(0x01020304); },
                               {4, 3, 2, 1},
                               [](Parcel& p) { return p.ReadInt32() == 0x01020304; }},
                    LayoutCase{"NegativeInt32",
                               [](Parcel& p) { return p.WriteInt32(-2); },
                               {0xFE, 0xFF, 0xFF, 0xFF},
                               [](Parcel& p) { return p.ReadInt32() == -2; }},
                    LayoutCase{"Uint32",
                               [](Parcel& p) { return p.WriteUint32(0xA0B0C0D0u); },
                               {0xD0, 0xC0, 0xB0, 0xA0},
                               [](Parcel& p) { return p.ReadUint32() == 0xA0B0C0D0u; }},
                    LayoutCase{"BoolTrue",
                               [](Parcel& p) { return p.WriteBool(true); },
                               {1, 0, 0, 0},
                               [](Parcel& p) { return p.ReadBool(); }},
                    LayoutCase{"Int8SignExtended",
                               [](Parcel& p) { return p.WriteInt8(-1); },
                               {0xFF, 0xFF, 0xFF, 0xFF},
                               [](Parcel& p) { return p.ReadInt8() == -1; }},
                    LayoutCase{"Int16",
                               [](Parcel& p) { return p.WriteInt16(0x1234); },
                               {0x34, 0x12, 0, 0},
                               [](Parcel& p) { return p.ReadInt16() == 0x1234; }},
                    LayoutCase{"Int64",
                               [](Parcel& p) { return p.WriteInt64(0x0102030405060708LL); },
                               {8, 7, 6, 5, 4, 3, 2, 1},
                               [](Parcel& p) { return p.ReadInt64() == 0x0102030405060708LL; }},
                    LayoutCase{"Uint64Max",
                               [](Parcel& p) { return p.WriteUint64(std::numeric_limits<uint64_t>::max()); },
                               Bytes(8, 0xFF),
                               [](Parcel& p) { return p.ReadUint64() == std::numeric_limits<uint64_t>::max(); }},
                    LayoutCase{"StringPaddedAfterNul",
                               [](Parcel& p) { return p.WriteString("abc"); },
                               {3, 0, 0, 0, 'a', 'b', 'c', 0},
                               [](Parcel& p) { return p.ReadString() == "abc"; }},
                    LayoutCase{"StringNulNeedsNewWord",
                               [](Parcel& p) { return p.WriteString("abcd"); },
                               {4, 0, 0, 0, 'a', 'b', 'c', 'd', 0, 0, 0, 0},
                               [](Parcel& p) { return p.ReadString() == "abcd"; }},
                    LayoutCase{"EmptyString",
                               [](Parcel& p) { return p.WriteString(""); },
                               {0, 0, 0, 0, 0, 0, 0, 0},
                               [](Parcel& p) {
                                   std::string s = "x";
                                   return p.ReadString(s) && s.empty();
                               }},
                    LayoutCase{"NullCString",
                               [](Parcel& p) { return p.WriteCString(nullptr); },
                               {0xFF, 0xFF, 0xFF, 0xFF},
                               [](Parcel& p) { return p.ReadCString() == nullptr; }},
                    LayoutCase{"CString",
                               [](Parcel& p) { return p.WriteCString("hi"); },
                               {2, 0, 0, 0, 'h', 'i', 0, 0},
                               [](Parcel& p) { return std::string(p.ReadCString()) == "hi"; }},
                    LayoutCase{"String16",
                               [](Parcel& p) { return p.WriteString16(u"hi"); },
                               {2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0, 0, 0},
                               [](Parcel& p) { return p.ReadString16() == u"hi"; }},
                    LayoutCase{"String16NonAscii",
                               [](Parcel& p) { return p.WriteString16(u"\u20AC"); },
                               {1, 0, 0, 0, 0xAC, 0x20, 0, 0},
                               [](Parcel& p) { return p.ReadString16() == u"\u20AC"; }},
                    LayoutCase{"BufferNoLengthPrefix",
                               [](Parcel& p) { return p.WriteBuffer("xyz", 3); },
                               {'x', 'y', 'z', 0},
                               [](Parcel& p) {
                                   const uint8_t* b = p.ReadBuffer(3);
                                   return b != nullptr && b[0] == 'x' && b[2] == 'z';
                               }},
                    LayoutCase{"Int32Vector",
                               [](Parcel& p) {
                                   return p.WriteInt32Vector({1, -1});
                               },
                               {2, 0, 0, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF},
                               [](Parcel& p) {
                                   std::vector<int32_t> v;
                                   return p.ReadInt32Vector(&v) && v == std::vector<int32_t>{1, -1};
                               }},
                    LayoutCase{"UInt32Vector",
                               [](Parcel& p) {
                                   return p.WriteUInt32Vector({7, 0xFFFFFFFFu});
                               },
                               {2, 0, 0, 0, 7, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF},
                               [](Parcel& p) {
                                   std::vector<uint32_t> v;
                                   return p.ReadUInt32Vector(&v) && v == std::vector<uint32_t>{7, 0xFFFFFFFFu};
                               }},
                    LayoutCase{"StringVector",
                               [](Parcel& p) {
                                   return p.WriteStringVector({"a", ""});
                               },
                               {2, 0, 0, 0, 1, 0, 0, 0, 'a', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                               [](Parcel& p) {
                                   std::vector<std::string> v;
                                   return p.ReadStringVector(&v) && v == std::vector<std::string>{"a", ""};
                               }},
                    LayoutCase{"NullStrongParcelable",
                               [](Parcel& p) { return p.WriteStrongParcelable(nullptr); },
                               {0, 0, 0, 0},
                               [](Parcel& p) { return p.ReadStrongParcelable<Point>() == nullptr; }},
                    LayoutCase{"StrongParcelable",
                               [](Parcel& p) { return p.WriteStrongParcelable(new Point(5, -6)); },
                               {1, 0, 0, 0, 5, 0, 0, 0, 0xFA, 0xFF, 0xFF, 0xFF},
                               [](Parcel& p) {
                                   sptr<Point> point = p.ReadStrongParcelable<Point>();
                                   return point != nullptr && point->x_ == 5 && point->y_ == -6;
                               }}),
    [](const testing::TestParamInfo<LayoutCase>& info) { return std::string(info.param.name); });

struct ShortReadCase {
    const char* name;
    std::function<bool(Parcel&)> readIsEmpty;  // the read yielded 0 / empty / failure
};

void PrintTo(const ShortReadCase& c, std::ostream* os)
{
    *os << c.name;
}

class ParcelShortReadTest : public testing::TestWithParam<ShortReadCase> {};

// A parcel holding one Int32 of 100: too short for every read below, which must fail without
// moving the read position, so that the next read still sees the 100.
TEST_P(ParcelShortReadTest, FailsWithoutMovingTheReadPosition)
{
    Parcel parcel;
    ASSERT_TRUE(parcel.WriteInt32(100));
    EXPECT_TRUE(GetParam().readIsEmpty(parcel));
    EXPECT_EQ(parcel.GetReadPosition(), 0u);
    EXPECT_EQ(parcel.ReadInt32(), 100);
}

INSTANTIATE_TEST_SUITE_P(
    PastTheEnd, ParcelShortReadTest,
    testing::Values(ShortReadCase{"Int64", [](Parcel& p) { return p.ReadInt64() == 0; }},
                    ShortReadCase{"Int64Form",
                                  [](Parcel& p) {
                                      int64_t v = 9;
                                      return !p.ReadInt64(v) && v == 0;
                                  }},
                    ShortReadCase{"Uint64", [](Parcel& p) { return p.ReadUint64() == 0; }},
                    ShortReadCase{"StringLongerThanData", [](Parcel& p) { return p.ReadString().empty(); }},
                    ShortReadCase{"StringForm",
                                  [](Parcel& p) {
                                      std::string s = "x";
                                      return !p.ReadString(s) && s.empty();
                                  }},
                    ShortReadCase{"CString", [](Parcel& p) { return p.ReadCString() == nullptr; }},
                    ShortReadCase{"String16", [](Parcel& p) { return p.ReadString16().empty(); }},
                    ShortReadCase{"Buffer", [](Parcel& p) { return p.ReadBuffer(8) == nullptr; }},
                    ShortReadCase{"Int32Vector",
                                  [](Parcel& p) {
                                      std::vector<int32_t> v{1};
                                      return !p.ReadInt32Vector(&v) && v == std::vector<int32_t>{1};
                                  }},
                    ShortReadCase{"UInt32Vector",
                                  [](Parcel& p) {
                                      std::vector<uint32_t> v;
                                      return !p.ReadUInt32Vector(&v);
                                  }},
                    ShortReadCase{"StringVector",
                                  [](Parcel& p) {
                                      std::vector<std::string> v;
                                      return !p.ReadStringVector(&v);
                                  }},
                    ShortReadCase{"Skip", [](Parcel& p) { return !p.SkipBytes(8); }}),
    [](const testing::TestParamInfo<ShortReadCase>& info) { return std::string(info.param.name); });

TEST(ParcelTest, ReadsOnAnEmptyParcelYieldZeroAndReportFailure)
{
    Parcel parcel;
    EXPECT_EQ(parcel.ReadInt32(), 0);
    EXPECT_EQ(parcel.ReadUint32(), 0u);
    EXPECT_FALSE(parcel.ReadBool());
    bool flag = true;
    EXPECT_FALSE(parcel.ReadBool(flag));
    EXPECT_FALSE(flag);
    uint32_t value = 7;
    EXPECT_FALSE(parcel.ReadUint32(value));
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(parcel.ReadStrongParcelable<Point>(), nullptr);
    EXPECT_EQ(parcel.GetReadPosition(), 0u);
}

TEST(ParcelTest, ParcelableListKeepsNullEntriesInPlace)
{
    Parcel parcel;
    std::vector<sptr<Parcelable>> written{new Point(1, 2), nullptr, new Point(3, 4)};
    for (const auto& item : written) {
        ASSERT_TRUE(parcel.WriteStrongParcelable(item));
    }
    sptr<Point> first = parcel.ReadStrongParcelable<Point>();
    sptr<Point> second = parcel.ReadStrongParcelable<Point>();
    sptr<Point> third = parcel.ReadStrongParcelable<Point>();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->y_, 4);
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

TEST(ParcelTest, PresentFlagWithTruncatedObjectGivesNull)
{
    Parcel parcel;
    ASSERT_TRUE(parcel.WriteInt32(1));
    ASSERT_TRUE(parcel.WriteInt32(5));  // only x of a Point
    EXPECT_EQ(parcel.ReadStrongParcelable<Point>(), nullptr);
}

TEST(ParcelTest, MaxCapacityRefusesWritesThatDoNotFitAndKeepsTheData)
{
    Parcel parcel;
    ASSERT_TRUE(parcel.SetMaxCapacity(12));
    EXPECT_TRUE(parcel.WriteInt32(1));
    EXPECT_TRUE(parcel.WriteInt32(2));
    EXPECT_FALSE(parcel.WriteString("abc"));  // needs 8 bytes, 4 left
    EXPECT_EQ(parcel.GetDataSize(), 8u);
    EXPECT_FALSE(parcel.WriteInt64(3));
    EXPECT_TRUE(parcel.WriteInt32(3));
    EXPECT_FALSE(parcel.WriteBool(true));
    EXPECT_EQ(parcel.GetDataSize(), 12u);
    EXPECT_FALSE(parcel.SetMaxCapacity(8));  // below what is already written
    EXPECT_EQ(parcel.GetMaxCapacity(), 12u);
}

TEST(ParcelTest, PositionsRewindAndReadableBytesFollow)
{
    Parcel parcel;
    parcel.WriteInt32(1);
    parcel.WriteInt32(2);
    parcel.WriteInt32(3);
    EXPECT_EQ(parcel.GetReadableBytes(), 12u);
    EXPECT_EQ(parcel.ReadInt32(), 1);
    EXPECT_EQ(parcel.GetReadableBytes(), 8u);
    EXPECT_TRUE(parcel.SkipBytes(4));
    EXPECT_EQ(parcel.ReadInt32(), 3);
    EXPECT_TRUE(parcel.RewindRead(4));
    EXPECT_EQ(parcel.ReadInt32(), 2);
    EXPECT_FALSE(parcel.RewindRead(13));
    EXPECT_TRUE(parcel.RewindWrite(4));
    EXPECT_EQ(parcel.GetDataSize(), 4u);
    EXPECT_EQ(parcel.GetReadPosition(), 4u);
    EXPECT_EQ(parcel.GetReadableBytes(), 0u);
}

}  // namespace
}  // namespace Vex
