#include "progress.h"

#include <unistd.h>

#include <chrono>

namespace QUEX {
namespace Tandra {

namespace {

void WriteJson(std::FILE* out, const std::string& event, const std::string& text, const Json::Value& extra)
{
    Json::Value object = extra.isObject() ? extra : Json::Value(Json::objectValue);
    object["event"] = event;
    object["message"] = text;
    object["time_ms"] = static_cast<Json::Int64>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                     std::chrono::system_clock::now().time_since_epoch())
                                                     .count());
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::fprintf(out, "%s\n", Json::writeString(builder, object).c_str());
    std::fflush(out);
}

}  // namespace

Progress::Form Progress::FormFor(bool json, std::FILE* out)
{
    if (json) {
        return Form::JSON;
    }
    return isatty(fileno(out)) ? Form::TERMINAL : Form::PLAIN;
}

void Progress::ClearStatus()
{
    if (statusShown_) {
        std::fputs("\r\033[K", out_);
        statusShown_ = false;
    }
}

void Progress::Stage(const std::string& event, const std::string& text, const Json::Value& extra)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (form_ == Form::JSON) {
        WriteJson(out_, event, text, extra);
        return;
    }
    ClearStatus();
    std::fprintf(out_, "%s\n", text.c_str());
    std::fflush(out_);
}

void Progress::Status(const std::string& text)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (form_ != Form::TERMINAL) {
        return;
    }
    std::fprintf(out_, "\r\033[K%s", text.c_str());
    std::fflush(out_);
    statusShown_ = true;
}

void Progress::Error(const std::string& event, const std::string& text, const Json::Value& extra)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (form_ == Form::JSON) {
        WriteJson(out_, event, text, extra);
        return;
    }
    ClearStatus();
    std::fflush(out_);
    std::fprintf(stderr, "tandra-photo: %s\n", text.c_str());
}

}  // namespace Tandra
}  // namespace QUEX
