// Words for the numbers of the collaboration behaviour event: what each business scene, stage,
// stage result and state means, so a timeline reads as a story rather than as codes.
// Thread-safety: pure functions.
#pragma once

#include <string>

#include "timeline_events.h"

namespace QUEX::Tandra::Timeline {

std::string SceneName(int32_t scene);    // "asking the peer", "serving the command", ...
std::string StageName(int32_t stage);    // "data channel", "photos sent", ...
std::string ResultName(int32_t result);  // "begun", "ok", "failed", "ended"
std::string StateName(int32_t state);    // "collaboration begins", "collaboration ends", ""

// The short caption of a mark: "data channel: ok", "photos sent: failed (error 5)", or the
// event's name when it carries no stage.
std::string Caption(const TimelineEvent& event);

// Which colour family the mark gets: "begun", "ok", "failed", "ended" or "other".
std::string ResultClass(const TimelineEvent& event);

}  // namespace QUEX::Tandra::Timeline
