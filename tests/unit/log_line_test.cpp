// SPDX-License-Identifier: Apache-2.0
#include "log_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vexa/testing/recording_log_sink.h"

namespace VEXA::UpdateEngine {
namespace {

using ::testing::ElementsAre;

void SharedMechanism(const LogSite& caller)
{
    KITS_LOG_AT(caller, KOLOG_ERROR, "Service is null");
}

TEST(LogLineTest, NamesThePlaceUnderTheLabelOfTheKits)
{
    RecordingLogSink log;
    KITS_LOGI("StartMigrate");
    const int line = __LINE__ - 1;
    KITS_LOGE("%{public}s result is %{public}d", "On", 104);
    KITS_LOGD("statusJsonString is %{public}s", "{}");
    SharedMechanism(LOG_SITE());
    const int callLine = __LINE__ - 1;

    const auto messages = log.Messages();
    EXPECT_THAT(messages, ElementsAre(RecordedMessage{KOLOG_INFO, "log_line_test.cpp", "StartMigrate"},
                              RecordedMessage{KOLOG_ERROR, "log_line_test.cpp", "On result is 104"},
                              RecordedMessage{KOLOG_DEBUG, "log_line_test.cpp", "statusJsonString is {}"},
                              RecordedMessage{KOLOG_ERROR, "log_line_test.cpp", "Service is null"}));
    EXPECT_EQ(messages[0].line, line);
    EXPECT_EQ(messages[3].line, callLine);
    const auto entries = log.Entries();
    EXPECT_EQ(entries[1].format, "[%{public}s(%{public}d)]%{public}s result is %{public}d");
    for (const LogEntry& entry : entries) {
        EXPECT_EQ(entry.type, 3U);
        EXPECT_EQ(entry.domain, 218115601U);
        EXPECT_EQ(entry.tag, "MIGRATE_KITS");
    }
}

TEST(LogLineTest, LabelsStandAtTheirSubModuleNumbers)
{
    EXPECT_EQ(UPDATE_LABEL.size(), 12U);
    EXPECT_STREQ(UPDATE_LABEL[2].tag, "UPDATE_KITS");
    EXPECT_EQ(UPDATE_LABEL[2].domain, 0xD002E01U);
    EXPECT_STREQ(UPDATE_LABEL[11].tag, "UPDATE_DH");
    EXPECT_EQ(UPDATE_LABEL[11].domain, 0xD002E00U);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
