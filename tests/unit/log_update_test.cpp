// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <fstream>
#include <iomanip>
#include <map>
#include <sstream>

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

// The level, the label, the format and the text of every line, the latter two without the place.
std::vector<std::string> Lines(const RecordingLogSink& log)
{
    constexpr std::string_view format = "[%{public}s(%{public}d)]";
    constexpr std::string_view place = "[file.cpp(12)]";
    std::vector<std::string> lines;
    for (const LogEntry& entry : log.Entries()) {
        EXPECT_EQ(entry.format.rfind(format, 0), 0U) << entry.format;
        EXPECT_EQ(entry.message.rfind(place, 0), 0U) << entry.message;
        EXPECT_EQ(entry.type, 3U);
        char label[64];
        std::snprintf(label, sizeof label, "%u %X/%s ", entry.level, entry.domain, entry.tag.c_str());
        lines.push_back(label + entry.format.substr(format.size()) + "|" + entry.message.substr(place.size()));
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

TEST(UpdateLogTest, KeepsItsLevel)
{
    EXPECT_TRUE(INITIAL_LEVEL == 1 && UpdateLogContent().level == 1);
    UpdateLog::GetLogLevel() = UPDATE_DEBUG;
    UpdateLog::SetLogLevel(UPDATE_ERROR);
    EXPECT_TRUE(UpdateLog::GetLogLevel() == 3 && UpdateLog::JudgeLevel(UPDATE_DEBUG));
}

TEST(UpdateLogTest, PrintsAsTheTableSaysAndDoesNotAskForTheLevel)
{
    const std::map<std::string, void (*)(uint32_t, const UpdateLogContent&)> printers = {
        {"line", UpdateLog::PrintSingleLine}, {"log", UpdateLog::PrintLog}, {"long", UpdateLog::PrintLongLog}};
    UpdateLog::SetLogLevel(UPDATE_ERROR);
    std::ifstream file(NM_TEST_DATA_DIR "/log.txt");
    ASSERT_TRUE(file);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::vector<std::string> expected;
        for (std::string more; file.peek() == ' ' && std::getline(file >> std::ws, more);) {
            expected.push_back(more);
        }
        std::istringstream words(line);
        std::string printer;
        std::string format;
        uint32_t label = 0;
        int32_t level = 0;
        ASSERT_TRUE(words >> printer >> label >> level >> std::quoted(format)) << line;
        KoLogSetPrivateShown(printer == "long");
        RecordingLogSink log;
        printers.at(printer)(label, Content(format, "100% text", level));
        EXPECT_EQ(Lines(log), expected) << line;
    }
    EXPECT_EQ(UPDATE_LABEL.size(), 12U);
    KoLogSetPrivateShown(false);
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
            pieces.push_back(
                "4 D002E11/MIGRATE_KITS %{public}s|" + text.substr(at, std::min<size_t>(900, length - at)));
        }
        EXPECT_EQ(Lines(log), pieces);
    }
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
