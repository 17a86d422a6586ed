// SPDX-License-Identifier: Apache-2.0
// Tools for tests across processes: a runtime directory of their own, child processes that end with them, and waiting
// for a condition instead of for a time.
#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace VEXA::test {

inline std::string FileText(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Waits until `condition` holds, for at most `limit`; what it says at the end.
inline bool Eventually(
    const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(20))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Removes a folder in which others may be making their sockets again meanwhile; false when it does not go.
inline bool RemoveUnderOthers(const std::filesystem::path& folder)
{
    std::error_code isMadeAgain;
    return Eventually(
        [&] { return std::filesystem::remove_all(folder, isMadeAgain), !std::filesystem::exists(folder); });
}

// A folder under the system's for temporary files, or under /tmp where that is too long for the sockets in it; removed
// with everything in it.
class TempDir {
public:
    TempDir()
    {
        constexpr size_t kLongest = 48;
        const std::string system = std::filesystem::temp_directory_path();
        std::string name = (system.size() <= kLongest ? system : "/tmp") + "/vexa-test-XXXXXX";
        path_ = mkdtemp(name.data());
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// Makes a fresh directory this process's runtime directory. A process reads its runtime directory once, so a test
// program has one of these, made before anything else.
class TestRuntime : public TempDir {
public:
    TestRuntime() { setenv("VEXA_RUNTIME_DIR", Path().c_str(), 1); }
};

// A program that runs while this object lives, and no longer.
class ChildProcess {
public:
    ChildProcess() = default;
    explicit ChildProcess(std::vector<std::string> command)
    {
        std::vector<char*> arguments;
        for (std::string& word : command) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == parent) {
                execvp(arguments[0], arguments.data());
            }
            _exit(127);
        }
    }
    ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    ChildProcess& operator=(ChildProcess&& other) noexcept
    {
        std::swap(pid_, other.pid_);
        return *this;
    }
    ~ChildProcess() { Kill(); }

    pid_t Pid() const { return pid_; }
    int Signal(int signal) const { return pid_ > 0 ? kill(pid_, signal) : -1; }
    // Stops it; true when all its threads have stopped, of which the kernel tells its parent.
    bool Stop() const
    {
        int status = 0;
        return Signal(SIGSTOP) == 0 && waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status);
    }
    // Ends it at once, and returns when it is gone.
    void Kill()
    {
        Signal(SIGKILL);
        Wait();
    }
    // Waits for its end; the status of waitpid.
    int Wait()
    {
        int status = 0;
        if (pid_ > 0) {
            waitpid(pid_, &status, 0);
            pid_ = -1;
        }
        return status;
    }

private:
    pid_t pid_ = -1;
};

// Runs this in a forked child, which gets 10 seconds; its exit code, 1000 + N for signal N.
inline int InChild(const std::function<int()>& action)
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

}  // namespace VEXA::test
