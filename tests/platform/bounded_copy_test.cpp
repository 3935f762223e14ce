#include "bounded_copy.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Vex {
namespace {

struct CopyCase {
    const char* name;
    size_t destMax;
    bool nullSrc;
    size_t count;
    int expected;
    bool copied;  // else the destination is zeroed
};

void PrintTo(const CopyCase& c, std::ostream* os)
{
    *os << c.name;
}

class BoundedCopyTest : public testing::TestWithParam<CopyCase> {};

TEST_P(BoundedCopyTest, CopiesOrFailsCleanly)
{
    const CopyCase& c = GetParam();
    char dest[16];
    std::memset(dest, '#', sizeof(dest));
    const char src[] = "0123456789abcdef";
    EXPECT_EQ(BoundedCopy(dest, c.destMax, c.nullSrc ? nullptr : src, c.count), c.expected);
    if (c.copied) {
        EXPECT_EQ(std::memcmp(dest, src, c.count), 0);
    } else {
        for (size_t i = 0; i < c.destMax; ++i) {
            EXPECT_EQ(dest[i], 0) << i;
        }
    }
    for (size_t i = c.destMax; i < sizeof(dest); ++i) {
        EXPECT_EQ(dest[i], '#') << "wrote past destMax at " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, BoundedCopyTest,
                         testing::Values(CopyCase{"Fits", 8, false, 8, EOK, true},
                                         CopyCase{"SmallerThanDest", 8, false, 3, EOK, true},
                                         CopyCase{"Nothing", 8, false, 0, EOK, true},
                                         CopyCase{"DestTooSmall", 4, false, 5, ERANGE_AND_RESET, false},
                                         CopyCase{"NullSource", 8, true, 4, EINVAL_AND_RESET, false}),
                         [](const testing::TestParamInfo<CopyCase>& info) { return std::string(info.param.name); });

TEST(BoundedCopyTest, RefusesNullDestinationAndOverlap)
{
    char src[4] = {1, 2, 3, 4};
    EXPECT_EQ(BoundedCopy(nullptr, 4, src, 4), EINVAL_AND_RESET);
    char buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(BoundedCopy(buffer + 2, 6, buffer, 4), EOVERLAP_AND_RESET);
    EXPECT_EQ(buffer[2], 0);
    EXPECT_EQ(buffer[7], 0);
}

}  // namespace
}  // namespace Vex
