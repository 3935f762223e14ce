// The log formatter's privacy rules per conversion, the common line shape and the sinks.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>

#include "vex_log.h"
#include "vex_log_tags.h"

namespace Vex {
namespace {

struct FormatCase {
    const char* name;
    std::function<std::string()> format;
    std::string expected;
};

void PrintTo(const FormatCase& c, std::ostream* os)
{
    *os << c.name;
}

class LogFormatTest : public testing::TestWithParam<FormatCase> {};

TEST_P(LogFormatTest, AppliesPrivacyAndConversion)
{
    EXPECT_EQ(GetParam().format(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Specifiers, LogFormatTest,
    testing::Values(
        FormatCase{"PublicD", [] { return FormatLogMessage("%{public}d", -42); }, "-42"},
        FormatCase{"PrivateD", [] { return FormatLogMessage("%{private}d", 42); }, "<private>"},
        FormatCase{"PlainIsPrivate", [] { return FormatLogMessage("%d", 42); }, "<private>"},
        FormatCase{"PublicI", [] { return FormatLogMessage("%{public}i", 7); }, "7"},
        FormatCase{"PublicU", [] { return FormatLogMessage("%{public}u", 4000000000U); }, "4000000000"},
        FormatCase{"PublicX", [] { return FormatLogMessage("%{public}x", 255U); }, "ff"},
        FormatCase{"PublicS", [] { return FormatLogMessage("%{public}s", "abc"); }, "abc"},
        FormatCase{"PlainS", [] { return FormatLogMessage("%s", "secret"); }, "<private>"},
        FormatCase{"NullS", [] { return FormatLogMessage("%{public}s", static_cast<const char*>(nullptr)); }, "(null)"},
        FormatCase{"PublicZu", [] { return FormatLogMessage("%{public}zu", size_t{12345678901}); }, "12345678901"},
        FormatCase{"PublicLu", [] { return FormatLogMessage("%{public}lu", ULONG_MAX); }, std::to_string(ULONG_MAX)},
        FormatCase{"PublicLd", [] { return FormatLogMessage("%{public}ld", -5L); }, "-5"},
        FormatCase{"PublicLld", [] { return FormatLogMessage("%{public}lld", LLONG_MIN); }, std::to_string(LLONG_MIN)},
        FormatCase{"PublicLlu", [] { return FormatLogMessage("%{public}llu", ULLONG_MAX); },
                   std::to_string(ULLONG_MAX)},
        FormatCase{"PublicP", [] { return FormatLogMessage("%{public}p", reinterpret_cast<void*>(0x1234)); }, "0x1234"},
        FormatCase{"PublicC", [] { return FormatLogMessage("%{public}c", 'Z'); }, "Z"},
        FormatCase{"Percent", [] { return FormatLogMessage("100%% sure"); }, "100% sure"},
        FormatCase{"WidthAndFlags", [] { return FormatLogMessage("%{public}05d|%{public}-3s|", 42, "a"); },
                   "00042|a  |"},
        FormatCase{"CollaborationId", [] { return FormatLogMessage("%{public}011u", 42U); }, "00000000042"},
        // A private value still consumes its argument, wide ones included.
        FormatCase{
            "MixedArguments",
            [] { return FormatLogMessage("%{public}s %lld %{public}d %zu %{public}s", "a", 1LL, 2, size_t{3}, "b"); },
            "a <private> 2 <private> b"},
        FormatCase{"NoConversions", [] { return FormatLogMessage("enter."); }, "enter."}),
    [](const testing::TestParamInfo<FormatCase>& info) { return std::string(info.param.name); });

TEST(LogTest, TagMacroGivesTheCommonLineShape)
{
    LogCapture capture;
    int line = __LINE__ + 1;
    TNDR_SERVICE_LOGI("collaborationId = %{public}011u, pid = %d", 7U, 1234);
    std::vector<LogRecord> records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message,
              "[log_test.cpp:" + std::to_string(line) + "]TestBody# collaborationId = 00000000007, pid = <private>");
    EXPECT_EQ(records[0].tag, "TNDRService");
    EXPECT_EQ(records[0].domain, 0xD004615u);
    EXPECT_EQ(records[0].level, LOG_INFO);
    EXPECT_EQ(records[0].type, LOG_CORE);
    EXPECT_TRUE(capture.Contains("00000000007"));
    EXPECT_EQ(capture.Count("TestBody"), 1u);
}

TEST(LogTest, LinesBelowTheLevelAreDropped)
{
    LogCapture capture;
    SetLogLevel(LOG_INFO);
    TNDR_SERVICE_LOGD("debug line");
    MESHLINE_LOGE("error line");
    SetLogLevel(LOG_DEBUG);
    TNDR_SERVICE_LOGD("debug again");
    EXPECT_FALSE(capture.Contains("debug line"));
    EXPECT_TRUE(capture.Contains("error line"));
    EXPECT_TRUE(capture.Contains("debug again"));
}

TEST(LogTest, LinesGoToStderrWithoutASinkAndCapturesNest)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(VexLogPrint(LOG_CORE, LOG_ERROR, 0xD004612, "TNDRClient", "value %{public}d", 5), 7);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("D004612/TNDRClient: value 5\n"), std::string::npos) << err;
    EXPECT_NE(err.find(" E "), std::string::npos) << err;

    LogCapture outer;
    {
        LogCapture inner;
        TNDR_CLIENT_LOGI("inside");
        EXPECT_TRUE(inner.Contains("inside"));
    }
    TNDR_CLIENT_LOGI("after");
    EXPECT_FALSE(outer.Contains("inside"));
    EXPECT_TRUE(outer.Contains("after"));
    outer.Clear();
    EXPECT_TRUE(outer.Records().empty());
}

}  // namespace
}  // namespace Vex
