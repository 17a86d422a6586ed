// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "native_migrate/update_log.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::UpdateEngine {
namespace {

using ::testing::ElementsAre;

constexpr uint32_t MIGRATE_KITS = 7;

UpdateLogContent Content(std::string log, std::string args, int32_t level = UPDATE_INFO)
{
    return {{}, static_cast<UpdateLogLevel>(level), std::move(log), std::move(args), "dir/file.cpp", 12};
}

TEST(UpdateLogTest, LevelStartsAtInfoAndIsWrittenThroughItsReference)
{
    EXPECT_EQ(UpdateLog::GetLogLevel(), UPDATE_INFO);
    UpdateLog::GetLogLevel() = UPDATE_DEBUG;
    EXPECT_EQ(UpdateLog::GetLogLevel(), UPDATE_DEBUG);
    UpdateLog::SetLogLevel(UPDATE_ERROR);
    EXPECT_EQ(UpdateLog::GetLogLevel(), UPDATE_ERROR);
    RecordingLogSink log;
    UpdateLog::PrintSingleLine(MIGRATE_KITS, Content("%{public}s", "x", UPDATE_DEBUG));
    EXPECT_EQ(log.Entries().size(), 1U) << "printing does not ask for the level";
    UpdateLog::SetLogLevel(UPDATE_INFO);
    for (const int level : {0, 1, 2, 3, 99, -1}) {
        EXPECT_TRUE(UpdateLog::JudgeLevel(static_cast<UpdateLogLevel>(level)));
    }
}

TEST(UpdateLogTest, SingleLineMapsLevelLabelAndPrivacy)
{
    const struct {
        uint32_t index;
        int32_t level;
        const char* log;
        uint32_t platformLevel;  // 0: no line
        const char* format;
    } cases[] = {
        {7, 0, "%{public}s", 3, "[%{public}s(%{public}d)]%{public}s"},
        {0, 1, "%{private}s", 4, "[%{public}s(%{public}d)]%{private}s"},
        {11, 3, "%s", 6, "[%{public}s(%{public}d)]%s"},
        {2, 1, "%{public}s ", 4, "[%{public}s(%{public}d)]%s"},
        {2, 1, "", 4, "[%{public}s(%{public}d)]%s"},
        {7, 2, "%{public}s", 0, ""},
        {7, -1, "%{public}s", 0, ""},
        {12, 1, "%{public}s", 0, ""},
        {0xFFFFFFFF, 3, "%{public}s", 0, ""},
    };
    for (const auto& one : cases) {
        RecordingLogSink log;
        UpdateLogContent content = Content(one.log, "100% text", one.level);
        content.label = {9, 9, "IGNORED"};
        UpdateLog::PrintSingleLine(one.index, content);
        UpdateLog::PrintLongLog(one.platformLevel == 0 ? one.index : UPDATE_LABEL.size(), content);
        const auto entries = log.Entries();
        ASSERT_EQ(entries.size(), one.platformLevel == 0 ? 0U : 1U) << one.log << one.index;
        if (!entries.empty()) {
            const LogEntry& entry = entries[0];
            EXPECT_EQ(entry.type, 3U);
            EXPECT_EQ(entry.level, one.platformLevel);
            EXPECT_EQ(entry.domain, UPDATE_LABEL.at(one.index).domain);
            EXPECT_EQ(entry.tag, UPDATE_LABEL.at(one.index).tag);
            EXPECT_EQ(entry.format, one.format);
            const bool shown = std::string(one.log) == "%{public}s";
            EXPECT_EQ(entry.message, shown ? "[file.cpp(12)]100% text" : "[file.cpp(12)]<private>");
        }
    }
}

TEST(UpdateLogTest, LogIsCutIntoPiecesOf900Bytes)
{
    const struct {
        size_t length;
        std::vector<size_t> pieces;
    } cases[] = {{0, {}}, {1, {1}}, {899, {899}}, {900, {900}}, {901, {900, 1}}, {2000, {900, 900, 200}}};
    for (const auto& one : cases) {
        RecordingLogSink log;
        std::string text(one.length, '\0');
        for (size_t at = 0; at < text.size(); ++at) {
            text[at] = static_cast<char>('a' + at % 23);
        }
        UpdateLog::PrintLog(MIGRATE_KITS, Content("%{public}s", text, UPDATE_ERROR));
        std::string joined;
        std::vector<size_t> pieces;
        for (const RecordedMessage& message : log.Messages()) {
            EXPECT_EQ(message.level, KOLOG_ERROR);
            EXPECT_EQ(message.line, 12);
            pieces.push_back(message.text.size());
            joined += message.text;
        }
        EXPECT_EQ(pieces, one.pieces);
        EXPECT_EQ(joined, text);
    }
}

TEST(UpdateLogTest, LongLogPrintsThreeRuns)
{
    const struct {
        const char* log;
        std::vector<std::string> formats;  // behind the prefix
        std::vector<std::string> texts;
    } cases[] = {
        {"copy %{private}s done", {"%{public}s", "%{private}s", "%{public}s"}, {"copy ", "/data/a", " done"}},
        {"%{public}s", {"%{public}s"}, {"/data/a"}},
        {"got %s", {"%{public}s", "%s"}, {"got ", "/data/a"}},
        {"no placeholder", {"%{public}s", "%s"}, {"no placeholder", "/data/a"}},
        {"%s and %s", {"%{public}s", "%s"}, {"%s and %s", "/data/a"}},
        {"", {"%s"}, {"/data/a"}},
    };
    KoLogSetPrivateShown(true);
    for (const auto& one : cases) {
        RecordingLogSink log;
        UpdateLog::PrintLongLog(MIGRATE_KITS, Content(one.log, "/data/a"));
        std::vector<std::string> formats;
        for (const LogEntry& entry : log.Entries()) {
            formats.push_back(entry.format.substr(24));
        }
        std::vector<std::string> texts;
        for (const RecordedMessage& message : log.Messages()) {
            texts.push_back(message.text);
        }
        EXPECT_EQ(formats, one.formats) << one.log;
        EXPECT_EQ(texts, one.texts) << one.log;
    }
    KoLogSetPrivateShown(false);
}

TEST(UpdateLogTest, TextHelpers)
{
    const struct {
        const char* log;
        const char* placeholder;
    } placeholders[] = {{"a %s b", "%s"}, {"a %{public}s b", "%{public}s"}, {"%{private}s", "%{private}s"},
        {"a %s %s", ""}, {"100%", ""}, {"%d", ""}, {"", ""}, {"%% %s", ""}, {"%{public}d", ""}};
    for (const auto& one : placeholders) {
        EXPECT_EQ(UpdateLog::GetFmtLabel(one.log), one.placeholder) << one.log;
    }
    using Split = std::pair<std::string, std::string>;
    EXPECT_EQ(UpdateLog::SplitLogByFmtLabel("a %s b", "%s"), Split("a ", " b"));
    EXPECT_EQ(UpdateLog::SplitLogByFmtLabel("a %s b", ""), Split("a %s b", ""));
    EXPECT_EQ(UpdateLog::SplitLogByFmtLabel("%s", "%s"), Split("", ""));
    const struct {
        const char* text;
        const char* sub;
        int32_t count;
    } counts[] = {{"aaa", "aa", 2}, {"aaaa", "a", 4}, {"abc", "d", 0}, {"", "", 1}, {"abc", "", 4}, {"", "a", 0}};
    for (const auto& one : counts) {
        EXPECT_EQ(UpdateLog::FindSubStrCount(one.text, one.sub), one.count) << one.text << ' ' << one.sub;
    }
    const struct {
        const char* path;
        const char* name;
    } names[] = {{"a/b/c", "c"}, {"a\\b", "b"}, {"c", "c"}, {"a/", ""}, {"a\\b/c", "c"}, {"a/b\\c", "b\\c"}, {"", ""}};
    for (const auto& one : names) {
        EXPECT_EQ(UpdateLog::GetBriefFileName(one.path), one.name) << one.path;
    }
}

std::string ReplacedOneByOne(std::string log)
{
    for (size_t at = log.find("%{public}"); at != log.npos; at = log.find("%{public}")) {
        log.replace(at, 9, "%");
    }
    return log;
}

TEST(UpdateLogTest, UploadFormatEqualsReplacingOneByOne)
{
    EXPECT_EQ(UpdateLog::OutputDueUploadLog("[%{public}s(%{public}d)]x"), "[%s(%d)]x");
    EXPECT_EQ(UpdateLog::OutputDueUploadLog("%{public}"), "%");
    EXPECT_EQ(UpdateLog::OutputDueUploadLog("x%{publi"), "x%{publi");
    EXPECT_EQ(UpdateLog::OutputDueUploadLog("%{public}{public}{public}s"), "%s");
    std::mt19937 random(20261124);
    const std::string_view parts[] = {"%", "{public}", "%{public}", "%{publ", "ic}", "{", "x", "%{private}"};
    for (int round = 0; round < 20000; ++round) {
        std::string log;
        for (auto count = random() % 12; count > 0; --count) {
            log += parts[random() % std::size(parts)];
        }
        ASSERT_EQ(UpdateLog::OutputDueUploadLog(log), ReplacedOneByOne(log)) << log;
    }
}

// A cost that grew with the square would take minutes for these sizes.
TEST(UpdateLogTest, TenMebibytesTakeTimeInLineWithTheirLength)
{
    class CountingSink : public LogSink {
    public:
        bool Write(const LogRecord& record) override
        {
            bytes += record.message.size();
            return true;
        }
        size_t bytes = 0;
    } counting;
    constexpr size_t SIZE = 10 << 20;
    constexpr size_t PREFIX = std::string_view("[file.cpp(12)]").size();
    LogSink* previous = SetLogSink(&counting);
    const auto start = std::chrono::steady_clock::now();
    UpdateLog::PrintLog(MIGRATE_KITS, Content("%{public}s", std::string(SIZE, 'x')));
    std::string marks = "%";
    while (marks.size() < SIZE) {
        marks += "{public}";
    }
    const std::string upload = UpdateLog::OutputDueUploadLog(marks);
    const auto taken = std::chrono::steady_clock::now() - start;
    SetLogSink(previous);
    EXPECT_EQ(counting.bytes, SIZE + (SIZE + 899) / 900 * PREFIX);
    EXPECT_EQ(upload, "%");
    EXPECT_LT(taken, std::chrono::seconds(20));
}

}  // namespace
}  // namespace VEXA::UpdateEngine
