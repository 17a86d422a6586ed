// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "log_line.h"
#include "native_migrate/update_log.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::UpdateEngine {
namespace {

constexpr uint32_t MIGRATE_KITS = 7;

UpdateLogContent Content(std::string log, std::string args, int32_t level = UPDATE_INFO)
{
    return {{}, static_cast<UpdateLogLevel>(level), std::move(log), std::move(args), "dir/file.cpp", 12};
}

// The level, the format and the text of every line, both without the place.
std::vector<std::string> Lines(const RecordingLogSink& log)
{
    constexpr std::string_view format = "[%{public}s(%{public}d)]";
    constexpr std::string_view place = "[file.cpp(12)]";
    std::vector<std::string> lines;
    for (const LogEntry& entry : log.Entries()) {
        EXPECT_EQ(entry.format.rfind(format, 0), 0U) << entry.format;
        EXPECT_EQ(entry.message.rfind(place, 0), 0U) << entry.message;
        lines.push_back(std::to_string(entry.level) + entry.format.substr(format.size()) + "|" +
                        entry.message.substr(place.size()));
    }
    return lines;
}

TEST(LogLineTest, NamesThePlaceUnderTheLabelOfTheKits)
{
    RecordingLogSink log;
    const LogSite caller = LOG_SITE();
    EXPECT_EQ(caller.line, __LINE__ - 1);
    KITS_LOG_AT(caller, KOLOG_ERROR, "Service is null");
    KITS_LOGD("%{public}s result is %{public}d", "On", 104);
    const std::string line = std::to_string(__LINE__ - 1);
    EXPECT_EQ(log.Entries()[0].message, "[log_update_test.cpp(" + std::to_string(caller.line) + ")]Service is null");
    const LogEntry entry = log.Entries()[1];
    EXPECT_EQ(entry.message, "[log_update_test.cpp(" + line + ")]On result is 104");
    EXPECT_EQ(entry.format, "[%{public}s(%{public}d)]%{public}s result is %{public}d");
    EXPECT_EQ(std::tuple(entry.level, entry.tag), std::tuple(KOLOG_DEBUG, "MIGRATE_KITS"));
}

const UpdateLogLevel INITIAL_LEVEL = UpdateLog::GetLogLevel();

TEST(UpdateLogTest, LabelsAndLevels)
{
    const std::pair<uint32_t, const char*> labels[] = {{0x00, "UPDATE_SA"}, {0x00, "UPDATE_FIRMWARE"},
        {0x01, "UPDATE_KITS"}, {0x00, "UPDATE_PARAM"}, {0x00, "UPDATE_ACCESSORY"}, {0x00, "UPDATE_ASSIST"},
        {0x10, "MIGRATE_SA"}, {0x11, "MIGRATE_KITS"}, {0x12, "MIGRATE_PLUGIN"}, {0x15, "DEVICE_ACTIVATE_SERVICE"},
        {0x16, "FILE_URI_SERVICE"}, {0x00, "UPDATE_DH"}};
    RecordingLogSink log;
    uint32_t index = 0;
    for (const auto& [module, tag] : labels) {
        UpdateLog::PrintSingleLine(index, Content("%{public}s", "x"));
        const LogEntry entry = log.Entries().at(index++);
        EXPECT_EQ(std::tuple(entry.tag, entry.domain, entry.type), std::tuple(tag, 0xD002E00 + module, 3U));
    }
    EXPECT_EQ(UPDATE_LABEL.size(), index);

    EXPECT_TRUE(INITIAL_LEVEL == 1 && UpdateLogContent().level == 1);
    UpdateLog::GetLogLevel() = UPDATE_DEBUG;
    UpdateLog::SetLogLevel(UPDATE_ERROR);
    EXPECT_TRUE(UpdateLog::GetLogLevel() == 3 && UpdateLog::JudgeLevel(UPDATE_DEBUG));
}

TEST(UpdateLogTest, SingleLineMapsLevelLabelAndPrivacy)
{
    UpdateLog::SetLogLevel(UPDATE_ERROR);  // printing does not ask for it
    // Rows without a line have a level or a label that does not exist.
    const std::tuple<uint32_t, const char*, int32_t, std::vector<std::string>> rows[] = {
        {7, "%{public}s", UPDATE_DEBUG, {"3%{public}s|100% text"}}, {0, "%{private}s", 1, {"4%{private}s|<private>"}},
        {11, "%s", UPDATE_ERROR, {"6%s|<private>"}}, {2, "%{public}s ", 1, {"4%s|<private>"}}, {7, "%{public}s", 2, {}},
        {7, "%{public}s", -1, {}}, {12, "%{public}s", 1, {}}, {UINT32_MAX, "%{public}s", 3, {}}};
    for (const auto& [index, format, level, lines] : rows) {
        RecordingLogSink log;
        const UpdateLogContent content = Content(format, "100% text", level);
        UpdateLog::PrintSingleLine(index, content);
        if (lines.empty()) {
            UpdateLog::PrintLog(index, content);
            UpdateLog::PrintLongLog(index, content);
        }
        EXPECT_EQ(Lines(log), lines) << index << format << level;
    }
}

// A cost that grew with the square would take minutes for the last size.
TEST(UpdateLogTest, LogIsCutIntoPiecesOf900Bytes)
{
    std::string text;
    for (int number = 0; text.size() < 10 << 20; ++number) {
        text += std::to_string(number);
    }
    for (const size_t length : std::vector<size_t>{0, 1, 899, 900, 901, 2000, text.size()}) {
        RecordingLogSink log;
        UpdateLog::PrintLog(MIGRATE_KITS, Content("%{public}s", text.substr(0, length)));
        std::vector<std::string> pieces;
        for (size_t at = 0; at < length; at += 900) {
            pieces.push_back("4%{public}s|" + text.substr(at, std::min<size_t>(900, length - at)));
        }
        EXPECT_EQ(Lines(log), pieces);
    }
}

TEST(UpdateLogTest, LongLogPrintsThreeRuns)
{
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"copy %{private}s done", {"4%{public}s|copy ", "4%{private}s|/data/a", "4%{public}s| done"}},
        {"%{public}s", {"4%{public}s|/data/a"}}, {"got %s", {"4%{public}s|got ", "4%s|/data/a"}},
        {"no placeholder", {"4%{public}s|no placeholder", "4%s|/data/a"}},
        {"%s and %s", {"4%{public}s|%s and %s", "4%s|/data/a"}}, {"100%% %s", {"4%{public}s|100%% %s", "4%s|/data/a"}},
        {"", {"4%s|/data/a"}}};
    KoLogSetPrivateShown(true);
    for (const auto& [text, lines] : cases) {
        RecordingLogSink log;
        UpdateLog::PrintLongLog(MIGRATE_KITS, Content(text, "/data/a"));
        EXPECT_EQ(Lines(log), lines) << text;
    }
    KoLogSetPrivateShown(false);
}

