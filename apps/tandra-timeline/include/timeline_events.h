// Behaviour events read back from the JSON-lines files the devices write, one event per line.
// A line gives the time (ISO-8601 text with or without milliseconds and zone, or epoch
// milliseconds, as "time" or "time_ms"), the device (a "device" key, else the file's label), the
// event name, and the event's keys, either at the top level or inside a "params" object.
// Lines that cannot be read are reported with file:line and skipped, never fatal.
// Thread-safety: pure functions.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace QUEX::Tandra::Timeline {

struct TimelineEvent {
    int64_t timeMs = 0;  // since the epoch, UTC
    std::string device;
    std::string name;
    int32_t scene = -1;  // the business keys; -1 when the event has none
    int32_t stage = -1;
    int32_t result = -1;
    int32_t state = 0;  // 0 when absent
    int32_t error = 0;
    std::vector<std::pair<std::string, std::string>> keys;  // every key as text, by name
    std::string origin;                                     // "file:line"
};

// ISO-8601 "2024-05-01T12:34:56.789Z" (also with a space for 'T', without fraction, with a
// +02:00 / +0200 zone, or without zone meaning UTC) to epoch milliseconds.
bool ParseIsoTime(const std::string& text, int64_t* ms);
// A "time" value: ISO text, a number of epoch milliseconds, or digits in a string.
bool ParseEventTime(const Json::Value& value, int64_t* ms);
// One line; false with the reason in *error. device is used when the line names none
// (overrideDevice: even when it does).
bool ParseEventLine(const std::string& line, const std::string& device, bool overrideDevice, TimelineEvent* event,
                    std::string* error);

// The label a file's events get when they name no device: its stem, or its folder's name when
// the stem says nothing ("events.jsonl" in a device's state folder).
std::string DeviceLabelForFile(const std::string& path);

// Appends the file's events; each bad line adds "path:line: reason" to problems. False (with a
// problem) only when the file cannot be read at all.
bool ReadEventFile(const std::string& path, const std::string& label, std::vector<TimelineEvent>& events,
                   std::vector<std::string>& problems);

}  // namespace QUEX::Tandra::Timeline
