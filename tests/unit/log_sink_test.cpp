// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "log_settings.h"
#include "vexa/log/kolog.h"
#include "vexa/log/log_sink.h"
#include "vexa/log/ring_log_sink.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;

int Print(const char* text, uint32_t level = KOLOG_INFO)
{
    return KoLogPrint(KOLOG_TYPE_CORE, level, 0xD002E11, "TAG", "%{public}s", text);
}

LogRecord Record(std::string_view message)
{
    return {3, KOLOG_ERROR, 0xD002E11, "TAG", 411, 415, {1795557187, 123456789}, "%{public}s", message};
}

// Runs `action` in a forked child, which gets 10 seconds, and returns its exit code.
template <typename Action>
int InChild(Action action)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        _exit(action());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
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
    EXPECT_THAT(log.Messages(),
        ElementsAre(RecordedMessage{KOLOG_WARN, "", "warn"}, RecordedMessage{KOLOG_ERROR, "", "<bad format>"}));
}

// Refuses, throws or logs itself, as told.
class UnwillingSink : public LogSink {
public:
    enum Mood { REFUSES, THROWS, TAKES };
    bool Write(const LogRecord& record) override
    {
        errno = EAGAIN;
        Print("a sink's own line");
        if (mood == THROWS) {
            throw 42;
        }
        if (mood == TAKES) {
            lines.emplace_back(record.message);
        }
        return mood == TAKES;
    }
    Mood mood = REFUSES;
    std::vector<std::string> lines;
};

TEST(KoLogTest, DroppedLinesAreCountedAndReportedLater)
{
    UnwillingSink sink;
    LogSink* previous = SetLogSink(&sink);
    errno = 77;
    Print("one");
    Print("two");
    sink.mood = UnwillingSink::THROWS;
    Print("three");
    EXPECT_EQ(errno, 77);
    sink.mood = UnwillingSink::TAKES;
    Print("four");
    Print("five");
    EXPECT_EQ(SetLogSink(previous), &sink);
    EXPECT_THAT(sink.lines, ElementsAre("3 lines dropped", "four", "five"));
}

// Takes its time, and notices when it goes while somebody is in it.
class SlowSink : public LogSink {
public:
    ~SlowSink() override { destroyedInUse = destroyedInUse || users != 0; }
    bool Write(const LogRecord&) override
    {
        ++users;
        sched_yield();
        --users;
        return true;
    }
    static inline std::atomic<bool> destroyedInUse{false};

private:
    std::atomic<int> users{0};
};

// A sink is destroyed as soon as it is replaced, while others log.
TEST(KoLogTest, SinksAreReplacedUnderFire)
{
    std::atomic<bool> stop{false};
    std::atomic<int> printed{0};
    LogSink* previous = SetLogSink(new SlowSink);
    std::vector<std::thread> threads;
    for (int count = 0; count < 3; ++count) {
        threads.emplace_back([&] {
            while (!stop) {
                printed += Print("x");
            }
        });
    }
    for (int round = 0; round < 200 || printed < 1000; ++round) {
        delete SetLogSink(new SlowSink);
        std::this_thread::yield();
    }
    // A child forked at any moment can log and replace the sink at once.
    for (int round = 0; round < 10; ++round) {
        const auto logAtOnce = [] {
            RingLogSink ring;
            const auto start = std::chrono::steady_clock::now();
            SetLogSink(&ring);
            const bool soon = std::chrono::steady_clock::now() - start < std::chrono::seconds(2);
            Print("child");
            return soon && !ring.After(0).empty() && ring.After(0).back().message == "child" ? 0 : 1;
        };
        EXPECT_EQ(InChild(logAtOnce), 0);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    delete SetLogSink(previous);
    EXPECT_FALSE(SlowSink::destroyedInUse);
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
            SetLogSink(MakeStderrLogSink().release());
            const std::string text(1000, 'x');
            for (int count = 0; count < 2000; ++count) {  // more than either holds
                Print(text.c_str());
            }
            const bool isLeftAlone = (fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK) == 0;
            fcntl(ends[0], F_SETFL, O_NONBLOCK);
            const bool isWhole = ReadAll(ends[0]).back() == '\n' || isSocket;
            Print("room again");
            const std::string later = ReadAll(ends[0]);
            close(ends[0]);
            Print("nobody reads");
            const size_t report = later.find(" lines dropped\n");
            const bool isReported = report != later.npos && later.find("room again\n", report) != later.npos;
            return isLeftAlone && isWhole && isReported ? 0 : 2;
        };
        EXPECT_EQ(InChild(logToOneself), 0) << isSocket;
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
    EXPECT_EXIT(PrintUnder("stderr", "", ""), ExitedWithCode(0), "W D002E11/TAG: a warning\n.*<<private>>\n");
    EXPECT_EXIT(PrintUnder("ring", "error", "1"), ExitedWithCode(0), "^ring: <secret>\n$");
    EXPECT_EXIT(PrintUnder("file:/nowhere/x", "6", "0"), ExitedWithCode(0),
        "KOLOG_SINK=file:/nowhere/x can't be used, error 2\n.*E D002E11/TAG: <<private>>\n");
    EXPECT_EXIT(PrintUnder("file:/dev/stderr", "", "1"), ExitedWithCode(0), "^[^\n]*a warning\n[^\n]*<secret>\n$");
    EXPECT_EXIT(PrintUnder("fax", "fatal", ""), ExitedWithCode(0), "^$");
}

