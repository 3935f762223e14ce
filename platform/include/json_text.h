// Parsing JSON text that came from outside the process (a peer, a broadcast, a file, a line of a
// log) without letting it crash us: jsoncpp throws, rather than fails, when the nesting passes its
// stack limit, so every parse of untrusted text goes through here, where that becomes an error.
// Thread-safety: a plain function; any thread.
#pragma once

#include <cstddef>
#include <string>

#include <json/value.h>

namespace Vex {

struct JsonRules {
    // Nesting no message of ours comes near; deep enough for any file a person writes by hand.
    unsigned depthLimit = 64;
    // For protocol messages, where two readers could pick different copies of a key.
    bool rejectDuplicateKeys = false;
};

// True when text is one JSON value within the rules (stored in *root). Otherwise *error holds
// the reader's own words ("* Line 1, Column 7\n  Syntax error: ...") or says that the nesting
// is too deep.
bool ParseJsonText(const char* text, size_t size, Json::Value* root, std::string* error,
                   const JsonRules& rules = JsonRules());

inline bool ParseJsonText(const std::string& text, Json::Value* root, std::string* error,
                          const JsonRules& rules = JsonRules())
{
    return ParseJsonText(text.data(), text.size(), root, error, rules);
}

}  // namespace Vex
