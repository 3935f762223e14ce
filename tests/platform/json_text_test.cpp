// Untrusted JSON text: every bad input is a false with words, never an exception.
#include <gtest/gtest.h>

#include <string>

#include "json_text.h"

namespace {

struct JsonRow {
    const char* name;
    std::string text;
    Vex::JsonRules rules;
    bool ok;
    const char* errorHas;
};

class JsonTextTest : public ::testing::TestWithParam<JsonRow> {};

TEST_P(JsonTextTest, ParsesOrSaysWhy)
{
    const JsonRow& row = GetParam();
    Json::Value root;
    std::string error;
    bool ok = false;
    EXPECT_NO_THROW(ok = Vex::ParseJsonText(row.text, &root, &error, row.rules));
    EXPECT_EQ(ok, row.ok) << error;
    if (!row.ok) {
        EXPECT_NE(error.find(row.errorHas), std::string::npos) << error;
    }
}

Vex::JsonRules Depth(unsigned limit)
{
    Vex::JsonRules rules;
    rules.depthLimit = limit;
    return rules;
}

Vex::JsonRules NoDuplicates()
{
    Vex::JsonRules rules;
    rules.rejectDuplicateKeys = true;
    return rules;
}

std::string Repeat(const std::string& piece, int times)
{
    std::string out;
    for (int i = 0; i < times; ++i) {
        out += piece;
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, JsonTextTest,
    ::testing::Values(JsonRow{"Object", "{\"a\":[1,2,{\"b\":null}]}", {}, true, ""},
                      JsonRow{"NestedToTheLimit", std::string(8, '[') + std::string(8, ']'), Depth(8), true, ""},
                      JsonRow{"NestedPastTheLimit", std::string(9, '[') + std::string(9, ']'), Depth(8), false,
                              "nested more than 8"},
                      JsonRow{"UnclosedDeepNesting", std::string(100000, '['), {}, false, "nested more than 64"},
                      JsonRow{"DeepObjects", Repeat("{\"a\":", 100), {}, false, "nested"},
                      JsonRow{"Truncated", "{\"a\":", {}, false, "Syntax error"},
                      JsonRow{"Empty", "", {}, false, "Syntax error"},
                      JsonRow{"DuplicateKeysAllowed", "{\"a\":1,\"a\":2}", {}, true, ""},
                      JsonRow{"DuplicateKeysRefused", "{\"a\":1,\"a\":2}", NoDuplicates(), false, "Duplicate key"}),
    [](const ::testing::TestParamInfo<JsonRow>& info) { return info.param.name; });

}  // namespace