TEST(EnvironmentTest, LevelsAreNamesOrNumbers)
{
    const std::pair<const char*, uint32_t> cases[] = {{"debug", 3}, {"INFO", 4}, {"Warn", 5}, {"error", 6},
        {"fatal", 7}, {"6", 6}, {"1", 1}, {"", 4}, {"0", 4}, {"6x", 4}, {"-1", 4}, {"99999999999", 4}};
    for (const auto& [text, level] : cases) {
        EXPECT_EQ(LevelFromText(text), level) << text;
    }
}

TEST(LogTextTest, LinesCantBeForgedAndFitAPipe)
{
    EXPECT_EQ(ToLogLine(Record("a\tb\nc\x1b[1m\x7f\xc3\xa4")),
        "2026-11-24T21:53:07.123Z 411 415 E D002E11/TAG: a\tb\\nc\\x1b[1m\\x7f\xc3\xa4");
    const std::string line = ToLogLine(Record(std::string(LOG_MESSAGE_MAX, '\n')));
    EXPECT_LT(line.size(), 4096U);
    EXPECT_THAT(line, ::testing::EndsWith("<truncated>"));
}

TEST(RingSinkTest, KeepsTheLastLines)
{
    RingLogSink ring(3);
    for (const char* text : {"1", "2", "3", "4", "5"}) {
        ring.Write(Record(text));
    }
    ASSERT_EQ(ring.After(0).size(), 3U);
    EXPECT_EQ(ring.After(0)[0].message, "3");
    ASSERT_EQ(ring.After(4).size(), 1U);
    EXPECT_EQ(ring.After(4)[0].number, 5U);
    EXPECT_TRUE(ring.After(99).empty());
}

// With `root`/systemd/journal/socket, which `journal` reads, as the journal. Exit code 77: the system allows no such
// thing.
int WriteToOwnJournal(const std::string& root, int journal)
{
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return 77;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount((root + "/systemd").c_str(), "/run", nullptr, MS_BIND, nullptr) != 0) {
        return 77;
    }
    if (MakeJournalLogSink() != nullptr) {
        return 1;
    }
    mount(root.c_str(), "/run", nullptr, MS_BIND, nullptr);
    const auto sink = MakeJournalLogSink();
    if (sink == nullptr || !sink->Write(Record("hello"))) {
        return 2;
    }
    if (ReadAll(journal).find("MESSAGE=hello\nPRIORITY=3\nSYSLOG_IDENTIFIER=TAG\nTID=415\nKOLOG_TYPE=3\nKOLOG_LEVEL=6\n"
                              "KOLOG_DOMAIN=0xD002E11\nKOLOG_FORMAT=%{public}s\n") == std::string::npos) {
        return 3;
    }
    for (int count = 0; count < 100000; ++count) {
        if (!sink->Write(Record("unread"))) {
            return 0;
        }
    }
    return 4;
}

TEST(JournalSinkTest, SendsAndDropsWhenTheJournalIsFull)
{
    std::string root = ::testing::TempDir() + "journalXXXXXX";
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    std::filesystem::create_directories(root + "/systemd/journal");
    sockaddr_un address{AF_UNIX, ""};
    (root + "/systemd/journal/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    EXPECT_EQ(bind(journal, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const int result = InChild([&] { return WriteToOwnJournal(root, journal); });
    close(journal);
    std::filesystem::remove_all(root);
    if (result == 77) {
        GTEST_SKIP() << "no mount namespace of our own";
    }
    EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace VEXA
