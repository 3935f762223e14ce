#include "json_utils.h"

#include "json_text.h"

namespace QUEX {
namespace Tandra {

std::unique_ptr<Json::Value> JsonUtils::StringToJson(const std::string& text)
{
    if (text.empty()) {
        return nullptr;
    }
    auto value = std::make_unique<Json::Value>();
    std::string errors;
    if (!Vex::ParseJsonText(text, value.get(), &errors)) {
        return nullptr;
    }
    return value;
}

}  // namespace Tandra
}  // namespace QUEX
