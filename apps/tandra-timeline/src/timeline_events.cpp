#include "timeline_events.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <memory>

#include "json_text.h"

namespace QUEX::Tandra::Timeline {

namespace {

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool Digits(const std::string& text, size_t at, size_t count, int* out)
{
    if (at + count > text.size()) {
        return false;
    }
    int value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) {
            return false;
        }
        value = value * 10 + (text[i] - '0');
    }
    *out = value;
    return true;
}

std::string ValueText(const Json::Value& value)
{
    if (value.isString()) {
        return value.asString();
    }
    if (value.isBool()) {
        return value.asBool() ? "true" : "false";
    }
    if (value.isIntegral()) {
        return value.isUInt64() ? std::to_string(value.asUInt64()) : std::to_string(value.asInt64());
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

int32_t IntKey(const Json::Value& value, int32_t absent)
{
    if (value.isInt()) {
        return value.asInt();
    }
    if (value.isString()) {
        const std::string& text = value.asString();
        if (!text.empty() && text.size() < 10 && text.find_first_not_of("-0123456789") == std::string::npos) {
            return std::stoi(text);
        }
    }
    return absent;
}

// Envelope keys of the event sink, not keys of the event itself.
bool IsEnvelopeKey(const std::string& key)
{
    return key == "time" || key == "time_ms" || key == "device" || key == "name" || key == "params" ||
           key == "domain" || key == "type" || key == "line";
}

}  // namespace

bool ParseIsoTime(const std::string& text, int64_t* ms)
{
    int year, month, day, hour, minute, second;
    if (!Digits(text, 0, 4, &year) || text.size() < 19 || text[4] != '-' || !Digits(text, 5, 2, &month) ||
        text[7] != '-' || !Digits(text, 8, 2, &day) || (text[10] != 'T' && text[10] != 't' && text[10] != ' ') ||
        !Digits(text, 11, 2, &hour) || text[13] != ':' || !Digits(text, 14, 2, &minute) || text[16] != ':' ||
        !Digits(text, 17, 2, &second)) {
        return false;
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
        return false;
    }
    size_t at = 19;
    int64_t millis = 0;
    if (at < text.size() && (text[at] == '.' || text[at] == ',')) {
        ++at;
        int64_t scale = 100;
        size_t first = at;
        while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
            millis += (text[at] - '0') * scale;  // digits past milliseconds are truncated
            scale /= 10;
            ++at;
        }
        if (at == first) {
            return false;
        }
    }
    int64_t offsetMinutes = 0;
    if (at < text.size()) {
        if ((text[at] == 'Z' || text[at] == 'z') && at + 1 == text.size()) {
            at = text.size();
        } else if (text[at] == '+' || text[at] == '-') {
            int sign = text[at] == '-' ? -1 : 1;
            int zoneHours = 0;
            int zoneMinutes = 0;
            bool colon = at + 3 < text.size() && text[at + 3] == ':';
            if (!Digits(text, at + 1, 2, &zoneHours) || !Digits(text, at + (colon ? 4 : 3), 2, &zoneMinutes) ||
                at + (colon ? 6 : 5) != text.size() || zoneHours > 23 || zoneMinutes > 59) {
                return false;
            }
            offsetMinutes = sign * (zoneHours * 60 + zoneMinutes);
        } else {
            return false;
        }
    }
    int64_t days = DaysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
    int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second - offsetMinutes * 60;
    *ms = seconds * 1000 + millis;
    return true;
}

bool ParseEventTime(const Json::Value& value, int64_t* ms)
{
    if (value.isIntegral()) {
        *ms = value.asInt64();
        return true;
    }
    if (value.isDouble()) {
        *ms = static_cast<int64_t>(value.asDouble());
        return true;
    }
    if (!value.isString()) {
        return false;
    }
    const std::string& text = value.asString();
    if (!text.empty() && text.size() <= 18 && text.find_first_not_of("0123456789") == std::string::npos) {
        *ms = std::stoll(text);
        return true;
    }
    return ParseIsoTime(text, ms);
}

bool ParseEventLine(const std::string& line, const std::string& device, bool overrideDevice, TimelineEvent* event,
                    std::string* error)
{
    Json::Value root;
    std::string parseErrors;
    if (!Vex::ParseJsonText(line, &root, &parseErrors)) {
        // The reader's text is "* Line 1, Column 7\n  Syntax error: ...": keep the column and the reason.
        std::string where = parseErrors.substr(0, parseErrors.find('\n'));
        std::string why = parseErrors.substr(std::min(parseErrors.size(), where.size() + 1));
        why.erase(0, why.find_first_not_of(' '));
        why.erase(std::min(why.size(), why.find('\n')));
        size_t column = where.find("Column ");
        *error = "not JSON (" + (column == std::string::npos ? where : "column " + where.substr(column + 7)) +
                 (why.empty() ? "" : ": " + why) + ")";
        return false;
    }
    if (!root.isObject()) {
        *error = "not a JSON object";
        return false;
    }
    const Json::Value& time = root.isMember("time") ? root["time"] : root["time_ms"];
    if (time.isNull()) {
        *error = "no \"time\"";
        return false;
    }
    if (!ParseEventTime(time, &event->timeMs)) {
        *error = "bad time " + ValueText(time) +
                 ": expected ISO-8601 such as 2024-05-01T12:34:56.789Z or epoch milliseconds";
        return false;
    }
    event->device = overrideDevice || !root["device"].isString() ? device : root["device"].asString();
    event->name = root["name"].isString() ? root["name"].asString() : "";
    event->keys.clear();
    auto take = [event](const Json::Value& object) {
        for (const std::string& key : object.getMemberNames()) {
            if (!IsEnvelopeKey(key)) {
                event->keys.emplace_back(key, ValueText(object[key]));
            }
        }
    };
    take(root);
    const Json::Value& params = root["params"];
    if (params.isObject()) {
        take(params);
    }
    const Json::Value& keys = params.isObject() ? params : root;
    event->scene = IntKey(keys["BIZ_SCENE"], -1);
    event->stage = IntKey(keys["BIZ_STAGE"], -1);
    event->result = IntKey(keys["STAGE_RES"], -1);
    event->state = IntKey(keys["BIZ_STATE"], 0);
    event->error = IntKey(keys["ERROR_CODE"], 0);
    return true;
}

std::string DeviceLabelForFile(const std::string& path)
{
    std::filesystem::path file(path);
    std::string stem = file.stem().string();
    std::string folder = file.parent_path().filename().string();
    if ((stem == "events" || stem == "behaviour" || stem == "behavior") && !folder.empty() && folder != ".") {
        return folder;
    }
    return stem;
}

bool ReadEventFile(const std::string& path, const std::string& label, std::vector<TimelineEvent>& events,
                   std::vector<std::string>& problems)
{
    std::ifstream in(path);
    if (!in) {
        problems.push_back(path + ": cannot be read (check the path)");
        return false;
    }
    const std::string device = label.empty() ? DeviceLabelForFile(path) : label;
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        TimelineEvent event;
        std::string error;
        if (!ParseEventLine(line, device, !label.empty(), &event, &error)) {
            problems.push_back(path + ":" + std::to_string(number) + ": " + error + "; line skipped");
            continue;
        }
        event.origin = path + ":" + std::to_string(number);
        events.push_back(std::move(event));
    }
    return true;
}

}  // namespace QUEX::Tandra::Timeline
