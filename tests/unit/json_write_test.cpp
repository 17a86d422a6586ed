// SPDX-License-Identifier: Apache-2.0
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <limits>
#include <locale>

#include "json_from_struct.h"
#include "native_migrate/migrate_records.h"

namespace {

const char* g_failingText = nullptr;  // a string that there is no memory for

}  // namespace

extern "C" {
cJSON* __real_cJSON_CreateString(const char* text);
cJSON* __wrap_cJSON_CreateString(const char* text);

cJSON* __wrap_cJSON_CreateString(const char* text)
{
    const bool fails = g_failingText != nullptr && std::string_view(text) == g_failingText;
    return fails ? nullptr : __real_cJSON_CreateString(text);
}
}

namespace VEXA::UpdateEngine {
namespace {

template <typename T>
std::string Written(const T& data, bool result = true)
{
    std::string text = "replaced";
    EXPECT_EQ(JsonFromStruct().TraverseData(text, data), result);
    return text;
}

TEST(JsonWriteTest, Modules)
{
    using Modules = std::vector<ModuleInfo>;
    EXPECT_EQ(Written(Modules{}), "[]");
    EXPECT_EQ(Written(Modules{{1, "a"}, {2, "b"}}), R"([{"type":1,"id":"a"},{"type":2,"id":"b"}])");
    EXPECT_EQ(Written(Modules{{std::numeric_limits<int32_t>::min(), "a\"\\\n\x01/\xC3\xA9"}}),
        "[{\"type\":-2147483648,\"id\":\"a\\\"\\\\\\n\\u0001/\xC3\xA9\"}]");
}

TEST(JsonWriteTest, AStringWithoutMemoryClosesItsObjectAndEndsTheList)
{
    g_failingText = "bad";
    EXPECT_EQ(
        Written(std::vector<ModuleInfo>{{1, "a"}, {2, "bad"}, {3, "c"}}), R"([{"type":1,"id":"a"},{"type":2,"id"}])");
    EXPECT_EQ(Written(std::vector<std::string>{"bad", "c"}), "[]");
    EXPECT_EQ(Written(std::vector<std::string>{"a", "bad", "c"}), R"(["a"])");
    EXPECT_EQ(Written(ModuleInfo{2, "bad"}, false), R"({"type":2,"id"})");
    EXPECT_EQ(Written(std::string("bad"), false), "");
    g_failingText = nullptr;
}

TEST(JsonWriteTest, NumbersAreWrittenInFullWhateverTheLocale)
{
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    MigrateProgress progress;
    progress.remainingTime = std::numeric_limits<uint64_t>::max();
    progress.requiredTraffic = std::numeric_limits<int64_t>::min();
    progress.requiredMigrationSpace = 9007199254740993;
    EXPECT_EQ(Written(progress), R"({"status":0,"percent":0,"remainingTime":18446744073709551615,"suspendReason":0,)"
                                 R"("requiredTraffic":-9223372036854775808,"requiredMigrationSpace":9007199254740993,)"
                                 R"("skipTime":0,"maxWaitTime":0})");
    std::locale::global(previous);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
