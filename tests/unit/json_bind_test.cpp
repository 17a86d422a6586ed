// SPDX-License-Identifier: Apache-2.0
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <climits>
#include <fstream>
#include <limits>
#include <locale>
#include <map>
#include <new>

#include "json_parse.h"
#include "native_migrate/migrate_records.h"
#include "vexa/testing/recording_log_sink.h"

int g_allocations = INT_MAX;  // that are left to cJSON and to values

// The linker puts the second in the place of operator new.
void* RealNew(size_t size, const std::nothrow_t& tag) __asm__("__real__ZnwmRKSt9nothrow_t");
void* New(size_t size, const std::nothrow_t& tag) __asm__("__wrap__ZnwmRKSt9nothrow_t");
void* New(size_t size, const std::nothrow_t& tag)
{
    return g_allocations-- > 0 ? RealNew(size, tag) : nullptr;
}
cJSON_Hooks g_hooks{[](size_t size) { return g_allocations-- > 0 ? malloc(size) : nullptr; }, free};
const bool HOOKED = (cJSON_InitHooks(&g_hooks), true);

namespace VEXA::UpdateEngine {
namespace {

using enum JsonError;

template <typename T>
std::string Written(const T& data, bool result = true)
{
    std::string text = "replaced";
    EXPECT_EQ(JsonFromStruct().TraverseData(text, data), result);
    return text;
}

template <typename T>
struct One {
    T n{};
    static constexpr auto Members() { return MemberList(Member{"n", &One::n}); }
};

// Binds a text to a record that is as `start` says, and shows the record and what was logged.
template <typename T, bool isByKey = false>
JsonError Bind(const std::string& start, const std::string& text, std::string& left)
{
    T record{};
    EXPECT_EQ(JsonParse::JsonStrToStruct(start, record), SUCCESS) << start;
    RecordingLogSink log;
    JsonError result{};
    if constexpr (isByKey) {
        result = JsonParse::GetValueAndSetTo(JsonContext(text), "n", record.n);
    } else {
        result = JsonParse::JsonStrToStruct(text, record);
    }
    left = Written(record);
    for (const RecordedMessage& message : log.Messages()) {
        EXPECT_EQ(message, (RecordedMessage{KOLOG_ERROR, "json_parse.h", message.text}));
        left += '[' + message.text + ']';
    }
    for (const LogEntry& entry : log.Entries()) {
        EXPECT_EQ(std::tuple(entry.domain, entry.tag), std::tuple(0xD002E11U, "MIGRATE_KITS"));
    }
    return result;
}

const std::map<std::string, JsonError (*)(const std::string&, const std::string&, std::string&)> kRecords = {
    {"MigrateStatus", Bind<MigrateStatus>}, {"BusinessError", Bind<BusinessError>}, {"MigrateInfo", Bind<MigrateInfo>},
    {"TaskInfo", Bind<TaskInfo>}, {"EventInfo", Bind<EventInfo>},
    {"ReserveMigrationStatus", Bind<ReserveMigrationStatus>}, {"strings", Bind<std::vector<std::string>>},
    {"MigrationUsers", Bind<std::vector<MigrationUser>>}, {"PakMigrateInfos", Bind<std::vector<PakMigrateInfo>>},
    {"RestoreAppInfos", Bind<std::vector<RestoreAppInfo>>},
    {"ModuleMigrationPolicies", Bind<std::vector<ModuleMigrationPolicy>>},
    {"RestoreEventInfos", Bind<std::vector<RestoreEventInfo>>}, {"int32", Bind<One<int32_t>>},
    {"uint32", Bind<One<uint32_t>>}, {"int64", Bind<One<int64_t>>}, {"uint64", Bind<One<uint64_t>>},
    {"int64_key", Bind<One<int64_t>, true>}, {"uint32_key", Bind<One<uint32_t>, true>},
    {"string_key", Bind<One<std::string>, true>}, {"policy_key", Bind<One<TaskDisplayPolicy>, true>}};
const std::map<std::string, JsonError> kResults = {{"KEPT", SUCCESS}, {"SUCCESS", SUCCESS}, {"DATA_ERROR", DATA_ERROR},
    {"MISSING_PROP", MISSING_PROP}, {"TYPE_ERROR", TYPE_ERROR}, {"NUMBER_EXTRA_LONG", NUMBER_EXTRA_LONG}};

struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// As tests/data/json.txt says, whatever the locale.
TEST(JsonBindTest, RecordsTakeWhatFitsAndAreWrittenInTheirOrder)
{
    std::ifstream file(NM_TEST_DATA_DIR "/json.txt");
    ASSERT_TRUE(file);
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    auto record = kRecords.end();
    std::string start;
    for (std::string line; std::getline(file, line);) {
        for (std::string more; file.peek() == ' ' && std::getline(file >> std::ws, more);) {
            line += more;
        }
        const std::string word = line.substr(0, line.find(' '));
        std::string text = line.substr(std::min(line.size(), word.size() + 1));
        if (kRecords.contains(word)) {
            record = kRecords.find(word);
            start = text;
        } else if (!line.empty() && word != "#") {
            const size_t arrow = std::min(text.size(), text.find("-> "));
            const std::string changed = text.substr(std::min(text.size(), arrow + 3));
            text.erase(arrow);
            std::string left;
            EXPECT_EQ(record->second(start, text, left), kResults.at(word)) << record->first << ' ' << line;
            EXPECT_EQ(left, word == "KEPT" ? text : changed.empty() ? start : changed) << record->first << ' ' << line;
        }
    }
    MigrateProgress large{.remainingTime = UINT64_MAX, .requiredMigrationSpace = 9007199254740993};
    EXPECT_NE(Written(large).find(R"("remainingTime":18446744073709551615,)"), std::string::npos);
    EXPECT_NE(Written(large).find(R"("requiredMigrationSpace":9007199254740993,)"), std::string::npos);
    std::locale::global(previous);
    int64_t target = 5;
    EXPECT_FALSE(StoreNumber(std::numeric_limits<double>::quiet_NaN(), target));
    EXPECT_EQ(target, 5);
}

TEST(JsonMemoryTest, ATextIsReadWholeOrDiscardedAndLeavesNothing)
{
    std::string text = "[";  // more values than there is room for at first
    for (int number = 0; number < 300; ++number) {
        text += "[[]," + std::to_string(number) + "],";
    }
    text.back() = ']';
    const size_t before = (JsonContext(text), mallinfo2().uordblks);
    double read = 0;
    for (int given = 0; read == 0; ++given) {
        g_allocations = given;
        const JsonContext list(text);
        for (const JsonContext& element : list) {
            EXPECT_EQ(HeldValue<double>(element.begin()[1]), read++);
        }
        EXPECT_EQ(list.Type(), read == 300 ? JsonContext::ARRAY : JsonContext::ABSENT);
    }
    EXPECT_LT(mallinfo2().uordblks, before + 4000);
    g_allocations = INT_MAX;
}

TEST(JsonMemoryTest, AStringThatCannotBeWrittenClosesItsObjectAndEndsTheList)
{
    const std::string large = "1393796574908163946345982392040522594123776]}";
    const JsonContext read(R"({"o":{"b":1},"a":["b",)" + large);
    const std::vector<ModuleInfo> list{{1, "a"}, {2, "b"}};
    const std::vector<std::string> outcomes = {R"([{"type":1,"id"}])", R"([{"type":1,"id":"a"},{"type":2,"id"}])",
        R"([{"type":1,"id":"a"},{"type":2,"id":"b"}])"};
    // Making the string fails, or printing it: as many allocations each time.
    g_allocations = 1000;
    Written(list);
    const int once = (1000 - g_allocations) / 2;
    for (int given = 0; given <= 2 * once; ++given) {
        g_allocations = given;
        EXPECT_EQ(Written(list), outcomes[static_cast<size_t>(given / once)]) << given;
    }
    g_allocations = once;
    EXPECT_EQ(Written(std::vector<std::string>{"a", "bad", "c"}), R"(["a"])");
    EXPECT_EQ(Written(std::vector<std::string>{"bad", "c"}), "[]");
    EXPECT_EQ(Written(ModuleInfo{2, "bad"}, false), R"({"type":2,"id"})");
    // Of what was read, a text becomes null, and a member without a key is left out.
    const std::vector<std::string> partly = {"{}", R"({"o":{}})", R"({"o":{"b":1}})",
        R"({"o":{"b":1},"a":[null,)" + large, R"({"o":{"b":1},"a":["b",)" + large};
    for (int given = 0; given < 5; ++given) {
        g_allocations = given * once;
        EXPECT_EQ(ToJson(read), partly[static_cast<size_t>(given)]);
    }
    g_allocations = INT_MAX;
}

}  // namespace
}  // namespace VEXA::UpdateEngine
