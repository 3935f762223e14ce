// Structured events: typed values, the per-call-site limit on clock time, the JSON-lines sink.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "vex_sys_event.h"
#include "vex_sys_event_json_sink.h"

namespace Vex {
namespace {

using namespace std::chrono_literals;

enum class Stage { START = 3 };

int WriteFromOneSite()
{
    return VEX_SYS_EVENT_WRITE("TANDRA", "SITE_EVENT", VexSysEvent::BEHAVIOR, "K", 1);
}

int WriteFromAnotherSite()
{
    return VEX_SYS_EVENT_WRITE("TANDRA", "SITE_EVENT", VexSysEvent::BEHAVIOR, "K", 1);
}

TEST(SysEventTest, RecordsTypedValuesInWrittenOrder)
{
    SysEventCapture capture;
    std::string owned = "owned";
    int line = __LINE__ + 1;
    EXPECT_EQ(VEX_SYS_EVENT_WRITE("TANDRA", "SERVICE_COLLABORATION_EVENT", VexSysEvent::BEHAVIOR, "FLAG", true, "I32",
                                  int32_t{-1}, "U32", uint32_t{4000000000U}, "I64", int64_t{1} << 40, "STR", owned,
                                  "CSTR", "text", "ENUM", Stage::START),
              0);
    std::vector<SysEventRecord> records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    const SysEventRecord& record = records[0];
    EXPECT_EQ(record.domain, "TANDRA");
    EXPECT_EQ(record.name, "SERVICE_COLLABORATION_EVENT");
    EXPECT_EQ(record.type, VexSysEvent::BEHAVIOR);
    EXPECT_EQ(record.func, "TestBody");
    EXPECT_EQ(record.line, line);
    ASSERT_EQ(record.params.size(), 7u);
    EXPECT_EQ(record.params[0].first, "FLAG");
    EXPECT_EQ(std::get<bool>(record.params[0].second), true);
    EXPECT_EQ(std::get<int32_t>(record.params[1].second), -1);
    EXPECT_EQ(std::get<uint32_t>(record.params[2].second), 4000000000U);
    EXPECT_EQ(std::get<int64_t>(record.params[3].second), int64_t{1} << 40);
    EXPECT_EQ(std::get<std::string>(record.params[4].second), "owned");
    EXPECT_EQ(std::get<std::string>(record.params[5].second), "text");
    EXPECT_EQ(std::get<int32_t>(record.params[6].second), 3);
}

struct LimitCase {
    const char* name;
    uint32_t maxWrites;
    int writes;
    int expectedWritten;
};

void PrintTo(const LimitCase& c, std::ostream* os)
{
    *os << c.name;
}

class SysEventLimitTest : public testing::TestWithParam<LimitCase> {
protected:
    void TearDown() override { VexSysEvent::SetWriteLimit(100, 5s); }  // the built-in limit
};

TEST_P(SysEventLimitTest, DropsWritesBeyondTheLimitOfOneCallSite)
{
    const LimitCase& c = GetParam();
    Clock::UseSimulatedTime();
    if (std::string(c.name) != "Default") {  // the default case checks the built-in limit
        VexSysEvent::SetWriteLimit(c.maxWrites, 5s);
    }
    VexSysEvent::ResetWriteLimit();
    SysEventCapture capture;
    int written = 0;
    for (int i = 0; i < c.writes; ++i) {
        int result = WriteFromOneSite();
        EXPECT_TRUE(result == 0 || result == VexSysEvent::ERR_WRITE_LIMITED);
        written += result == 0 ? 1 : 0;
    }
    EXPECT_EQ(written, c.expectedWritten);
    EXPECT_EQ(capture.Records().size(), static_cast<size_t>(c.expectedWritten));
    EXPECT_EQ(WriteFromAnotherSite(), 0);  // other call sites have their own budget
}

INSTANTIATE_TEST_SUITE_P(Limits, SysEventLimitTest,
                         testing::Values(LimitCase{"Default", 100, 150, 100}, LimitCase{"Three", 3, 5, 3},
                                         LimitCase{"Off", 0, 300, 300}),
                         [](const testing::TestParamInfo<LimitCase>& info) { return std::string(info.param.name); });

TEST(SysEventTest, LimitWindowFollowsTheClock)
{
    Clock::UseSimulatedTime();
    VexSysEvent::SetWriteLimit(2, 5s);
    VexSysEvent::ResetWriteLimit();
    EXPECT_EQ(WriteFromOneSite(), 0);
    EXPECT_EQ(WriteFromOneSite(), 0);
    EXPECT_EQ(WriteFromOneSite(), VexSysEvent::ERR_WRITE_LIMITED);
    Clock::Advance(5s - 1ms);
    EXPECT_EQ(WriteFromOneSite(), VexSysEvent::ERR_WRITE_LIMITED);
    Clock::Advance(1ms);
    EXPECT_EQ(WriteFromOneSite(), 0);
    EXPECT_EQ(WriteFromOneSite(), 0);
    EXPECT_EQ(WriteFromOneSite(), VexSysEvent::ERR_WRITE_LIMITED);
    VexSysEvent::ResetWriteLimit();
    EXPECT_EQ(WriteFromOneSite(), 0);
    VexSysEvent::SetWriteLimit(100, 5s);
}

TEST(SysEventTest, JsonLinesSinkWritesOneObjectPerEvent)
{
    char path[] = "/tmp/vex_events_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    SysEventSink sink = MakeJsonLinesSink(path, {"device-a"});
    ASSERT_TRUE(sink);
    SysEventSink previous = SetSysEventSink(sink);
    VEX_SYS_EVENT_WRITE("TANDRA", "FIRST", VexSysEvent::BEHAVIOR, "ID", uint32_t{7}, "NAME", "a\"b");
    VEX_SYS_EVENT_WRITE("TANDRA", "SECOND", VexSysEvent::FAULT, "BIG", int64_t{1} << 40, "OK", false);
    SetSysEventSink(previous);

    std::ifstream file(path);
    std::vector<Json::Value> events;
    std::string line;
    while (std::getline(file, line)) {
        Json::Value value;
        std::string errors;
        std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        ASSERT_TRUE(reader->parse(line.data(), line.data() + line.size(), &value, &errors)) << line;
        events.push_back(value);
    }
    std::remove(path);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["name"].asString(), "FIRST");
    EXPECT_EQ(events[0]["device"].asString(), "device-a");
    // "2024-05-01T12:00:00.123Z": the same instant as time_ms.
    const std::string time = events[0]["time"].asString();
    ASSERT_EQ(time.size(), 24u) << time;
    EXPECT_EQ(time.substr(20), (std::to_string(1000 + events[0]["time_ms"].asInt64() % 1000)).substr(1) + "Z");
    EXPECT_EQ(events[0]["domain"].asString(), "TANDRA");
    EXPECT_EQ(events[0]["type"].asInt(), VexSysEvent::BEHAVIOR);
    EXPECT_EQ(events[0]["params"]["ID"].asUInt(), 7u);
    EXPECT_EQ(events[0]["params"]["NAME"].asString(), "a\"b");
    EXPECT_EQ(events[1]["params"]["BIG"].asInt64(), int64_t{1} << 40);
    EXPECT_FALSE(events[1]["params"]["OK"].asBool());
    std::string error;
    EXPECT_FALSE(MakeJsonLinesSink("/nonexistent-dir/events.jsonl", {}, &error));
    EXPECT_NE(error.find("/nonexistent-dir/events.jsonl"), std::string::npos) << error;
    EXPECT_NE(error.find("writable"), std::string::npos) << error;
}

}  // namespace
}  // namespace Vex
