// Timeline: both time forms, bad lines reported by file:line and skipped, and the pictures and
// the text view holding one lane per device and one mark per event.
#include "timeline.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "timeline_events.h"
#include "timeline_render.h"
#include "timeline_text.h"

namespace QUEX::Tandra::Timeline {
namespace {

constexpr int64_t MAY_1 = 1714566896789;  // 2024-05-01T12:34:56.789Z

size_t Count(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) {
        ++count;
    }
    return count;
}

class TempFile {
public:
    explicit TempFile(const std::string& contents)
    {
        char pattern[] = "/tmp/timeline_events_XXXXXX";
        int fd = mkstemp(pattern);
        close(fd);
        path_ = pattern;
        std::ofstream(path_) << contents;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

TEST(TimelineTimeTest, IsoFormsAndEpochMilliseconds)
{
    const std::pair<const char*, int64_t> good[] = {
        {"2024-05-01T12:34:56.789Z", MAY_1},     {"2024-05-01 12:34:56.789", MAY_1},
        {"2024-05-01T12:34:56.789123Z", MAY_1},  {"2024-05-01T14:34:56.789+02:00", MAY_1},
        {"2024-05-01T07:04:56.789-0530", MAY_1}, {"2024-05-01T12:34:56Z", MAY_1 - 789},
        {"2024-05-01T12:34:56,5Z", MAY_1 - 289}, {"2000-02-29T00:00:00Z", 951782400000},
    };
    for (const auto& [text, expected] : good) {
        int64_t ms = 0;
        EXPECT_TRUE(ParseIsoTime(text, &ms)) << text;
        EXPECT_EQ(ms, expected) << text;
        EXPECT_TRUE(ParseEventTime(Json::Value(text), &ms)) << text;
    }
    for (const char* bad : {"2024-05-01", "2024-13-01T00:00:00Z", "2024-05-01T12:34:56.Z", "2024-05-01T12:34:56+2",
                            "2024-05-01T12:34:56Zjunk", "01/05/2024 12:34:56", ""}) {
        int64_t ms = 0;
        EXPECT_FALSE(ParseIsoTime(bad, &ms)) << bad;
    }
    int64_t ms = 0;
    EXPECT_TRUE(ParseEventTime(Json::Value(Json::Int64{MAY_1}), &ms));
    EXPECT_EQ(ms, MAY_1);
    EXPECT_TRUE(ParseEventTime(Json::Value("1714566896789"), &ms));
    EXPECT_EQ(ms, MAY_1);
    EXPECT_FALSE(ParseEventTime(Json::Value(true), &ms));
}

TEST(TimelineReadTest, BadLinesAreReportedWithFileAndLineAndSkipped)
{
    TempFile file(
        "{\"time\":\"2024-05-01T12:34:56.789Z\",\"device\":\"phone\",\"name\":\"SERVICE_COLLABORATION_EVENT\","
        "\"BIZ_SCENE\":3,\"BIZ_STAGE\":7,\"STAGE_RES\":2,\"ERROR_CODE\":5}\n"
        "\n"
        "not json at all\n"
        "[1, 2]\n"
        "{\"device\":\"phone\",\"BIZ_STAGE\":7}\n"
        "{\"time\":\"yesterday\",\"BIZ_STAGE\":7}\n"
        "{\"time_ms\":1714566897000,\"name\":\"SERVICE_COLLABORATION_EVENT\",\"params\":{\"BIZ_STAGE\":9,"
        "\"STAGE_RES\":1,\"BIZ_STATE\":2,\"FUNC\":\"ProcessPutPhoto\"}}\n");
    std::vector<TimelineEvent> events;
    std::vector<std::string> problems;
    ASSERT_TRUE(ReadEventFile(file.path(), "", events, problems));

    ASSERT_EQ(problems.size(), 4u);
    const char* lines[] = {":3: not JSON", ":4: not a JSON object", ":5: no \"time\"", ":6: bad time"};
    for (size_t i = 0; i < problems.size(); ++i) {
        EXPECT_EQ(problems[i].rfind(file.path() + lines[i], 0), 0u) << problems[i];
    }
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].device, "phone");
    EXPECT_EQ(events[0].timeMs, MAY_1);
    EXPECT_EQ(events[0].stage, 7);
    EXPECT_EQ(events[0].error, 5);
    EXPECT_EQ(events[0].origin, file.path() + ":1");
    // The daemon's own form: epoch milliseconds, keys inside "params", no device: named after the file.
    EXPECT_EQ(events[1].device, DeviceLabelForFile(file.path()));
    EXPECT_EQ(events[1].stage, 9);
    EXPECT_EQ(events[1].state, 2);
    EXPECT_EQ(events[1].origin, file.path() + ":7");

