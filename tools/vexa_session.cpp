// SPDX-License-Identifier: Apache-2.0
// vexa-session: runs a command with a manager of its own, in a runtime directory of its own, and leaves nothing behind.
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "argument_pointers.h"
#include "command_line.h"
#include "signals.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kSessionFailed = 125;
constexpr int kCommandNotExecutable = 126;
constexpr int kCommandNotFound = 127;

constexpr milliseconds kReadyTime(10000);    // for the manager to become ready
constexpr milliseconds kCommandTime(5000);   // for the command to end once it has been told to
constexpr milliseconds kManagerTime(5000);   // for the manager to end, and its programs with it
constexpr milliseconds kLeftoverTime(5000);  // for what is left to be gone after SIGKILL

// A socket's path has room for 107 bytes, and files of the runtime directory have names too.
constexpr size_t kLongestTemporary = 48;

struct Options {
    std::vector<std::string> profiles;
    std::string manager;
    std::string trace;  // its file's name within the session's folder; empty without one
    std::vector<std::string> command;
};

int ExitStatus(int waitStatus)
{
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

std::string InstalledManager()
{
    std::error_code error;
    const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    const std::string beside = folder / "samgrd";
    return access(beside.c_str(), X_OK) == 0 ? beside : std::string(folder.parent_path() / "libexec" / "samgrd");
}

sigset_t HandledSignals()
{
    return VEXA::SignalSet({SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD});
}

// The kernel sends a terminal's signals to every process in the foreground: they are not passed on.
constexpr int kFromTerminal = SI_KERNEL;

// The children of this process. None of their ids can be another process's until we have waited for it.
std::vector<pid_t> Children()
{
    std::ifstream children("/proc/thread-self/children");
    return {std::istream_iterator<pid_t>(children), {}};
}

// The kernel ends the child with SIGTERM when this process is gone, however it went.
pid_t Fork()
{
    const pid_t self = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        perror("vexa-session: fork");
    } else if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != self) {
            _exit(kSessionFailed);
        }
    }
    return pid;
}

class Session {
public:
    // `originalMask`: of signals, for what is started. Those that are handled are blocked by now.
    Session(Options options, const sigset_t& originalMask) : options_(std::move(options)), originalMask_(originalMask)
    {}

    int Run()
    {
        int status = kSessionFailed;
        if (TakeSignals() && MakeFolder() && StartManager() && (command_ = Start(options_.command, false)) > 0) {
            status = WaitForCommand();
        }
        EndAll();
        ShowTrace();
        std::error_code error;
        std::filesystem::remove_all(folder_, error);
        return stoppedBy_ != 0 && status == kSessionFailed ? 128 + stoppedBy_ : status;
    }

private:
    static bool Complain(const char* what)
    {
        fprintf(stderr, "vexa-session: %s: %s\n", what, strerror(errno));
        return false;
    }

    // From here on signals are read from a descriptor, and orphans of what we start become our children.
    bool TakeSignals()
    {
        const sigset_t set = HandledSignals();
        signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        return (signals_ >= 0 && prctl(PR_SET_CHILD_SUBREAPER, 1) == 0) || Complain("signals");
    }

    bool MakeFolder()
    {
        const char* wanted = getenv("TMPDIR");
        const std::string parent =
            wanted != nullptr && wanted[0] == '/' && strlen(wanted) <= kLongestTemporary ? wanted : "/tmp";
        std::string folder = parent + "/vexa-session.XXXXXX";
        if (mkdtemp(folder.data()) == nullptr) {
            return Complain(parent.c_str());
        }
        folder_ = folder;  // in which the manager makes its runtime directory
        return true;
    }

    // The socket on which the manager says that it is ready, as it would to a service manager.
    bool OpenNotifySocket()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        NotifyPath().copy(address.sun_path, sizeof(address.sun_path) - 1);
        notify_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        return (notify_ >= 0 && bind(notify_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) ||
               Complain("socket");
    }
    std::string RuntimePath() const { return folder_ + "/run"; }
    std::string NotifyPath() const { return folder_ + "/notify"; }

