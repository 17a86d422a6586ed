// SPDX-License-Identifier: Apache-2.0
// The word that a context object has been published anew, whatever becomes of the runtime directory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "process.h"
#include "support/processes.h"
#include "vexa/ipc/context_object.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/log/ring_log_sink.h"

static std::atomic<bool> g_hasWatches{true};

// In place of the C library's.
extern "C" int inotify_init1(int flags) noexcept
{
    if (!g_hasWatches) {
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_inotify_init1, flags));
}

namespace VEXA::test {
namespace {

namespace fs = std::filesystem;

// The lowest number of an open file of that kind.
int LowestOf(const std::string& kind)
{
    int fd = 0;
    for (char file[64] = {}; fd < 1000 && !std::string(file).starts_with(kind); ++fd) {
        file[std::max<ssize_t>(0, readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), file, 63))] = '\0';
    }
    return fd;
}

TEST(RuntimeDirectory, IsTheUsersWhereItsManagerLeftASocket)
{
    const TempDir folder;
    const std::string users = folder.Path() + "/vexa";
    const auto expectChosen = [](const std::string& expected) {  // by a child, as a process decides once
        EXPECT_EXIT(_exit(RuntimeDirectory() == expected ? 0 : 1), testing::ExitedWithCode(0), "") << expected;
    };
    setenv("VEXA_RUNTIME_DIR", "", 1);
    setenv("XDG_RUNTIME_DIR", folder.Path().c_str(), 1);
    fs::create_directory(users);
    expectChosen("/run/vexa");
    std::ofstream(users + "/samgr.sock") << "";
    expectChosen(users);
    if (chown(users.c_str(), 1, 1) == 0) {  // as root
        expectChosen("/run/vexa");
    }
    setenv("VEXA_RUNTIME_DIR", "/own", 1);
    expectChosen("/own");
}

TEST(RuntimeWatch, HearsOfAnotherContextObjectAlsoInADirectoryMadeAnew)
{
    const TempDir folder;
    const fs::path directory = fs::path(folder.Path()) / "a" / "run";
    setenv("VEXA_RUNTIME_DIR", directory.c_str(), 1);
    const auto make = [&] { fs::create_directories(directory / "peers"); };
    const auto publish = [&] {
        std::ofstream(directory / "new") << "a context socket";
        fs::rename(directory / "new", directory / "samgr.sock");
    };
    static std::atomic<int> published{0};
    static std::atomic<bool> isAlone{false};
    IPCSkeleton::SetMaxWorkThreads(1);
    int expected = 0;
    const auto expectNews = [&](const char* way) {
        publish();
        ++expected;
        EXPECT_TRUE(Eventually([&] { return published == expected; })) << way;
    };

    make();
    publish();
    g_hasWatches = false;
    RingLogSink log;
    LogSink* const usual = SetLogSink(&log);
    OnContextObjectPublished([] {
        isAlone = !ipc::IpcProcess::Get().Start()->Workers().OthersWait();
        if (++published == 1) {
            throw std::runtime_error("the caller's own fault");
        }
    });
    expectNews("no watch at first");
    expectNews("none still");
    SetLogSink(usual);
    const auto warns = [](const LogEntry& line) { return line.message.starts_with("can't watch"); };
    EXPECT_EQ(std::ranges::count_if(log.After(0), warns), 1);
    g_hasWatches = true;
    ASSERT_TRUE(RemoveUnderOthers(directory));
    make();
    expectNews("removed");
    expectNews("watched again");
    EXPECT_LT(LowestOf("anon_inode:inotify"), LowestOf("socket:")) << "holds up what tells of this process's death";
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the grain of a file's times
    fs::rename(directory / "samgr.sock", directory / "new");
    expectNews("another of the same number");
    fs::rename(directory, fs::path(folder.Path()) / "away");
    make();
    expectNews("moved away");
    fs::rename(folder.Path() + "/a", folder.Path() + "/b");
    make();
    expectNews("a folder above moved away");
    ASSERT_TRUE(RemoveUnderOthers(directory));
    fs::create_directories(directory);
    expectNews("removed, and watched at its first or second look");
    EXPECT_TRUE(isAlone) << "the limit from before the start";

    const int another = open((directory / "samgr.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(another, LOCK_EX), 0);
    EXPECT_EQ(PublishContextObject(new IPCObjectStub), PublishResult::TAKEN) << "another has the directory";
    close(another);
    const std::string stale = (directory / "peers" / "0123456789abcdef").string();
    std::ofstream(stale) << "nobody listens";
    std::ofstream(stale + "0") << "nor is it an endpoint";
    EXPECT_EQ(PublishContextObject(new IPCObjectStub), PublishResult::DONE);
    EXPECT_EQ(PublishContextObject(new IPCObjectStub), PublishResult::TAKEN);
    EXPECT_TRUE(!fs::exists(stale) && fs::exists(stale + "0"));
}

}  // namespace
}  // namespace VEXA::test
