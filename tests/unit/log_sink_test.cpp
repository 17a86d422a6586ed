// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>

#include "journal_fields.h"
#include "log_settings.h"
#include "sink_slot.h"
#include "support/processes.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;

int Print(const char* text, uint32_t level = KOLOG_INFO)
{
    return KoLogPrint(KOLOG_TYPE_CORE, level, 0xD002E11, "TAG", "%{public}s", text);
}

LogRecord Record(std::string_view message, uint32_t level = KOLOG_ERROR)
{
    return {3, level, 0xD002E11, "TAG", 411, 415, {1795557187, 123456789}, "%{public}s", message};
}

std::string ReadAll(int fd)
{
    std::string text;
    char piece[4096];
    for (ssize_t size = 0; (size = read(fd, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<size_t>(size));
    }
    return text;
}

TEST(KoLogTest, LinesBelowTheLevelAreNotLookedAt)
{
    RecordingLogSink log(KOLOG_WARN);
    const char* unreadable = reinterpret_cast<const char*>(1);
    EXPECT_EQ(Print(unreadable, KOLOG_INFO), 0);
    EXPECT_EQ(Print("warn", KOLOG_WARN), 4);
    EXPECT_EQ(KoLogPrint(3, KOLOG_ERROR, 1, nullptr, nullptr), -1);
    EXPECT_EQ(KoLogPrint(3, KOLOG_ERROR, 1, nullptr, "%n"), -1);
    KoLogSetLevel(KOLOG_FATAL);
    EXPECT_FALSE(KoLogIsLoggable(KOLOG_ERROR));
    KoLogSetLevel(0);  // everything, whatever the environment says
    EXPECT_EQ(KoLogGetLevel(), 1U);
    EXPECT_THAT(log.Messages(),
        ElementsAre(RecordedMessage{KOLOG_WARN, "", "warn"}, RecordedMessage{KOLOG_ERROR, "", "<bad format>"}));
}

class CallingSink : public LogSink {
public:
    explicit CallingSink(std::function<bool(const LogRecord&)> write) : write_(std::move(write)) {}
    bool Write(const LogRecord& record) override { return write_(record); }

private:
    const std::function<bool(const LogRecord&)> write_;
};

TEST(KoLogTest, DroppedLinesAreCountedAndReportedLater)
{
    enum { REFUSES, THROWS, TAKES } mood = REFUSES;
    std::vector<std::string> lines;
    CallingSink sink([&](const LogRecord& record) {
        errno = EAGAIN;
        Print("a sink's own line");
        lines.push_back(std::to_string(record.level) + record.format + std::string(record.message));
        EXPECT_NEAR(static_cast<double>(record.time.tv_sec), static_cast<double>(time(nullptr)), 60);
        return mood == THROWS ? throw 42 : mood == TAKES;
    });
    LogSink* previous = SetLogSink(&sink);
    errno = 77;
    Print("one");
    Print("two");
    mood = THROWS;
    Print("three");
    EXPECT_EQ(errno, 77);
    mood = TAKES;
    lines.clear();
    Print("four");
    Print("five");
    EXPECT_EQ(SetLogSink(previous), &sink);
    EXPECT_THAT(lines, ElementsAre("5%{public}llu lines dropped3 lines dropped", "4%{public}sfour", "4%{public}sfive"));
}

// Two writers are in the replaced sink, one of them by the counter that isn't current any more.
TEST(SinkSlotTest, AReplacementWaitsForAllWritersAndInAForkedChildForNone)
{
    std::atomic<int> entered{0};
    std::atomic<bool> open[2] = {};  // gates for the writers of INFO and of WARN
    CallingSink gates([&](const LogRecord& record) {
        for (++entered; !open[record.level - KOLOG_INFO];) {
            sched_yield();
        }
        return true;
    });
    RingLogSink ring;
    SinkSlot slot;
    slot.Replace(&gates);
    LogSink* previous = SetLogSink(&gates);
    std::thread printing([] { Print("x"); });
    std::thread writers[] = {std::thread([&] { slot.WriteInTurn(0, Record("x", KOLOG_INFO)); }),
        std::thread([&] { slot.WriteInTurn(1, Record("x", KOLOG_WARN)); })};
    while (entered != 3) {
        sched_yield();
    }
    std::atomic<bool> isReplaced{false};
    std::thread replacing([&] { isReplaced = slot.Replace(&ring) == &gates; });
    for (const unsigned turn : {0U, 1U}) {
        while (slot.Turn() == turn && !isReplaced) {
            sched_yield();
        }
        EXPECT_FALSE(isReplaced);
        const auto replaceAtOnce = [&] {
            const auto start = std::chrono::steady_clock::now();
            slot.ForgetOtherThreads();
            slot.Replace(&gates);
            SetLogSink(&ring);
            Print("child");
            const bool soon = std::chrono::steady_clock::now() - start < std::chrono::seconds(2);
            return soon && ring.After(0).back().message == "child" ? 0 : 1;
        };
        EXPECT_EQ(test::InChild(replaceAtOnce), 0);
        open[turn] = true;
        writers[turn].join();
    }
    replacing.join();
    printing.join();
    SetLogSink(previous);
}

TEST(FileSinkTest, AppendsWholeLinesClosesItsFileAndWaitsForNobody)
{
    const test::TempDir folder;
    const std::string path = folder.Path() + "/log";
    const auto countFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = countFiles();
    const int next = dup(STDOUT_FILENO);
    close(next);
    umask(0);
    {
        const auto sink = MakeFileLogSink(path);
        EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
        EXPECT_TRUE(MakeFileLogSink(path)->Write(Record("x")) && sink->Write(Record("y")));
        const rlim_t size = 2 * (ToLogLine(Record("x")).size() + 1);
        EXPECT_EQ(std::filesystem::file_size(path), size);
        const rlimit almostFull{size + 9, size + 9};
        EXPECT_EQ(
            test::InChild([&] { return setrlimit(RLIMIT_FSIZE, &almostFull) != 0 || sink->Write(Record("z")); }), 0);
    }
    EXPECT_EQ(static_cast<int>(std::filesystem::status(path).permissions()), 0640);
    EXPECT_EQ(unlink(path.c_str()) + mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(MakeFileLogSink(path), nullptr);  // nobody reads
    EXPECT_EQ(countFiles(), before);
}

TEST(StderrSinkTest, NeverBlocksOnAFullOrAbandonedReader)
{
    for (const bool isSocket : {false, true}) {
        const auto logToOneself = [isSocket] {
            int ends[2];
            if ((isSocket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : pipe(ends)) != 0 ||
                dup2(ends[1], STDERR_FILENO) < 0 || close(ends[1]) != 0) {
                return 1;
            }
            MakeStderrLogSink();  // goes again, and leaves the descriptor open
            SetLogSink(MakeStderrLogSink().release());
            const std::string text(1000, 'x');
            for (int count = 0; count < 2000; ++count) {  // more than either holds
                errno = EINVAL;                           // of something else
                Print(text.c_str());
            }
            const bool isLeftAlone = (fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK) == 0;
            fcntl(ends[0], F_SETFL, O_NONBLOCK);
            const std::string taken = ReadAll(ends[0]);
            Print("room again");
            const std::string later = ReadAll(ends[0]);
            close(ends[0]);
            Print("nobody reads");
            const auto dropped = 2000 - std::count(taken.begin(), taken.end(), '\n');
            const size_t report = later.find(": " + std::to_string(dropped) + " lines dropped\n");
            const bool isReported = report != later.npos && later.find("room again\n", report) != later.npos;
            return isLeftAlone && (taken.back() == '\n' || isSocket) && isReported ? 0 : 2;
        };
        EXPECT_EQ(test::InChild(logToOneself), 0) << isSocket;
    }
}

// To run in a process that has not logged yet.
void PrintUnder(const char* sink, const char* level, const char* debug)
{
    setenv("KOLOG_SINK", sink, 1);
    setenv("KOLOG_LEVEL", level, 1);
    setenv("KOLOG_DEBUG_PROCESS", debug, 1);
    Print("a warning", KOLOG_WARN);
    KoLogPrint(3, KOLOG_ERROR, 0xD002E11, "TAG", "<%s>", "secret");
    for (const LogEntry& entry : RingLogSink::Process().After(0)) {
        fprintf(stderr, "ring: %s\n", entry.message.c_str());
    }
    _exit(0);
}

TEST(EnvironmentTest, ChoosesSinkLevelAndPrivacy)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(PrintUnder("stderr", "", ""), ExitedWithCode(0), "^2[^\n]* W D002E11/TAG: a w.*\n.*<<private>>\n$");
    EXPECT_EXIT(PrintUnder("ring", "error", "1"), ExitedWithCode(0), "^ring: <secret>\n$");
    EXPECT_EXIT(PrintUnder("file:/nowhere/x", "6", "0"), ExitedWithCode(0),
        "KOLOG_SINK=file:/nowhere/x can't be used: No such file or directory\n.*E D002E11/TAG: <<private>>\n");
    if (access("/run/systemd/journal/socket", W_OK) != 0) {
        EXPECT_EXIT(PrintUnder("journal", "", ""), ExitedWithCode(0), "KOLOG_SINK=journal can't be used: No such");
    }
    EXPECT_EXIT(PrintUnder("file:/dev/stderr", "", "1"), ExitedWithCode(0), "^[^\n]*a warning\n[^\n]*<secret>\n$");
    EXPECT_EXIT(PrintUnder("fax", "6x", ""), ExitedWithCode(0),
        "^2[^\n]* KOLOG_SINK=fax can't be used: it is none of .*KOLOG_LEVEL=6x is none of .* a warning\n");
    EXPECT_EXIT(PrintUnder("fax", "fatal", ""), ExitedWithCode(0), "^$");
}

TEST(EnvironmentTest, LevelsAreNamesOrNumbers)
{
    const std::pair<const char*, uint32_t> cases[] = {{"debug", 3}, {"INFO", 4}, {"Warn", 5}, {"error", 6},
        {"fatal", 7}, {"6", 6}, {"1", 1}, {"", 0}, {"0", 0}, {"6x", 0}, {"-1", 0}, {"99999999999", 0}};
    for (const auto& [text, level] : cases) {
        EXPECT_EQ(LevelFromText(text).value_or(0), level) << text;
    }
}

TEST(LogTextTest, LinesCantBeForgedAndFitAPipe)
{
    LogRecord forged = Record("a\tb\nc\x1b[1m\x7f\xc3\xa4");
    forged.tag = "T\nG";
    EXPECT_EQ(ToLogLine(forged), "2026-11-24T21:53:07.123Z 411 415 E D002E11/T\\nG: a\tb\\nc\\x1b[1m\\x7f\xc3\xa4");
    const std::string line = ToLogLine(Record(std::string(3072, '\n')));
    EXPECT_LT(line.size(), 4096U);
    EXPECT_THAT(line, ::testing::EndsWith("<truncated>"));
    std::string marks;
    for (uint32_t level = 2; level <= 8; ++level) {
        marks += ToLogLine(Record("", level))[sizeof "2026-11-24T21:53:07.123Z 411 415"];
        marks += static_cast<const char*>(JournalFields(Record("", level)).Data()[1].iov_base)[sizeof "PRIORITY"];
    }
    EXPECT_EQ(marks, "?7D7I6W4E3F2?7");
}

TEST(RingSinkTest, KeepsTheLastLines)
{
    RingLogSink ring;
    for (int number = 1; number <= 1026; ++number) {
        ring.Write(Record(std::to_string(number)));
    }
    EXPECT_EQ(ring.After(0).at(0).message, "3");
    EXPECT_EQ(ring.After(1025).at(0).number, 1026U);
    EXPECT_TRUE(ring.After(2000).empty());
    EXPECT_TRUE(RingLogSink(0).Write(Record("")));
}

// With `root`/systemd/journal/socket, which `journal` reads, as the journal. Exit code 77: the system allows none.
int WriteToOwnJournal(const std::string& root, int journal)
{
    if ((unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(root.c_str(), "/run", nullptr, MS_BIND, nullptr) != 0) {
        return 77;
    }
    const auto sink = MakeJournalLogSink();
    if (sink == nullptr || !sink->Write(Record("hello")) ||
        ReadAll(journal).find("MESSAGE=hello\nPRIORITY=3\nSYSLOG_IDENTIFIER=TAG\nTID=415\nKOLOG_TYPE=3\nKOLOG_LEVEL=6\n"
                              "KOLOG_DOMAIN=0xD002E11\nKOLOG_FORMAT=%{public}s\n") == std::string::npos) {
        return 1;
    }
    const int next = dup(journal);
    close(next);
    for (int count = 0; count < 100000; ++count) {
        if (!sink->Write(Record("unread"))) {
            return dup(journal) == next ? 0 : 3;  // no descriptor is lost
        }
    }
    return 2;
}

TEST(JournalSinkTest, SendsAndDropsWhenTheJournalIsFull)
{
    const test::TempDir root;
    std::filesystem::create_directories(root.Path() + "/systemd/journal");
    sockaddr_un address{AF_UNIX, ""};
    (root.Path() + "/systemd/journal/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    EXPECT_EQ(bind(journal, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const int result = test::InChild([&] { return WriteToOwnJournal(root.Path(), journal); });
    close(journal);
    if (result == 77) {
        GTEST_SKIP() << "no mount namespace of our own";
    }
    EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace VEXA