    events.clear();
    problems.clear();
    ASSERT_TRUE(ReadEventFile(file.path(), "tablet", events, problems));
    EXPECT_EQ(events[0].device, "tablet") << "a label given for the file names every event of it";
    EXPECT_FALSE(ReadEventFile(file.path() + ".missing", "", events, problems));
    EXPECT_NE(problems.back().find("cannot be read"), std::string::npos);
    EXPECT_EQ(DeviceLabelForFile("/var/devices/tablet-B/events.jsonl"), "tablet-B");
    EXPECT_EQ(DeviceLabelForFile("phone.jsonl"), "phone");
}

Timeline TwoDevices()
{
    std::vector<TimelineEvent> events;
    auto add = [&](const char* device, int64_t offset, int stage, int result, int state) {
        TimelineEvent event;
        event.device = device;
        event.timeMs = MAY_1 + offset;
        event.stage = stage;
        event.result = result;
        event.state = state;
        event.keys = {{"FUNC", "Execute"}, {"PEER", "a\"<b>&"}};
        event.origin = "events.jsonl:1";
        events.push_back(event);
    };
    add("tablet <B>", 40, 6, 0, 0);  // first in the files, later in time
    add("phone", 0, 4, 3, 2);
    add("phone", 1, 8, 0, 1);
    add("tablet <B>", 41, 6, 1, 0);
    add("tablet <B>", 3900, 9, 2, 2);
    return BuildTimeline(events);
}

TEST(TimelineRenderTest, OneLanePerDeviceAndOneMarkPerEventInEveryForm)
{
    Timeline timeline = TwoDevices();
    ASSERT_EQ(timeline.lanes, (std::vector<std::string>{"tablet <B>", "phone"}));
    EXPECT_EQ(timeline.events.front().device, "phone") << "events in time order";

    RenderOptions options;
    std::string svg = RenderSvg(timeline, options);
    std::string html = RenderHtml(timeline, options);
    for (const std::string* picture : {&svg, &html}) {
        EXPECT_EQ(Count(*picture, "<g class=\"lane\">"), 2u);
        EXPECT_EQ(Count(*picture, "<g class=\"mark "), 5u);
        EXPECT_EQ(Count(*picture, "<g class=\"mark failed\""), 1u);
        EXPECT_EQ(Count(*picture, "tablet <B>"), 0u) << "device names are escaped";
        EXPECT_EQ(Count(*picture, "a\"<b>"), 0u) << "key values are escaped";
        EXPECT_NE(picture->find("photos sent: failed"), std::string::npos);
    }
    EXPECT_EQ(Count(svg, "<title>"), 5u) << "standalone SVG hovers with titles";
    // Self-contained: no scripts, styles or images fetched from anywhere.
    EXPECT_EQ(Count(html, "src="), 0u);
    EXPECT_EQ(Count(html, "href="), 0u);
    EXPECT_EQ(Count(html, "http"), Count(html, "xmlns=\"http://www.w3.org/2000/svg\""));

    std::string text = RenderText(timeline, 80);
    std::vector<std::string> lines;
    for (size_t at = 0, next; at < text.size(); at = next + 1) {
        next = text.find('\n', at);
        lines.push_back(text.substr(at, next - at));
    }
    ASSERT_EQ(lines.size(), 3u + 5u);  // title, header, rule, then one line per event
    EXPECT_EQ(lines[3].rfind("+0.000 s", 0), 0u);
    EXPECT_EQ(lines[7].rfind("+3.900 s", 0), 0u);
    // Columns: phone's caption in the second device column, tablet's in the first.
    size_t firstColumn = lines[1].find("tablet <B>");
    size_t secondColumn = lines[1].find("phone");
    EXPECT_EQ(lines[3].find("take-photo request sent"), secondColumn);
    EXPECT_EQ(lines[5].find("conflict check: begun"), firstColumn);
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), 80u) << line;
    }
}

}  // namespace
}  // namespace QUEX::Tandra::Timeline
