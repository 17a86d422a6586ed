// SPDX-License-Identifier: Apache-2.0
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <locale>

#include "json_parse.h"
#include "native_migrate/migrate_records.h"
#include "vexa/testing/recording_log_sink.h"

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

// A text, its result, and the record afterwards, as the text that it is written as.
using BindCase = std::tuple<const char*, JsonError, std::string>;

template <typename T>
void Check(const T& start, const std::vector<BindCase>& cases)
{
    RecordingLogSink log;
    for (const auto& [text, result, left] : cases) {
        T record = start;
        EXPECT_EQ(JsonParse::JsonStrToStruct(text, record), result) << text;
        EXPECT_EQ(Written(record), left) << text;
    }
    EXPECT_TRUE(log.Messages().empty());
}

TEST(JsonBindTest, WholeTexts)
{
    const char* untouched = R"({"isTaskExist":true,"status":7})";
    Check(MigrateStatus{true, 7},
        {{"", DATA_ERROR, untouched}, {"{", TYPE_ERROR, untouched}, {"{}", SUCCESS, untouched},
            {"[]", SUCCESS, untouched}, {R"({"STATUS":1})", SUCCESS, untouched},
            {R"({"status":2})", SUCCESS, R"({"isTaskExist":true,"status":2})"},
            {R"({"status":2,"status":3,"isTaskExist":false})", SUCCESS, R"({"isTaskExist":false,"status":2})"},
            {R"({"isTaskExist":1,"status":2})", DATA_ERROR, untouched},
            {R"({"isTaskExist":null})", DATA_ERROR, untouched},
            {R"({"isTaskExist":false,"status":"2"})", DATA_ERROR, R"({"isTaskExist":false,"status":7})"}});
}

TEST(JsonBindTest, NumbersAreTruncatedAndMustFit)
{
    const std::vector<std::tuple<const char*, const char*, JsonError, const char*>> cases = {
        {"status", "2147483647.9", SUCCESS, "2147483647"}, {"status", "2147483648", DATA_ERROR, "0"},
        {"status", "-2147483648.9", SUCCESS, "-2147483648"}, {"status", "-2147483649", DATA_ERROR, "0"},
        {"status", "1e400", DATA_ERROR, "0"}, {"percent", "4294967296", DATA_ERROR, "0"},
        {"percent", "-0.5", SUCCESS, "0"}, {"percent", "-1", DATA_ERROR, "0"},
        {"remainingTime", "18446744073709549568", SUCCESS, "18446744073709549568"},
        {"remainingTime", "18446744073709551615", DATA_ERROR, "0"},
        {"requiredTraffic", "9223372036854774784", SUCCESS, "9223372036854774784"},
        {"requiredTraffic", "9223372036854775807", DATA_ERROR, "0"},
        {"requiredTraffic", "-9223372036854775808", SUCCESS, "-9223372036854775808"},
        {"requiredTraffic", "-9223372036854777856", DATA_ERROR, "0"}};
    for (const auto& [key, number, result, stored] : cases) {
        const std::string member = '"' + std::string(key) + "\":";
        MigrateProgress record;
        EXPECT_EQ(JsonParse::JsonStrToStruct('{' + member + number + '}', record), result) << key << number;
        EXPECT_NE(Written(record).find(member + stored + ','), std::string::npos) << key << number << Written(record);
    }
    int64_t target = 5;
    EXPECT_FALSE(StoreNumber(std::numeric_limits<double>::quiet_NaN(), target));
    EXPECT_EQ(target, 5);
}

