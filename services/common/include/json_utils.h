// JsonUtils: reading JSON text received from a peer device. The text is untrusted, so a parse
// failure is an ordinary outcome (a null result), never an exception.
// Thread-safety: stateless; call from any thread.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>

namespace QUEX {
namespace Tandra {

class JsonUtils {
public:
    // The parsed value; null for an empty text or one that is not JSON.
    static std::unique_ptr<Json::Value> StringToJson(const std::string& text);
};

}  // namespace Tandra
}  // namespace QUEX