TEST(UpdateLogTest, TextHelpers)
{
    EXPECT_TRUE(UpdateLog::FindSubStrCount("aaa", "aa") == 2 && UpdateLog::FindSubStrCount("", "a") == 0);
    EXPECT_EQ(UpdateLog::FindSubStrCount("abc", ""), 4);
    const std::pair<const char*, const char*> names[] = {
        {"a/b/c", "c"}, {"a\\b", "b"}, {"c", "c"}, {"a/", ""}, {"a\\b/c", "c"}, {"a/b\\c", "b\\c"}, {"", ""}};
    for (const auto& [path, name] : names) {
        EXPECT_EQ(UpdateLog::GetBriefFileName(path), name) << path;
    }
}

TEST(UpdateLogTest, UploadFormatEqualsReplacingOneByOne)
{
    const std::pair<const char*, const char*> cases[] = {{"%{public}s %{private}d{public}", "%s %{private}d{public}"},
        {"%%{public}%{public}", "%%%"}, {"%{public}{public}x{public}", "%x{public}"},
        {"%%{public}{public}{publ", "%%{publ"}, {"%{publ%{public}ic}", "%{publ%ic}"}, {"", ""}};
    for (const auto& [log, replaced] : cases) {
        EXPECT_EQ(UpdateLog::OutputDueUploadLog(log), replaced);
    }
    std::string marks = "%";
    while (marks.size() < 10 << 20) {  // here it would take hours
        marks += "{public}";
    }
    EXPECT_EQ(UpdateLog::OutputDueUploadLog(marks), "%");
}

}  // namespace
}  // namespace VEXA::UpdateEngine
