// SPDX-License-Identifier: Apache-2.0
// The trial of placing: every call that changes the file system kills the service once, before and after it has done
// its work, and fails once for lack of space and once with an error of the disk; with and without exchanges of names.
// Then 500 kills come at random moments. After each, every package is the older or the newer one as a whole, is what
// its status says, and can be moved again.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <random>

#include "migration_engine.h"
#include "support/processes.h"

namespace {

using namespace VEXA;
using namespace VEXA::UpdateEngine;
namespace fs = std::filesystem;

enum Mode : int { KILL_BEFORE, KILL_AFTER, NO_SPACE, BAD_DISK, MODES };
// Calls of the trial's service.
std::atomic<int>& g_calls = *static_cast<std::atomic<int>*>(
    mmap(nullptr, sizeof(g_calls), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
int g_nth = -1;  // below 0: this is not the service
int g_mode = MODES;
bool g_canExchange = true;
int g_trials = 0;
int g_wrong = 0;

// One of the calls, counted from 1, kills the process or fails.
template <typename... Arguments>
long Change(long number, Arguments... arguments)
{
    const bool isMeant = g_nth >= 0 && ++g_calls == g_nth;
    const long result = isMeant && g_mode != KILL_AFTER ? -1 : syscall(number, arguments...);
    if (isMeant && g_mode <= KILL_AFTER) {
        kill(getpid(), SIGKILL);
    }
    errno = isMeant ? (g_mode == NO_SPACE ? ENOSPC : EIO) : errno;
    return result;
}

struct Deaf : EngineListener {
    void OnTask(const TaskProgress&) override {}
    void OnRestore(const RestoreEventInfo&) override {}
} g_deaf;
using Engine = std::unique_ptr<MigrationEngine>;

Engine Start(const fs::path& root)
{
    std::string error;
    Engine engine = MigrationEngine::Open({root / "source", root / "target", "", 0, true}, g_deaf, error);
    if (engine != nullptr) {
        engine->Start();
    }
    return engine;
}

bool Settles(const Engine& engine)
{
    const auto isOpen = [](const TaskInfo& task) { return task.status < TaskStatus::FINISHED; };
    return test::Eventually([&] {
        const auto restorations = engine->GetInfo(MigrateStage::RESTORE).taskInfos;
        return engine->GetStatus(MigrateStage::NONE).status != static_cast<int32_t>(TaskStatus::RUNNING) &&
               std::none_of(restorations.begin(), restorations.end(), isOpen);
    });
}

void Write(const fs::path& root, const std::string& name, const std::string& word, const std::string& manifest = "{}")
{
    fs::create_directories(root / "source" / name / "data");
    for (const auto& [file, text] : {std::pair("1", word), {"data/2", word}, {"manifest.json", manifest}}) {
        std::ofstream(root / "source" / name / file) << text;
    }
}

std::string WordOf(const fs::path& place)
{
    const std::string word = test::FileText(place / "1");
    const bool isWhole = word == test::FileText(place / "data" / "2") && fs::exists(place / "manifest.json");
    return isWhole ? word : fs::exists(place) ? "half" : "gone";
}

// Starts the service after a death and returns what is wrong then; empty when nothing is.
std::string Check(const fs::path& root)
{
    const Engine engine = Start(root);
    if (engine == nullptr || (engine->Resume(), !Settles(engine))) {
        return "the service doesn't go on";
    }
    std::vector<PakMigrateInfo> packages;
    engine->GetPackages(packages);
    const bool isSecondRun = engine->GetResult().packages.size() > 1;
    for (const auto& [name, target, status] : packages) {
        const std::string has = WordOf(root / "target" / name);
        const bool isIdle = status == static_cast<int32_t>(TaskStatus::IDLE);
        const bool isFinished = status == static_cast<int32_t>(TaskStatus::FINISHED);
        const bool isTrue = has == "newer" ? name < "r" || !isIdle : !isFinished || (name == "a" && !isSecondRun);
        if (!isTrue || (has != "newer" && has != (name == "a" ? "older" : "gone"))) {
            return name + " has status " + std::to_string(status) + " and is " + has;
        }
    }
    bool isMoved = engine->StartAll().errorNum == 0;
    engine->Restore("r", "");
    engine->Restore("s", "");
    Settles(engine);
    for (const char* const name : {"a", "b", "r", "s"}) {
        isMoved = isMoved && WordOf(root / "target" / name) == "newer";
    }
    const auto isStaged = [](const auto& entry) { return entry.path().filename().string().starts_with(".staging-"); };
    const bool isClean =
        test::Eventually([&] { return std::none_of(fs::directory_iterator(root / "target"), {}, isStaged); });
    return !isMoved ? "something can't be moved again" : isClean ? "" : "staging is not empty";
}

// One trial, whose service is killed by a call, or `microseconds` after its start. `a` and `r` are in the target at
// first, `b` is new, `r` and `s` are set aside.
void Try(int call, int mode, unsigned microseconds = 0)
{
    const test::TempDir folder;
    const fs::path root = folder.Path();
    const std::string reserved = R"({"reserved":true})";
    fs::create_directory(root / "target");
    Write(root, "a", "older");
    Write(root, "r", "newer", reserved);
    if (const Engine engine = Start(root)) {
        engine->StartAll();
        engine->Restore("r", "");
        Settles(engine);
    }
    Write(root, "a", "newer");
    Write(root, "b", "newer");
    Write(root, "s", "newer", reserved);
    g_calls = 0;
    const pid_t process = fork();
    if (process == 0) {
        g_nth = call;
        g_mode = mode;
        if (const Engine engine = Start(root)) {
            engine->StartAll();
            engine->Pause(TaskPauseReason::USER);
            engine->Resume();
            Settles(engine);
            engine->ClearReserved("r", "");
            engine->Restore("s", "");
            Settles(engine);
        }
        _exit(0);
    }
    if (microseconds != 0) {
        usleep(microseconds);
        kill(process, SIGKILL);
    }
    waitpid(process, nullptr, 0);
    ++g_trials;
    if (const std::string fault = Check(root); !fault.empty()) {
        ++g_wrong;
        printf("call %d, mode %d, exchange %d, %u us: %s\n", call, mode, g_canExchange, microseconds, fault.c_str());
    }
}

}  // namespace

int main()
{
    std::mt19937 random(1);
    for (const bool canExchange : {true, false}) {
        g_canExchange = canExchange;
        Try(0, MODES);
        for (int i = 0, all = g_calls * MODES; i < all; ++i) {
            Try(1 + i / MODES, i % MODES);
        }
        for (int i = 0; i < 250; ++i) {
            Try(0, MODES, 1 + static_cast<unsigned>(random()) % 15000);
        }
    }
    printf("%d trials, %d of them wrong\n", g_trials, g_wrong);
    return g_wrong == 0 ? 0 : 1;
}

// Stands in for a function of the C library, also for SQLite. It has another name here, because its own is declared
// with other types.
#define ANY [[maybe_unused]] long
#define CALL(name, outcome)                                                                                        \
    extern "C" __attribute__((visibility("default"))) long Instead_##name(ANY, ANY, ANY, ANY, ANY) __asm__(#name); \
    long Instead_##name(ANY a, ANY b, ANY c, ANY d, ANY e)                                                         \
    {                                                                                                              \
        return outcome;                                                                                            \
    }
CALL(openat, (c & O_CREAT) != 0 ? Change(SYS_openat, a, b, c, d) : syscall(SYS_openat, a, b, c))
CALL(open64, (b & O_CREAT) != 0 ? Change(SYS_openat, AT_FDCWD, a, b, c) : syscall(SYS_openat, AT_FDCWD, a, b))
CALL(mkdirat, Change(SYS_mkdirat, a, b, c))
CALL(unlinkat, Change(SYS_unlinkat, a, b, c))
CALL(unlink, Change(SYS_unlinkat, AT_FDCWD, a, 0))
CALL(rename, Change(SYS_renameat, AT_FDCWD, a, AT_FDCWD, b))
CALL(renameat, Change(SYS_renameat, a, b, c, d))
CALL(renameat2, Change(SYS_renameat2, a, b, c, d, g_canExchange ? e : -1))
CALL(symlinkat, Change(SYS_symlinkat, a, b, c))
CALL(fchmod, Change(SYS_fchmod, a, b))
CALL(fchownat, Change(SYS_fchownat, a, b, c, d, e))
CALL(fsync, Change(SYS_fsync, a))
CALL(fdatasync, Change(SYS_fdatasync, a))
CALL(syncfs, Change(SYS_syncfs, a))
CALL(utimensat, Change(SYS_utimensat, a, b, c, d))
CALL(ftruncate64, Change(SYS_ftruncate, a, b))
CALL(pwrite64, Change(SYS_pwrite64, a, b, c, d))
CALL(copy_file_range, Change(SYS_copy_file_range, a, b, c, d, e, 0))
