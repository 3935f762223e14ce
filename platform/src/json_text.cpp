#include "json_text.h"

#include <exception>
#include <memory>

#include <json/reader.h>

namespace Vex {

bool ParseJsonText(const char* text, size_t size, Json::Value* root, std::string* error, const JsonRules& rules)
{
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = rules.depthLimit;
    builder["rejectDupKeys"] = rules.rejectDuplicateKeys;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (!reader->parse(text, text + size, root, &errors)) {
            *error = errors;
            return false;
        }
    } catch (const std::exception&) {
        // The only throw on this path: nesting past stackLimit.
        *root = Json::Value();
        *error = "JSON nested more than " + std::to_string(rules.depthLimit) + " levels deep";
        return false;
    }
    return true;
}

}  // namespace Vex
