// SPDX-License-Identifier: Apache-2.0
// Shared by the tests of the transport's layers: sockets whose other end is the test's.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "byte_budget.h"
#include "runtime_paths.h"
#include "support/processes.h"
#include "transport.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/log/ring_log_sink.h"

// In place of MayLogOf: the lines of peers are not bounded, so that what is logged does not depend on the time.
extern "C" bool __wrap__ZN4VEXA3ipc8MayLogOfEPKNS0_11CredentialsE(const void*) noexcept
{
    return true;
}

namespace VEXA::ipc {

using namespace std::chrono_literals;
using test::Eventually;
using test::InChild;

inline Deadline Now()
{
    return std::chrono::steady_clock::now();
}

// In place of StartThread: the test does the work.
inline bool StartNone(const char*, const std::function<void()>&)
{
    return true;
}

struct SocketPair {
    SocketPair()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        near = UniqueFd::Make([&] { return ends[0]; });
        far = UniqueFd::Make([&] { return ends[1]; });
    }
    UniqueFd near;
    UniqueFd far;
};

// Signals come while this lives, ten a second.
struct Alarms {
    Alarms()
    {
        signal(SIGALRM, [](int) {}), Repeat(100'000);
    }
    ~Alarms() { Repeat(0); }
    static void Repeat(suseconds_t period)
    {
        const itimerval often{{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
};

template <typename T>
std::string Bytes(const T& value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

inline std::string FrameOf(FrameHeader header, size_t dataBytes = 0)
{
    header.bytes = static_cast<uint32_t>(dataBytes);
    std::string frame = Bytes(header);
    for (size_t i = 0; i < dataBytes; ++i) {
        frame.push_back(static_cast<char>(i * 31));
    }
    return frame;
}
inline std::string FrameOf(FrameKind kind, size_t dataBytes = 0)
{
    return FrameOf(MakeHeader(kind), dataBytes);
}

inline std::string Times(size_t count, const std::string& bytes)
{
    std::string all;
    for (; count > 0; --count) {
        all += bytes;
    }
    return all;
}

inline void Write(const UniqueFd& fd, const std::string& bytes)
{
    size_t sent = 0;
    EXPECT_EQ(SendAll(fd.Get(), bytes.data(), bytes.size(), Now(), sent), Transfer::DONE);
}

// All that has come, and "END" behind it when the other end has closed the connection.
inline std::string Heard(const UniqueFd& fd)
{
    std::string bytes;
    std::string piece(65536, '\0');
    Transfer result{};
    for (size_t moved = 0; (result = ReceiveNow(fd.Get(), piece.data(), piece.size(), moved)) == Transfer::DONE;) {
        bytes.append(piece, 0, moved);
    }
    return bytes + (result == Transfer::WOULD_BLOCK ? "" : "END");
}

inline bool HasEnded(const UniqueFd& fd)
{
    return Heard(fd).ends_with("END");
}

// Compares what a test logs as root, and how often, without paths and numbers of processes, with tests/data/ipc.txt.
class LoggedTest : public testing::Test {
protected:
    ~LoggedTest() override
    {
        SetLogSink(usual_);
        std::map<std::string, int> lines;
        for (const LogEntry& entry : log_.After(0)) {
            std::istringstream words(entry.message);
            std::string line;
            for (std::string word; words >> word;) {
                const bool isPid = line.ends_with(" process") && word[0] <= '9';
                line += isPid || word.find('/') != word.npos ? " #" : ' ' + word;
            }
            ++lines[line];
        }
        const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
        std::string all = std::string("\n") + test.test_suite_name() + '.' + test.name();
        for (const auto& [line, count] : lines) {
            all += "\n  " + std::to_string(count) + line;
        }
        all += lines.empty() ? "\n" : "\n\n";
        const bool isKnown = (test::FileText(NM_TEST_DATA_DIR "/ipc.txt") + '\n').find(all) != std::string::npos;
        EXPECT_TRUE(isKnown != lines.empty() || geteuid() != 0) << all;
    }

private:
    RingLogSink log_{10'000};
    LogSink* const usual_ = SetLogSink(&log_);
};

// The objects that the parts of a transport work with. The test does the threads' work.
class IpcParts : public LoggedTest {
protected:
    IpcParts() { EXPECT_TRUE(workers_.Open() && reactor_.Open()); }
    ~IpcParts() override
    {
        ByteBudget::Charge all(budget_);
        EXPECT_TRUE(all.Set({1, 7}, 67108864) && all.Set({}, 0) && all.Set({2, 1}, 67108864)) << "nothing is charged";
    }

    WorkerPool workers_{&StartNone};
    Reactor reactor_{&StartNone};
    ByteBudget budget_{workers_};
};

}  // namespace VEXA::ipc
