// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "vexa/json/json_context.h"

namespace VEXA {
namespace {

using namespace std::string_literals;

template <size_t Alternative>
auto Held(const JsonContext& json)
{
    const JsonValue value = json.Value();
    const auto* held = std::get_if<Alternative>(&value);
    return held == nullptr ? std::decay_t<decltype(*held)>() : *held;
}

TEST(JsonContextTest, DiscardsWhatIsNotOneWholeText)
{
    const std::vector<std::string> bad = {"", " ", "{", "[1", "{\"a\":}", "[1]x", "{} {}", "nul", "'a'", "[1]\0"s,
        "[1]\0x"s, "[\"a\0b\"]"s, R"(["\u0000"])", R"({"k\u0000":1})", R"(["\uZZZZ"])", R"(["\u12"])", R"(["\u)", "\\",
        R"(["\ud800"])", R"(["\n\u0000"])", std::string(1001, '[') + std::string(1001, ']'),
        std::string(10 << 20, '[')};
    for (const std::string& text : bad) {
        const JsonContext json(text);
        EXPECT_TRUE(json.IsDiscarded()) << text.substr(0, 40);
        EXPECT_EQ(json.Type(), JsonContext::ABSENT);
        EXPECT_EQ(json.begin(), json.end());
        EXPECT_EQ(json["a"].Type(), JsonContext::ABSENT);
    }
    const std::vector<std::string> good = {
        " [1] \n", "\xEF\xBB\xBF{}", "1", "null", R"(["\\u0000"])", std::string(1000, '[') + std::string(1000, ']')};
    for (const std::string& text : good) {
        EXPECT_FALSE(JsonContext(text).IsDiscarded()) << text.substr(0, 40);
    }
    EXPECT_EQ(Held<6>(*JsonContext(R"(["a\\u0000b\u004Ab\u00cF"])").begin()), "a\\u0000bJb\u00CF");
}

TEST(JsonContextTest, HoldsEachKindInItsAlternativeAndFindsTheFirstOfSeveral)
{
    const JsonContext json(R"({"o":{"x":1},"n":-2.5,"s":"text","a":[1,2],"t":true,"f":false,"z":null,"e":"","E":[]})");
    const std::pair<const char*, JsonContext::Kind> kinds[] = {{"o", JsonContext::OBJECT}, {"n", JsonContext::NUMBER},
        {"s", JsonContext::STRING}, {"a", JsonContext::ARRAY}, {"t", JsonContext::BOOLEAN},
        {"z", JsonContext::NULL_VALUE}, {"absent", JsonContext::ABSENT}};
    for (const auto& [key, kind] : kinds) {
        EXPECT_EQ(json[key].Type(), kind) << key;
    }
    EXPECT_EQ(Held<6>(json["e"]), "");
    EXPECT_EQ(Held<7>(json["a"])->count, 2U);
    EXPECT_TRUE(Held<8>(json["o"])->count == 1 && Held<8>(json["o"])->first->Key() == "x");
    for (const char* key : {"z", "absent"}) {
        EXPECT_EQ(Held<0>(json[key]), std::nullopt) << key;
        EXPECT_EQ(json[key].begin(), json[key].end()) << key;
    }
    EXPECT_TRUE(json.IsContains("z"));
    EXPECT_EQ(json["E"].size(), 0U);
    EXPECT_FALSE(json["s"].IsContains("s"));
    EXPECT_FALSE(json["a"].IsContains(""));

    const JsonContext twice(R"({"a":1,"b":2,"A":3,"a":4,"":5,"b":6,"c":7,"c":8})");
    for (const auto& [key, number] : {std::pair("c", 7), {"a", 1}, {"A", 3}, {"b", 2}, {"", 5}}) {
        EXPECT_EQ(Held<5>(twice[key]), number) << key;
    }
    EXPECT_FALSE(twice.IsContains("a\0b"s));
}

}  // namespace
}  // namespace VEXA
