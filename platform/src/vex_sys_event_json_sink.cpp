#include "vex_sys_event_json_sink.h"

#include <json/json.h>

#include <chrono>
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

}  // namespace

SysEventSink MakeJsonLinesSink(const std::string& path)
{
    auto file = std::make_shared<std::ofstream>(path, std::ios::out | std::ios::app);
    if (!file->is_open()) {
        return nullptr;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::shared_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    return [file, writer](const SysEventRecord& record) {
        Json::Value event(Json::objectValue);
        event["time_ms"] = static_cast<Json::Int64>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
                .count());
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