TEST(JsonBindTest, VectorsAreAppendedToUpToTheFirstMisfit)
{
    const std::string empty = R"({"message":"","errorNum":0,"data":[{"errorCode":9,"errorMessage":"old"})";
    const std::string named = R"({"message":"m","errorNum":0,"data":[{"errorCode":9,"errorMessage":"old"})";
    Check(BusinessError{"", 0, {{9, "old"}}},
        {{R"({"message":"m","data":[{"errorCode":2,"errorMessage":"x"},{}]})", SUCCESS,
             named + R"(,{"errorCode":2,"errorMessage":"x"},{"errorCode":0,"errorMessage":""}]})"},
            {R"({"data":null})", SUCCESS, empty + "]}"}, {R"({"data":{},"message":"m"})", DATA_ERROR, named + "]}"},
            {R"({"message":"m","errorNum":"1","data":[{}]})", DATA_ERROR, named + "]}"},
            {R"({"data":[{"errorCode":1},{"errorCode":"2"},{"errorCode":3}]})", DATA_ERROR,
                empty + R"(,{"errorCode":1,"errorMessage":""}]})"}});
    Check(std::vector<std::string>(),
        {{R"(["a","","\u00e9\n\u0001\"\\\/"])", SUCCESS, "[\"a\",\"\",\"\u00e9\\n\\u0001\\\"\\\\/\"]"},
            {R"(["a",1,"b"])", DATA_ERROR, R"(["a"])"}, {R"({"a":"b"})", DATA_ERROR, "[]"}, {"null", SUCCESS, "[]"},
            {"7", DATA_ERROR, "[]"}});
    Check(std::vector<MigrationUser>(), {{R"([{"sourceUser":1,"targetUser":2},{}])", SUCCESS,
                                            R"([{"sourceUser":1,"targetUser":2},{"sourceUser":-1,"targetUser":-1}])"}});
    std::vector<RestoreEventInfo> events(1);
    std::vector<RestoreAppInfo> apps(1);
    ASSERT_EQ(JsonParse::JsonStrToStruct(R"([{"restoreAppInfo":{"appName":"n"}}])", events), SUCCESS);
    EXPECT_TRUE(JsonParse::JsonStrToStruct("[{}]", apps) == SUCCESS && apps.size() == 2);
    const RestoreAppInfo& app = events.at(1).restoreAppInfo;
    EXPECT_EQ(std::tuple(app.appName, app.isRestoreData, app.isTwinApp, app.appType), std::tuple("n", true, false, 1));
}

struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// One text for every record, every field away from its default; what is bound and written again must be the same text,
// whatever the locale.
TEST(JsonBindTest, EveryRecordKeepsItsKeysAndTheirOrder)
{
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const auto keeps = [](auto record, const std::string& text) {
        EXPECT_EQ(JsonParse::JsonStrToStruct(text, record), SUCCESS) << text;
        EXPECT_EQ(Written(record), text);
    };
    const std::string progress = R"({"status":-1,"percent":4294967295,"remainingTime":5000000001,"suspendReason":-4,)"
                                 R"("requiredTraffic":-5000000000,"requiredMigrationSpace":-6000000000,"skipTime":-7,)"
                                 R"("maxWaitTime":-8})";
    const std::string error = R"({"code":-1,"reason":"r","canRetry":true})";
    keeps(MigrateInfo(),
        "{\"migrateProgress\":" + progress +
            R"(,"taskInfos":[{"id":4294967295,"status":-2,"subStatus":4294967294,"type":-4,"source":"s","target":"t",)"
            R"("displayPolicy":{"needDisplay":"n","displayBundleName":"b",)"
            R"("displayModuleNames":["x","y"]},"pauseReason":-5,"requiredTraffic":-6000000000,"progress":-7,)"
            R"("index":4294967293,"userId":-9,"configStage":-10}]})");
    keeps(EventInfo(), "{\"progress\":" + progress +
                           R"(,"taskProgresses":[{"id":4294967295,"status":-2,"subStatus":4294967294,"pauseReason":-4,)"
                           R"("requiredTraffic":-5000000000,"progress":-6}]})");
    keeps(std::vector<PakMigrateInfo>(), R"([{"source":"s","target":"t","status":-1}])");
    keeps(std::vector<ModuleMigrationPolicy>(),
        R"([{"sourceModuleInfo":{"type":-1,"id":"a"},"targetModuleInfos":[{"type":2,"id":"b"}]}])");
    keeps(ReserveMigrationStatus(), "{\"status\":-2,\"errorInfo\":" + error + '}');
    keeps(std::vector<RestoreEventInfo>(),
        R"([{"restoreAppInfo":{"packageName":"p","versionName":"v","versionCode":"c","signature":"s",)"
        R"("scanSourceDir":"d","restoreScene":"r","isRestoreData":false,"abiType":-2,"isTwinApp":true,)"
        R"("appName":"a","appType":-3},"status":-4,"errorInfo":)" +
            error + "}]");
    MigrateProgress large{.remainingTime = UINT64_MAX, .requiredMigrationSpace = 9007199254740993};
    EXPECT_NE(Written(large).find(R"("remainingTime":18446744073709551615,)"), std::string::npos);
    EXPECT_NE(Written(large).find(R"("requiredMigrationSpace":9007199254740993,)"), std::string::npos);
    std::locale::global(previous);
}

