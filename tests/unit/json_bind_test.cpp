// SPDX-License-Identifier: Apache-2.0
// Texts bound to records by their member lists.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "json_parse.h"
#include "native_migrate/migrate_records.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::UpdateEngine {
namespace {

using ::testing::ElementsAre;

// What stands in the record is compared as the text that it is written as.
template <typename T>
std::string Written(const T& data)
{
    std::string text;
    EXPECT_TRUE(JsonFromStruct().TraverseData(text, data));
    return text;
}

struct BindCase {
    const char* text;
    JsonError result;
    const char* left;  // the record afterwards
};

template <typename T>
void Check(const std::vector<BindCase>& cases, const T& start = {})
{
    RecordingLogSink log;
    for (const BindCase& c : cases) {
        T record = start;
        EXPECT_EQ(JsonParse::JsonStrToStruct(c.text, record), c.result) << c.text;
        EXPECT_EQ(Written(record), c.left) << c.text;
    }
    EXPECT_TRUE(log.Messages().empty());
}

TEST(JsonBindTest, WholeTexts)
{
    const char* untouched = R"({"isTaskExist":true,"status":7})";
    Check<MigrateStatus>(
        {
            {"", JsonError::DATA_ERROR, untouched},
            {"{", JsonError::TYPE_ERROR, untouched},
            {"{}x", JsonError::TYPE_ERROR, untouched},
            {"{}", JsonError::SUCCESS, untouched},
            {"[]", JsonError::SUCCESS, untouched},
            {R"({"STATUS":1})", JsonError::SUCCESS, untouched},
            {R"({"status":2})", JsonError::SUCCESS, R"({"isTaskExist":true,"status":2})"},
            {R"({"status":2,"status":3,"isTaskExist":false})", JsonError::SUCCESS,
                R"({"isTaskExist":false,"status":2})"},
            {R"({"isTaskExist":1,"status":2})", JsonError::DATA_ERROR, untouched},
            {R"({"isTaskExist":null})", JsonError::DATA_ERROR, untouched},
            {R"({"isTaskExist":false,"status":"2"})", JsonError::DATA_ERROR, R"({"isTaskExist":false,"status":7})"},
        },
        {true, 7});
}

TEST(JsonBindTest, NumbersAreTruncatedAndMustFit)
{
    const std::vector<std::tuple<const char*, const char*, JsonError, const char*>> cases = {
        {"status", "3.9", JsonError::SUCCESS, "3"},
        {"status", "-3.9", JsonError::SUCCESS, "-3"},
        {"status", "2147483647.9", JsonError::SUCCESS, "2147483647"},
        {"status", "2147483648", JsonError::DATA_ERROR, "0"},
        {"status", "-2147483648.9", JsonError::SUCCESS, "-2147483648"},
        {"status", "-2147483649", JsonError::DATA_ERROR, "0"},
        {"status", "1e400", JsonError::DATA_ERROR, "0"},
        {"percent", "4294967295", JsonError::SUCCESS, "4294967295"},
        {"percent", "4294967296", JsonError::DATA_ERROR, "0"},
        {"percent", "-0.5", JsonError::SUCCESS, "0"},
        {"percent", "-1", JsonError::DATA_ERROR, "0"},
        {"remainingTime", "18446744073709549568", JsonError::SUCCESS, "18446744073709549568"},
        {"remainingTime", "18446744073709551615", JsonError::DATA_ERROR, "0"},
        {"requiredTraffic", "9223372036854774784", JsonError::SUCCESS, "9223372036854774784"},
        {"requiredTraffic", "9223372036854775807", JsonError::DATA_ERROR, "0"},
        {"requiredTraffic", "-9223372036854775808", JsonError::SUCCESS, "-9223372036854775808"},
        {"requiredTraffic", "-9223372036854777856", JsonError::DATA_ERROR, "0"},
        {"requiredTraffic", "-1e400", JsonError::DATA_ERROR, "0"},
    };
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
    Check<BusinessError>(
        {
            {R"({"message":"m","errorNum":1,"data":[{"errorCode":2,"errorMessage":"x"},{}]})", JsonError::SUCCESS,
                R"({"message":"m","errorNum":1,"data":[{"errorCode":9,"errorMessage":"old"},)"
                R"({"errorCode":2,"errorMessage":"x"},{"errorCode":0,"errorMessage":""}]})"},
            {R"({"data":null})", JsonError::SUCCESS,
                R"({"message":"","errorNum":0,"data":[{"errorCode":9,"errorMessage":"old"}]})"},
            {R"({"data":{},"message":"m"})", JsonError::DATA_ERROR,
                R"({"message":"m","errorNum":0,"data":[{"errorCode":9,"errorMessage":"old"}]})"},
            {R"({"data":1})", JsonError::DATA_ERROR,
                R"({"message":"","errorNum":0,"data":[{"errorCode":9,"errorMessage":"old"}]})"},
            {R"({"message":"m","errorNum":"1","data":[{}]})", JsonError::DATA_ERROR,
                R"({"message":"m","errorNum":0,"data":[{"errorCode":9,"errorMessage":"old"}]})"},
            {R"({"data":[{"errorCode":1},{"errorCode":"2"},{"errorCode":3}]})", JsonError::DATA_ERROR,
                R"({"message":"","errorNum":0,"data":[{"errorCode":9,"errorMessage":"old"},)"
                R"({"errorCode":1,"errorMessage":""}]})"},
        },
        {"", 0, {{9, "old"}}});
    Check<std::vector<std::string>>({
        {R"(["a","","\u00e9\n"])", JsonError::SUCCESS, "[\"a\",\"\",\"\u00e9\\n\"]"},
        {R"(["a",1,"b"])", JsonError::DATA_ERROR, R"(["a"])"},
        {R"({"a":"b"})", JsonError::DATA_ERROR, "[]"},
        {"null", JsonError::SUCCESS, "[]"},
        {"7", JsonError::DATA_ERROR, "[]"},
    });
    Check<std::vector<ModuleMigrationPolicy>>({{"{}", JsonError::DATA_ERROR, "[]"}});
}

TEST(JsonBindTest, ElementsStartFromTheirDefaults)
{
    Check<std::vector<MigrationUser>>({{R"([{"sourceUser":1,"targetUser":2},{}])", JsonError::SUCCESS,
        R"([{"sourceUser":1,"targetUser":2},{"sourceUser":-1,"targetUser":-1}])"}});
    std::vector<RestoreEventInfo> events;
    ASSERT_EQ(JsonParse::JsonStrToStruct(R"([{"restoreAppInfo":{"appName":"n"},"status":3},)"
                                         R"({"status":4,"errorInfo":{"code":5,"canRetry":true}}])",
                  events),
        JsonError::SUCCESS);
    EXPECT_EQ(events[0].restoreAppInfo.appName, "n");
    EXPECT_TRUE(events[0].restoreAppInfo.isRestoreData);
    EXPECT_EQ(events[0].restoreAppInfo.appType, 1);
    EXPECT_EQ(events[1].status, 4);
    EXPECT_EQ(events[1].errorInfo.code, 5);
    EXPECT_TRUE(events[1].errorInfo.canRetry);
}

// One text for every record, every field away from its default; what is bound and written again must be the same text.
TEST(JsonBindTest, EveryRecordKeepsItsKeysAndTheirOrder)
{
    const auto keeps = [](auto record, const std::string& text) {
        EXPECT_EQ(JsonParse::JsonStrToStruct(text, record), JsonError::SUCCESS) << text;
        EXPECT_EQ(Written(record), text);
    };
    const std::string progress = R"({"status":1,"percent":2,"remainingTime":3,"suspendReason":4,"requiredTraffic":5,)"
                                 R"("requiredMigrationSpace":6,"skipTime":7,"maxWaitTime":8})";
    const std::string error = R"({"code":1,"reason":"r","canRetry":true})";
    keeps(MigrateInfo(), "{\"migrateProgress\":" + progress +
                             R"(,"taskInfos":[{"id":1,"status":2,"subStatus":3,"type":4,"source":"s","target":"t",)"
                             R"("displayPolicy":{"needDisplay":"n","displayBundleName":"b",)"
                             R"("displayModuleNames":["x","y"]},"pauseReason":5,"requiredTraffic":6,"progress":7,)"
                             R"("index":8,"userId":9,"configStage":10}]})");
    keeps(EventInfo(), "{\"progress\":" + progress +
                           R"(,"taskProgresses":[{"id":1,"status":2,"subStatus":3,"pauseReason":4,)"
                           R"("requiredTraffic":5,"progress":6}]})");
    keeps(std::vector<PakMigrateInfo>(), R"([{"source":"s","target":"t","status":1}])");
    keeps(std::vector<ModuleMigrationPolicy>(),
        R"([{"sourceModuleInfo":{"type":1,"id":"a"},"targetModuleInfos":[{"type":2,"id":"b"}]}])");
    keeps(ReserveMigrationStatus(), "{\"status\":2,\"errorInfo\":" + error + '}');
    keeps(std::vector<RestoreEventInfo>(),
        R"([{"restoreAppInfo":{"packageName":"p","versionName":"v","versionCode":"c","signature":"s",)"
        R"("scanSourceDir":"d","restoreScene":"r","isRestoreData":false,"abiType":2,"isTwinApp":true,)"
        R"("appName":"a","appType":3},"status":4,"errorInfo":)" +
            error + "}]");
}

TEST(JsonBindTest, OneMemberUnderAKey)
{
    const JsonContext json(R"({"a":{"type":4,"id":"x"}})");
    bool found = true;
    EXPECT_EQ(&JsonToStruct::GetMemberValue(json, "", found), &json);
    EXPECT_EQ(&JsonToStruct::GetMemberValue(json, "a", found), &json["a"]);
    EXPECT_TRUE(found);
    EXPECT_EQ(JsonToStruct::GetMemberValue(json, "b", found).Type(), JsonContext::ABSENT);
    EXPECT_FALSE(found);
    ModuleInfo module;
    EXPECT_TRUE(JsonToStruct().TraverseStruct(json["a"], module, std::index_sequence<1>(), ""));
    EXPECT_EQ(Written(module), R"({"type":0,"id":"x"})");
    EXPECT_TRUE(JsonToStruct().AccessMember(json, module, "a"));
    EXPECT_EQ(module.type, 4);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
