// SPDX-License-Identifier: Apache-2.0
// The processes and files of the manager's tests: a runtime directory, profiles, and the manager in it.
#pragma once

#include <gtest/gtest.h>

#include "support/processes.h"

namespace VEXA::test {

// A zombie does not run.
inline bool IsRunning(pid_t pid)
{
    const std::string stat = FileText("/proc/" + std::to_string(pid) + "/stat");
    const size_t name = stat.rfind(") ");
    return name != std::string::npos && stat[name + 2] != 'Z';
}

// A program with its output appended to a file, which is its input as well.
inline ChildProcess StartLogged(const std::vector<std::string>& command, const std::string& file)
{
    std::vector<std::string> all{"sh", "-c", "exec \"$@\" >> \"$0\" 2>&1 <\"$0\"", file};
    all.insert(all.end(), command.begin(), command.end());
    return ChildProcess(all);
}

// The exit status, 128 + N for signal N.
inline int ExitStatus(ChildProcess process)
{
    const int status = process.Wait();
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

class SamgrWorld {
public:
    SamgrWorld()
    {
        std::filesystem::create_directory(Profiles());
        setenv("VEXA_RUNTIME_DIR", (Folder() + "/run").c_str(), 1);
    }

    // `rest`: what follows the identifier and the program in the profile's object.
    void AddProfile(int id, const std::string& program, const std::string& rest) const
    {
        std::ofstream(Profiles() + "/" + std::to_string(id) + ".json")
            << "{\"id\": " << id << ", \"program\": \"" << program << "\"" << rest << "}";
    }
    void StartManager() { manager_ = StartLogged({SAMGRD, "--profiles", Profiles()}, LogFile()); }
    int EndManager(int signal)
    {
        manager_.Signal(signal);
        const int status = ExitStatus(std::move(manager_));
        if (testing::UnitTest::GetInstance()->Failed()) {
            fputs(FileText(LogFile()).c_str(), stderr);
        }
        return status;
    }

    const ChildProcess& Manager() const { return manager_; }
    const std::string& Folder() const { return folder_.Path(); }
    std::string LogFile() const { return Folder() + "/log"; }
    std::string Profiles() const { return Folder() + "/profiles"; }

private:
    const TempDir folder_;
    ChildProcess manager_;
};

}  // namespace VEXA::test
