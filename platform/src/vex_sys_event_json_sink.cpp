#include "vex_sys_event_json_sink.h"

#include <json/json.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

namespace Vex {

namespace {

Json::Value ToJson(const SysEventValue& value)
{
    if (const auto* b = std::get_if<bool>(&value)) {
        return Json::Value(*b);
    }
    if (const auto* i = std::get_if<int32_t>(&value)) {
        return Json::Value(static_cast<Json::Int>(*i));
    }
    if (const auto* u = std::get_if<uint32_t>(&value)) {
        return Json::Value(static_cast<Json::UInt>(*u));
    }
    if (const auto* l = std::get_if<int64_t>(&value)) {
        return Json::Value(static_cast<Json::Int64>(*l));
    }
    return Json::Value(std::get<std::string>(value));
}

// UTC, millisecond precision: readable in the file and sortable as text.
std::string IsoTime(int64_t milliseconds)
{
    const time_t seconds = static_cast<time_t>(milliseconds / 1000);
    struct tm utc {};
    gmtime_r(&seconds, &utc);
    char text[40];
    size_t length = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(text + length, sizeof(text) - length, ".%03dZ", static_cast<int>(milliseconds % 1000));
    return text;
}

}  // namespace

SysEventSink MakeJsonLinesSink(const std::string& path, const JsonLinesSinkOptions& options, std::string* error)
{
    errno = 0;
    auto file = std::make_shared<std::ofstream>(path, std::ios::out | std::ios::app);
    if (!file->is_open()) {
        if (error != nullptr) {
            *error = "cannot open the event log " + path + " (" + std::strerror(errno != 0 ? errno : EIO) +
                     "); check that its folder exists and is writable";
        }
        return nullptr;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::shared_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    return [file, writer, device = options.device](const SysEventRecord& record) {
        Json::Value event(Json::objectValue);
        const int64_t nowMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        event["time"] = IsoTime(nowMs);
        event["time_ms"] = static_cast<Json::Int64>(nowMs);
        if (!device.empty()) {
            event["device"] = device;
        }
        event["domain"] = record.domain;
        event["name"] = record.name;
        event["type"] = record.type;
        event["func"] = record.func;
        event["line"] = static_cast<Json::Int64>(record.line);
        Json::Value params(Json::objectValue);
        for (const auto& [key, value] : record.params) {
            params[key] = ToJson(value);
        }
        event["params"] = params;
        writer->write(event, file.get());
        *file << '\n';
        file->flush();
    };
}

}  // namespace Vex
