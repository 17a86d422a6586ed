// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "journal_fields.h"
#include "log_settings.h"
#include "vexa/log/kolog.h"
#include "vexa/log/log_sink.h"
#include "vexa/log/ring_log_sink.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;

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
    errno = 77;
    KoLogSetLevel(KOLOG_FATAL);
    EXPECT_FALSE(KoLogIsLoggable(KOLOG_ERROR));
    EXPECT_TRUE(KoLogIsLoggable(KOLOG_FATAL));
    EXPECT_EQ(errno, 77);
    EXPECT_THAT(log.Messages(),
        ElementsAre(RecordedMessage{KOLOG_WARN, "", "warn"}, RecordedMessage{KOLOG_ERROR, "", "<bad format>"}));
}

// Refuses, throws or logs itself, as told.
class UnwillingSink : public LogSink {
public:
    bool Write(const LogRecord& record) override
    {
        errno = EAGAIN;
        Print("a sink's own line");
        if (throwing) {
            throw std::runtime_error("sink");
        }
        if (!refusing) {
            lines.emplace_back(record.message);
        }
        return !refusing;
    }
    bool refusing = true;
    bool throwing = false;
    std::vector<std::string> lines;
};

TEST(KoLogTest, DroppedLinesAreCountedAndReportedLater)
{
    UnwillingSink sink;
    LogSink* previous = SetLogSink(&sink);
    errno = 77;
    Print("one");
    Print("two");
    sink.throwing = true;
    Print("three");
    EXPECT_EQ(errno, 77);
    sink.throwing = sink.refusing = false;
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
        EXPECT_EQ(InChild([] {
            RingLogSink ring;
            const auto start = std::chrono::steady_clock::now();
            SetLogSink(&ring);
            const bool soon = std::chrono::steady_clock::now() - start < std::chrono::seconds(2);
            Print("child");
            return soon && ring.After(0).size() >= 1 && ring.After(0).back().message == "child" ? 0 : 1;
        }),
            0);
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
    for (const bool socket : {false, true}) {
        int ends[2];
        ASSERT_EQ(socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : pipe(ends), 0);
        std::swap(ends[0], ends[1]);  // now [0] is written, [1] read
        std::vector<std::string> lines;
        ASSERT_EQ(InChild([&] {
            dup2(ends[0], STDERR_FILENO);
            SetLogSink(MakeStderrLogSink().release());
            const std::string text(1000, 'x');
            for (int count = 0; count < 2000; ++count) {  // more than either holds
                Print(text.c_str());
            }
            if ((fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK) != 0) {
                return 1;
            }
            fcntl(ends[1], F_SETFL, O_NONBLOCK);
            const bool whole = ReadAll(ends[1]).back() == '\n' || socket;
            Print("room again");
            const std::string later = ReadAll(ends[1]);
            close(ends[1]);
            Print("nobody reads");
            return whole && later.find(" lines dropped\n") != later.npos &&
                           later.find("room again\n") > later.find(" lines dropped\n")
                       ? 0
                       : 2;
        }),
            0)
            << socket;
        close(ends[0]);
        close(ends[1]);
    }
}

class EnvironmentTest : public ::testing::Test {
protected:
    EnvironmentTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // To run in a process that has not logged yet.
    static void PrintUnder(const char* sink, const char* level, const char* debug)
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
};

TEST_F(EnvironmentTest, ChoosesSinkLevelAndPrivacy)
{
    EXPECT_EXIT(PrintUnder("stderr", "", ""), ExitedWithCode(0), "W D002E11/TAG: a warning\n.*<<private>>\n");
    EXPECT_EXIT(PrintUnder("ring", "error", "1"), ExitedWithCode(0), "^ring: <secret>\n$");
    EXPECT_EXIT(PrintUnder("file:/nowhere/x", "6", "0"), ExitedWithCode(0),
        "KOLOG_SINK=file:/nowhere/x can't be used, error 2\n.*E D002E11/TAG: <<private>>\n");
    EXPECT_EXIT(PrintUnder("fax", "fatal", ""), ExitedWithCode(0), "^$");
    // The processes of the death tests come here anew, and inherit the name.
    setenv("KOLOG_TEST_FILE", (::testing::TempDir() + "kolog_file_" + std::to_string(getpid())).c_str(), 0);
    const std::string path = getenv("KOLOG_TEST_FILE");
    EXPECT_EXIT(PrintUnder(("file:" + path).c_str(), "info", ""), ExitedWithCode(0), "^$");
    EXPECT_EXIT(PrintUnder(("file:" + path).c_str(), "info", "1"), ExitedWithCode(0), "^$");
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_THAT(text.str(), ::testing::ContainsRegex("a warning\n.*<<private>>\n.*a warning\n.*<secret>\n"));
    unlink(path.c_str());
}

