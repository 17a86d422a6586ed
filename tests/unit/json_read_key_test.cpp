// SPDX-License-Identifier: Apache-2.0
// Single keys, which must be there, and the tasks that are read with them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "json_parse.h"
#include "native_migrate/migrate_records.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::UpdateEngine {
namespace {

using ::testing::ElementsAre;

RecordedMessage Line(const std::string& text)
{
    return {KOLOG_ERROR, "json_parse.h", text};
}

struct KeyCase {
    const char* value;  // nothing: no such key
    JsonError result;
    const char* line;
};

// Reads "key" into `target`; gives back what stands there afterwards.
template <typename T>
T ReadKey(const KeyCase& c, T target)
{
    RecordingLogSink log;
    const JsonContext json(*c.value == '\0' ? "{}" : "{\"key\":" + std::string(c.value) + '}');
    EXPECT_EQ(JsonParse::GetValueAndSetTo(json, "key", target), c.result) << c.value;
    std::vector<RecordedMessage> lines;
    if (*c.line != '\0') {
        lines.push_back(Line(c.line));
        EXPECT_EQ(log.Entries().at(0).domain, 0xD002E11U);
        EXPECT_EQ(log.Entries().at(0).tag, "MIGRATE_KITS");
    }
    EXPECT_EQ(log.Messages(), lines) << c.value;
    return target;
}

constexpr const char* MISSING = "parse tpye error, missing prop : key ";
constexpr const char* TOO_LONG = "number extra long : key ";

TEST(JsonReadKeyTest, Numbers)
{
    for (const char* value : {"", "null", "\"1\"", "true", "[1]", "{}"}) {
        EXPECT_EQ(ReadKey<int32_t>({value, JsonError::MISSING_PROP, MISSING}, 5), 5);
        EXPECT_EQ(ReadKey<uint32_t>({value, JsonError::MISSING_PROP, MISSING}, 5), 5U);
        EXPECT_EQ(ReadKey<int64_t>({value, JsonError::MISSING_PROP, MISSING}, 5), 5);
    }
    for (const char* value : {"9007199254740992", "-9007199254740992", "18446744073709551616", "1e400", "-1e400"}) {
        EXPECT_EQ(ReadKey<int32_t>({value, JsonError::NUMBER_EXTRA_LONG, TOO_LONG}, 5), 5);
        EXPECT_EQ(ReadKey<int64_t>({value, JsonError::NUMBER_EXTRA_LONG, TOO_LONG}, 5), 5);
    }
    EXPECT_EQ(ReadKey<int64_t>({"9007199254740991", JsonError::SUCCESS, ""}, 5), 9007199254740991);
    EXPECT_EQ(ReadKey<int64_t>({"-9007199254740991", JsonError::SUCCESS, ""}, 5), -9007199254740991);
    EXPECT_EQ(ReadKey<int32_t>({"2147483648", JsonError::NUMBER_EXTRA_LONG, TOO_LONG}, 5), 5);
    EXPECT_EQ(ReadKey<int32_t>({"-7.9", JsonError::SUCCESS, ""}, 5), -7);
    EXPECT_EQ(ReadKey<uint32_t>({"-1", JsonError::NUMBER_EXTRA_LONG, TOO_LONG}, 5), 5U);
    EXPECT_EQ(ReadKey<uint32_t>({"-0.5", JsonError::SUCCESS, ""}, 5), 0U);
    EXPECT_EQ(ReadKey<uint32_t>({"4294967295", JsonError::SUCCESS, ""}, 5), 4294967295U);
}

TEST(JsonReadKeyTest, StringsAndRecords)
{
    const std::string old = "old";
    EXPECT_EQ(ReadKey({"", JsonError::MISSING_PROP, "parse error, missing prop : key "}, old), old);
    EXPECT_EQ(ReadKey({"1", JsonError::TYPE_ERROR, "type is error : key "}, old), old);
    EXPECT_EQ(ReadKey({"null", JsonError::TYPE_ERROR, "type is error : key "}, old), old);
    EXPECT_EQ(ReadKey({"\"new\"", JsonError::SUCCESS, ""}, old), "new");

    const TaskDisplayPolicy policy{"n", "b", {}};
    EXPECT_EQ(ReadKey({"[]", JsonError::MISSING_PROP, MISSING}, policy).needDisplay, "n");
    const auto bound = ReadKey({R"({"displayModuleNames":["m"]})", JsonError::SUCCESS, ""}, policy);
    EXPECT_EQ(bound.displayBundleName, "b");
    EXPECT_THAT(bound.displayModuleNames, ElementsAre("m"));
    const auto half = ReadKey({R"({"needDisplay":"x","displayBundleName":1})", JsonError::DATA_ERROR, ""}, policy);
    EXPECT_EQ(half.needDisplay, "x");
    EXPECT_EQ(half.displayBundleName, "b");
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
    EXPECT_EQ(task.id, 1U);
    EXPECT_EQ(task.status, TaskStatus::IDLE);
    EXPECT_EQ(task.type, static_cast<TaskType>(77));
    EXPECT_EQ(task.source, "kept");
    EXPECT_EQ(task.displayPolicy.needDisplay, "kept");
    EXPECT_EQ(task.configStage, static_cast<TaskConfigStage>(16));
    const std::string missing = "parse tpye error, missing prop : ";
    EXPECT_THAT(
        log.Messages(), ElementsAre(Line(missing + "id "), Line(missing + "status "), Line(missing + "subStatus "),
                            Line("parse error, missing prop : source "), Line("type is error : target "),
                            Line(missing + "displayPolicy "), Line(missing + "pauseReason "),
                            Line("number extra long : requiredTraffic "), Line(missing + "progress "),
                            Line(missing + "index "), Line(missing + "userId "), Line(missing + "configStage ")));
}

TEST(JsonReadKeyTest, TasksInAVectorStartFromTheirDefaults)
{
    RecordingLogSink log;
    MigrateInfo info;
    EXPECT_EQ(JsonParse::JsonStrToStruct(R"({"taskInfos":[{"configStage":3,"id":9},7,{}]})", info), JsonError::SUCCESS);
    ASSERT_EQ(info.taskInfos.size(), 3U);
    EXPECT_EQ(info.taskInfos[0].configStage, static_cast<TaskConfigStage>(3));
    EXPECT_EQ(info.taskInfos[0].id, 9U);
    EXPECT_EQ(info.taskInfos[2].configStage, static_cast<TaskConfigStage>(16));
    EXPECT_EQ(log.Messages().size(), 11U + 13U + 13U);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
