#include "json_utils.h"

#include <exception>

namespace QUEX {
namespace Tandra {

std::unique_ptr<Json::Value> JsonUtils::StringToJson(const std::string& text)
{
    if (text.empty()) {
        return nullptr;
    }
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    auto value = std::make_unique<Json::Value>();
    std::string errors;
    try {
        // The reader throws instead of failing when the nesting exceeds its stack limit.
        if (!reader->parse(text.data(), text.data() + text.size(), value.get(), &errors)) {
            return nullptr;
        }
    } catch (const std::exception&) {
        return nullptr;
    }
    return value;
}

}  // namespace Tandra
}  // namespace QUEX