TEST_F(EnvironmentTest, LevelsAreNamesOrNumbers)
{
    const struct {
        const char* text;
        uint32_t level;
    } cases[] = {{"debug", 3}, {"INFO", 4}, {"Warn", 5}, {"error", 6}, {"fatal", 7}, {"6", 6}, {"1", 1}, {"", 4},
        {"0", 4}, {"loud", 4}, {"6x", 4}, {"-1", 4}, {"99999999999", 4}};
    for (const auto& one : cases) {
        EXPECT_EQ(LevelFromText(one.text), one.level) << one.text;
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
    EXPECT_TRUE(ring.After(0).empty());
    for (const char* text : {"1", "2", "3", "4", "5"}) {
        ring.Write(Record(text));
    }
    const auto numbersAfter = [&](uint64_t number) {
        std::string numbers;
        for (const LogEntry& entry : ring.After(number)) {
            EXPECT_EQ(entry.message, std::to_string(entry.number));
            numbers += entry.message;
        }
        return numbers;
    };
    EXPECT_EQ(numbersAfter(0), "345");
    EXPECT_EQ(numbersAfter(4), "5");
    EXPECT_EQ(numbersAfter(5), "");
    EXPECT_EQ(numbersAfter(99), "");
}

TEST(JournalSinkTest, FieldsNameTheRecord)
{
    const JournalFields fields(Record("two\nlines"));
    std::vector<std::string> texts;
    for (int index = 0; index < fields.Count(); ++index) {
        const iovec& piece = fields.Data()[index];
        texts.emplace_back(static_cast<const char*>(piece.iov_base), piece.iov_len);
    }
    EXPECT_THAT(texts, ElementsAre("MESSAGE=two\nlines", "PRIORITY=3", "SYSLOG_IDENTIFIER=TAG", "TID=415",
                           "KOLOG_TYPE=3", "KOLOG_LEVEL=6", "KOLOG_DOMAIN=0xD002E11", "KOLOG_FORMAT=%{public}s"));
}

bool WriteFile(const char* path, const std::string& text)
{
    return static_cast<bool>((std::ofstream(path) << text).flush());
}

// A journal of our own, seen by this child only. Exit code 77: the system allows no such thing.
int WriteToOwnJournal()
{
    const std::string user = "0 " + std::to_string(geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(getegid()) + " 1";
    if (unshare(CLONE_NEWNS) != 0 &&
        (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !WriteFile("/proc/self/uid_map", user) ||
            !WriteFile("/proc/self/setgroups", "deny") || !WriteFile("/proc/self/gid_map", group))) {
        return 77;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0) {
        return 77;
    }
    mkdir("/run/systemd", 0755);
    mkdir("/run/systemd/journal", 0755);
    if (MakeJournalLogSink() != nullptr) {
        return 1;
    }
    sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
    const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    bind(journal, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const auto sink = MakeJournalLogSink();
    if (sink == nullptr || !sink->Write(Record("hello"))) {
        return 2;
    }
    const std::string text = ReadAll(journal);
    if (text.find("MESSAGE=hello\n") == text.npos || text.find("KOLOG_DOMAIN=0xD002E11\n") == text.npos) {
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
    const int result = InChild(WriteToOwnJournal);
    if (result == 77) {
        GTEST_SKIP() << "no mount namespace of our own";
    }
    EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace VEXA