    bool StartManager()
    {
        if (!OpenNotifySocket()) {
            return false;
        }
        std::vector<std::string> arguments{options_.manager.empty() ? InstalledManager() : options_.manager};
        for (const std::string& profiles : options_.profiles) {
            arguments.insert(arguments.end(), {"--profiles", profiles});
        }
        manager_ = Start(arguments, true);
        return manager_ > 0 && WaitUntilReady();
    }

    pid_t Start(const std::vector<std::string>& arguments, bool isManager)
    {
        if (const pid_t pid = Fork(); pid != 0) {
            return pid;
        }
        setenv("VEXA_RUNTIME_DIR", RuntimePath().c_str(), 1);
        if (!options_.trace.empty()) {
            setenv("VEXA_TRACE", (folder_ + options_.trace).c_str(), 1);
        }
        if (isManager) {
            setsid();  // what the terminal sends is for the command
            setenv("NOTIFY_SOCKET", NotifyPath().c_str(), 1);
        }
        sigprocmask(SIG_SETMASK, &originalMask_, nullptr);
        const auto pointers = VEXA::ArgumentPointers(arguments);
        execvp(pointers[0], pointers.data());
        const int status = errno == ENOENT ? kCommandNotFound : kCommandNotExecutable;
        Complain(pointers[0]);
        _exit(status);
    }

    bool WaitUntilReady()
    {
        const auto deadline = steady_clock::now() + kReadyTime;
        while (!isReady_) {
            const bool hasEnded = manager_ <= 0;
            if (hasEnded || stoppedBy_ != 0 || steady_clock::now() >= deadline) {
                const std::string how =
                    hasEnded ? " and ended with status " + std::to_string(ExitStatus(managerStatus_)) : "";
                fprintf(stderr, "vexa-session: the manager did not become ready%s\n", how.c_str());
                return false;
            }
            Wait(deadline);
        }
        return true;
    }

    int WaitForCommand()
    {
        while (command_ > 0) {
            if (stoppedBy_ != 0 && steady_clock::now() >= commandDeadline_) {
                kill(command_, SIGKILL);
            }
            Wait(stoppedBy_ != 0 ? commandDeadline_ : steady_clock::now() + std::chrono::hours(1));
        }
        return ExitStatus(commandStatus_);
    }

    // Waits for a signal or word from the manager, at most until the deadline, and takes what has come.
    void Wait(steady_clock::time_point deadline)
    {
        const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        pollfd fds[] = {{signals_, POLLIN, 0}, {notify_, POLLIN, 0}};
        poll(fds, std::size(fds), static_cast<int>(std::max<int64_t>(left.count(), 10)));
        signalfd_siginfo info = {};
        while (read(signals_, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
            if (info.ssi_signo != SIGCHLD) {
                TakeStop(info);
            }
        }
        char text[256];
        for (ssize_t count = 0; (count = recv(notify_, text, sizeof(text), 0)) > 0;) {
            isReady_ = isReady_ || std::string(text, static_cast<size_t>(count)).find("READY=1") != std::string::npos;
        }
        Reap();
    }

    void TakeStop(const signalfd_siginfo& info)
    {
        const int number = static_cast<int>(info.ssi_signo);
        if (stoppedBy_ == 0) {
            stoppedBy_ = number;
            commandDeadline_ = steady_clock::now() + kCommandTime;
        }
        if (command_ > 0 && info.ssi_code != kFromTerminal) {
            kill(command_, number);
        }
    }

    void Reap()
    {
        int status = 0;
        for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (pid == manager_) {
                manager_ = -1;
                managerStatus_ = status;
            } else if (pid == command_) {
                command_ = -1;
                commandStatus_ = status;
            }
        }
    }

