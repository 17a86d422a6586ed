// SPDX-License-Identifier: Apache-2.0
#include "daemon/spawn.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include "argument_pointers.h"
#include "descriptor_limit.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::samgr {

namespace {

enum Step : uint32_t { STEP_PIPES, STEP_USER, STEP_DIRECTORY, STEP_EXECUTE, STEP_COUNT };
constexpr const char* kStepTexts[STEP_COUNT] = {
    "setting its pipes up", "changing to its user", "changing to its directory", "executing it"};

struct StartFailure {
    uint32_t step;
    int32_t error;
};

// Variables by which a service manager tells this process something that is not meant for its children.
constexpr const char* kPrivateVariables[] = {"NOTIFY_SOCKET", "LISTEN_FDS", "LISTEN_PID", "LISTEN_FDNAMES",
    "WATCHDOG_USEC", "WATCHDOG_PID", "MAINPID", "INVOCATION_ID", "JOURNAL_STREAM"};

bool Expand(const std::string& text, std::string& result, std::string& reason)
{
    return ExpandVariables(
        text, [](const std::string& name) { return getenv(name.c_str()); }, result, reason);
}

bool FindProgram(const std::string& program, std::string& path, std::string& reason)
{
    std::vector<std::filesystem::path> candidates{program};
    std::error_code error;
    if (program.front() != '/') {
        const auto own = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
        candidates = {own / program, own.parent_path() / "libexec" / program};
    }
    for (const auto& candidate : candidates) {
        const bool isDirectory = std::filesystem::is_directory(candidate, error);
        if (access(candidate.c_str(), X_OK) == 0 && !isDirectory) {
            path = candidate;
            return true;
        }
        errno = isDirectory ? EISDIR : errno;
    }
    reason = std::string("there is no such program: ") + strerror(errno);
    return false;
}

std::map<std::string, std::string> OwnEnvironment()
{
    std::map<std::string, std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const size_t equals = text.find('=');
        if (equals != std::string::npos && equals > 0) {
            variables[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    for (const char* name : kPrivateVariables) {
        variables.erase(name);
    }
    return variables;
}

bool PlanEnvironment(const Profile& profile, SpawnPlan& plan, std::string& reason)
{
    auto variables = OwnEnvironment();
    if (plan.account) {
        variables.erase("XDG_RUNTIME_DIR");
        variables["HOME"] = plan.account->home;
        variables["SHELL"] = plan.account->shell;
        variables["USER"] = variables["LOGNAME"] = plan.account->name;
    }
    for (const auto& [name, text] : profile.environment) {
        if (!Expand(text, variables[name], reason)) {
            return false;
        }
    }
    variables["VEXA_RUNTIME_DIR"] = RuntimeDirectory();
    for (const auto& [name, value] : variables) {
        plan.environment.push_back(std::string(name).append("=").append(value));
    }
    return true;
}

bool PlanUser(const Profile& profile, SpawnPlan& plan, std::string& reason)
{
    if (profile.user.empty()) {
        return true;
    }
    UserAccount account;
    if (!FindAccount(profile.user, account)) {
        reason = "there is no user " + profile.user;
        return false;
    }
    if (account.uid == geteuid()) {
        return true;
    }
    if (geteuid() != 0) {
        reason = "only root can start it as user " + profile.user;
        return false;
    }
    plan.account = std::move(account);
    return true;
}

bool MakePipe(UniqueFd& readEnd, UniqueFd& writeEnd, std::string& reason)
{
    int fds[2] = {-1, -1};
    if (pipe2(fds, O_CLOEXEC) != 0) {
        reason = std::string("pipe: ") + strerror(errno);
        return false;
    }
    readEnd = UniqueFd(fds[0]);
    writeEnd = UniqueFd(fds[1]);
    fcntl(readEnd.Get(), F_SETFL, O_NONBLOCK);
    return true;
}

struct ChildView {
    const SpawnPlan* plan;
    char* const* arguments;
    char* const* environment;
    int input;
    int output;
    int errors;
    int failure;
};

// The functions below run between fork and exec of a process with threads: nothing but system calls.

[[noreturn]] void FailChild(int failure, Step step)
{
    const StartFailure record{step, errno};
    (void)!write(failure, &record, sizeof(record));
    _exit(127);
}

// The C library's own calls would change the ids of all threads, through signals to threads that don't exist here.
bool BecomeUser(const UserAccount& account)
{
    return syscall(SYS_setgroups, account.groups.size(), account.groups.data()) == 0 &&
           syscall(SYS_setresgid, account.gid, account.gid, account.gid) == 0 &&
           syscall(SYS_setresuid, account.uid, account.uid, account.uid) == 0;
}

void ResetSignals()
{
    struct sigaction action = {};
    for (int number = 1; number < NSIG; ++number) {
        action.sa_handler = number == SIGPIPE ? SIG_IGN : SIG_DFL;
        sigaction(number, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void RunChild(const ChildView& view)
{
    setsid();
    if (dup2(view.input, STDIN_FILENO) < 0 || dup2(view.output, STDOUT_FILENO) < 0 ||
        dup2(view.errors, STDERR_FILENO) < 0) {
        FailChild(view.failure, STEP_PIPES);
    }
    if (view.plan->account && !BecomeUser(*view.plan->account)) {
        FailChild(view.failure, STEP_USER);
    }
    if (chdir(view.plan->directory.c_str()) != 0) {
        FailChild(view.failure, STEP_DIRECTORY);
    }
    ResetSignals();
    RestoreDescriptorLimit();
    // Every descriptor is close-on-exec where it is made; this is for those that other code has made.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    execve(view.plan->path.c_str(), view.arguments, view.environment);
    FailChild(view.failure, STEP_EXECUTE);
}

}  // namespace

bool PlanProgram(const Profile& profile, SpawnPlan& plan, std::string& reason)
{
    std::string program;
    if (!Expand(profile.program, program, reason) || program.empty() || !FindProgram(program, plan.path, reason) ||
        !Expand(profile.directory.empty() ? "/" : profile.directory, plan.directory, reason)) {
        return false;
    }
    plan.arguments = {program};
    for (const std::string& text : profile.arguments) {
        if (!Expand(text, plan.arguments.emplace_back(), reason)) {
            return false;
        }
    }
    return PlanUser(profile, plan, reason) && PlanEnvironment(profile, plan, reason);
}

bool Spawn(const SpawnPlan& plan, SpawnedProgram& spawned, std::string& reason)
{
    UniqueFd outputEnd;
    UniqueFd errorsEnd;
    UniqueFd failureEnd;
    const UniqueFd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (input.Get() < 0 || !MakePipe(spawned.output, outputEnd, reason) ||
        !MakePipe(spawned.errors, errorsEnd, reason) || !MakePipe(spawned.failure, failureEnd, reason)) {
        reason = reason.empty() ? "/dev/null can't be opened" : reason;
        return false;
    }
    const auto arguments = ArgumentPointers(plan.arguments);
    const auto environment = ArgumentPointers(plan.environment);
    const ChildView view{
        &plan, arguments.data(), environment.data(), input.Get(), outputEnd.Get(), errorsEnd.Get(), failureEnd.Get()};
    // No handler of this process may run in the child.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    spawned.pid = fork();
    if (spawned.pid == 0) {
        RunChild(view);
    }
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (spawned.pid < 0) {
        reason = std::string("fork: ") + strerror(error);
    }
    return spawned.pid > 0;
}

void ReadStartFailure(const UniqueFd& failure, ProgramEnd& end)
{
    StartFailure record{};
    if (read(failure.Get(), &record, sizeof(record)) == static_cast<ssize_t>(sizeof(record)) &&
        record.step < STEP_COUNT) {
        end.startErrno = record.error;
        end.startStep = kStepTexts[record.step];
    }
}

}  // namespace VEXA::samgr
