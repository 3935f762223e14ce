// A structured-event sink that appends each event as one JSON object per line to a file, for
// the daemon: {"time_ms":..., "domain":..., "name":..., "type":..., "func":..., "line":...,
// "params":{key: value, ...}}.
// Thread-safety: the returned sink is called under the event log's lock, like every sink.
#pragma once

#include <string>

#include "vex_sys_event.h"

namespace Vex {

// Appends to path (created when missing); an empty sink when the file cannot be opened.
SysEventSink MakeJsonLinesSink(const std::string& path);

}  // namespace Vex