    void EndAll()
    {
        if (manager_ > 0) {
            kill(manager_, SIGTERM);
            const auto deadline = steady_clock::now() + kManagerTime;
            while (manager_ > 0 && steady_clock::now() < deadline) {
                Wait(deadline);
            }
        }
        // A killed process may leave children, which then are this process's. So killing goes on until there are none.
        const auto deadline = steady_clock::now() + kLeftoverTime;
        for (auto left = Children(); !left.empty() && steady_clock::now() < deadline; left = Children()) {
            for (const pid_t pid : left) {
                kill(pid, SIGKILL);
            }
            Wait(steady_clock::now() + milliseconds(50));
        }
    }

    // The lines of all processes by their times.
    void ShowTrace() const
    {
        std::multimap<double, std::string> lines;
        std::ifstream file(folder_.empty() ? "" : folder_ + options_.trace);
        for (std::string line; std::getline(file, line);) {
            const size_t time = std::min(line.find_first_of("0123456789"), line.size());
            lines.emplace(strtod(line.c_str() + time, nullptr), line);
        }
        for (const auto& [time, line] : lines) {
            fprintf(stderr, "%s\n", line.c_str());
        }
    }

    const Options options_;
    const sigset_t originalMask_;
    int signals_ = -1;
    int notify_ = -1;
    bool isReady_ = false;  // the manager, as it has said
    std::string folder_;
    pid_t manager_ = 0;  // 0 before its start, -1 after its end
    pid_t command_ = 0;
    int managerStatus_ = 0;
    int commandStatus_ = 0;
    int stoppedBy_ = 0;  // the first signal that told this process to end
    steady_clock::time_point commandDeadline_;
};

// Runs the session in a child: whoever started this process may kill it in any way, and the session still ends
// everything and cleans up.
int RunGuarded(Options options)
{
    signal(SIGCHLD, SIG_DFL);  // whoever ignores it has passed that on, and would leave us nothing to wait for
    sigset_t originalMask;
    const sigset_t set = HandledSignals();
    sigprocmask(SIG_BLOCK, &set, &originalMask);
    const pid_t session = Fork();
    if (session <= 0) {
        return session < 0 ? kSessionFailed : Session(std::move(options), originalMask).Run();
    }
    for (;;) {
        siginfo_t info = {};
        const int number = sigwaitinfo(&set, &info);
        int status = 0;
        if (waitpid(session, &status, WNOHANG) == session) {
            return ExitStatus(status);
        }
        if (info.si_code != kFromTerminal) {
            kill(session, number);  // SIGCHLD is no harm there
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app(
        "Runs a command with a system-ability manager of its own, and ends everything with it.\n"
        "The exit status is the command's, 128 + N if it died by signal N; 2 for wrong arguments,\n"
        "125 when the session failed, 126 or 127 when the command can't be run.",
        "vexa-session");
    app.add_option("--profiles", options.profiles, "Directory of service profiles; may be given more than once")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--samgrd", options.manager, "The manager's program (default: the one installed with this)");
    bool isTraced = false;
    bool isJson = false;
    app.add_flag("--trace", isTraced, "At the end, show on standard error what all processes said to each other");
    app.add_flag("--json", isJson, "The trace with one JSON object a line")->needs("--trace");
    app.footer("The command and its arguments come last, after --.");
    // Split here: the parser would look for options of its own, and for further dashes, in the command's arguments.
    char** const end = argv + argc;
    char** const dashes = std::find_if(argv + 1, end, [](const char* text) { return strcmp(text, "--") == 0; });
    options.command.assign(std::min(dashes + 1, end), end);
    if (const auto status = VEXA::ParseCommandLine(app, static_cast<int>(dashes - argv), argv)) {
        return *status;
    }
    options.trace = !isTraced ? "" : isJson ? "/trace.json" : "/trace";
    if (options.command.empty()) {
        fprintf(stderr, "vexa-session: no command is given after --\n");
        return VEXA::kUsageStatus;
    }
    return RunGuarded(std::move(options));
}
