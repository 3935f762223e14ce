// A structured-event sink that appends each event as one JSON object per line to a file, for
// the daemon: {"time":"2024-05-01T12:00:00.123Z", "time_ms":..., "device":..., "domain":...,
// "name":..., "type":..., "func":..., "line":..., "params":{key: value, ...}} ("device" only when
// the options name one). Each line is flushed as it is written, so a crash loses no event.
// Thread-safety: the returned sink is called under the event log's lock, like every sink.
#pragma once

#include <string>

#include "vex_sys_event.h"

namespace Vex {

struct JsonLinesSinkOptions {
    std::string device;  // the device every event comes from (its name or id)
};

// Appends to path (created when missing); an empty sink when the file cannot be opened, with
// *error (when given) saying why and what to do.
SysEventSink MakeJsonLinesSink(const std::string& path, const JsonLinesSinkOptions& options = {},
                               std::string* error = nullptr);

}  // namespace Vex