// Returns `target` after it was read from a key with this value, or from a missing one when the value is empty.
template <typename T>
T ReadKey(const std::string& value, JsonError result, T target)
{
    const JsonContext json(value.empty() ? "{}" : "{\"key\":" + value + '}');
    EXPECT_EQ(JsonParse::GetValueAndSetTo(json, "key", target), result) << value;
    return target;
}

TEST(JsonReadKeyTest, Numbers)
{
    for (const char* value : {"", "null", "\"1\"", "true", "[1]", "{}"}) {
        EXPECT_EQ(ReadKey<int64_t>(value, MISSING_PROP, 5), 5);
    }
    for (const char* value : {"9007199254740992", "-9007199254740992", "18446744073709551616", "1e400", "-1e400"}) {
        EXPECT_EQ(ReadKey<int64_t>(value, NUMBER_EXTRA_LONG, 5), 5);
    }
    EXPECT_EQ(ReadKey<int64_t>("9007199254740991", SUCCESS, 5), 9007199254740991);
    EXPECT_EQ(ReadKey<int64_t>("-9007199254740991", SUCCESS, 5), -9007199254740991);
    EXPECT_EQ(ReadKey<uint32_t>("-1", NUMBER_EXTRA_LONG, 5), 5U);
}

TEST(JsonReadKeyTest, StringsAndRecords)
{
    const std::string old = "old";
    EXPECT_EQ(ReadKey("", MISSING_PROP, old), old);
    EXPECT_EQ(ReadKey("1", TYPE_ERROR, old), old);
    EXPECT_EQ(ReadKey("null", TYPE_ERROR, old), old);
    EXPECT_EQ(ReadKey("\"new\"", SUCCESS, old), "new");

    const TaskDisplayPolicy policy{"n", "b", {}};
    EXPECT_EQ(ReadKey("[]", MISSING_PROP, policy).needDisplay, "n");
    const auto half = ReadKey(R"({"needDisplay":"x","displayBundleName":1})", DATA_ERROR, policy);
    EXPECT_EQ(half.needDisplay + half.displayBundleName, "xb");
}

TEST(JsonReadKeyTest, ATaskReadsEveryKeyAndNeverFails)
{
    TaskInfo task;
    task.id = 1;
    task.status = TaskStatus::FAILED;
    task.configStage = TaskConfigStage::NONE;
    task.source = "kept";
    task.displayPolicy.needDisplay = "kept";
    RecordingLogSink log;
    const JsonContext json(R"({"status":"1","displayPolicy":[],"type":77,"target":5,"requiredTraffic":1e300})");
    task.FromJson(json, task);
    EXPECT_EQ(std::tuple(task.id, task.status, task.type, task.configStage),
        std::tuple(1U, TaskStatus::IDLE, static_cast<TaskType>(77), static_cast<TaskConfigStage>(16)));
    EXPECT_EQ(task.source + task.displayPolicy.needDisplay, "keptkept");
    for (const LogEntry& entry : log.Entries()) {
        EXPECT_EQ(std::tuple(entry.domain, entry.tag), std::tuple(0xD002E11U, "MIGRATE_KITS"));
    }
    const auto line = [](const std::string& text) { return RecordedMessage{KOLOG_ERROR, "json_parse.h", text}; };
    const std::string missing = "parse tpye error, missing prop : ";
    EXPECT_EQ(
        log.Messages(), (std::vector{line(missing + "id "), line(missing + "status "), line(missing + "subStatus "),
                            line("parse error, missing prop : source "), line("type is error : target "),
                            line(missing + "displayPolicy "), line(missing + "pauseReason "),
                            line("number extra long : requiredTraffic "), line(missing + "progress "),
                            line(missing + "index "), line(missing + "userId "), line(missing + "configStage ")}));
    MigrateInfo info;
    EXPECT_EQ(JsonParse::JsonStrToStruct(R"({"taskInfos":[{"id":"x"},{"id":2}]})", info), SUCCESS);
    ASSERT_EQ(info.taskInfos.size(), 2U);
    EXPECT_EQ(info.taskInfos[1].id, 2U);
}

int g_allocations = 0;  // that are left to cJSON

TEST(JsonWriteTest, AStringWithoutMemoryClosesItsObjectAndEndsTheList)
{
    cJSON_Hooks hooks{[](size_t size) { return g_allocations-- > 0 ? malloc(size) : nullptr; }, free};
    cJSON_InitHooks(&hooks);
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
    cJSON_InitHooks(nullptr);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
