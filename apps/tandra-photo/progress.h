// Progress: how tandra-photo tells its user what happens. Three forms: on a terminal, stage
// lines plus one status line redrawn in place; piped, plain lines; with --json, one JSON
// object per event for scripts. Every stage of a collaboration and its end go through here.
// Thread-safety: events come from IPC threads and the main thread; each call is atomic.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include <json/json.h>

namespace QUEX {
namespace Tandra {

class Progress {
public:
    enum class Form { TERMINAL, PLAIN, JSON };
    Progress(Form form, std::FILE* out) : form_(form), out_(out) {}

    // Chooses TERMINAL when out is a terminal, else PLAIN; JSON when asked.
    static Form FormFor(bool json, std::FILE* out);

    // A stage that stays on screen: `event` names it for scripts, `text` for people; extra
    // keys go into the JSON object.
    void Stage(const std::string& event, const std::string& text, const Json::Value& extra = Json::Value());
    // A passing status (bytes arriving); only a terminal shows it, redrawn in place.
    void Status(const std::string& text);
    // An error line (stderr for people; the JSON stream for scripts).
    void Error(const std::string& event, const std::string& text, const Json::Value& extra = Json::Value());

private:
    void ClearStatus();  // REQUIRES: mutex_ held

    const Form form_;
    std::FILE* const out_;
    std::mutex mutex_;
    bool statusShown_ = false;
};

}  // namespace Tandra
}  // namespace QUEX
