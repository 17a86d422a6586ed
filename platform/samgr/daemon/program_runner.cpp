// SPDX-License-Identifier: Apache-2.0
#include "daemon/program_runner.h"

#include <sys/epoll.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <filesystem>

#include "daemon/output_lines.h"
#include "daemon/spawn.h"
#include "samgr_limits.h"
#include "samgr_log.h"

namespace VEXA::samgr {

namespace {

void LogLine(const std::string& name, pid_t pid, const std::string& line)
{
    SAMGR_LOGI("%{public}s[%{public}d]: %{public}s", name.c_str(), pid, line.c_str());
}

}  // namespace

struct ProgramRunner::Program {
    Program(ProgramRunner& owner, const std::string& programName, SpawnedProgram&& started)
        : runner(owner),
          name(programName),
          spawned(std::move(started)),
          output{spawned.output, OutputLines([this](const std::string& line) { LogLine(name, spawned.pid, line); })},
          errors{spawned.errors, OutputLines([this](const std::string& line) {
                     LogLine(name, spawned.pid, line);
                     lastLine = line;
                 })}
    {}
    ~Program() { sd_event_source_disable_unref(exit); }

    // Its standard output or error.
    struct Stream {
        const UniqueFd& fd;
        OutputLines lines;
        sd_event_source* source = nullptr;

        ~Stream() { sd_event_source_disable_unref(source); }
        // False at the end of the stream, or when there is nothing to read now.
        bool ReadSome()
        {
            std::array<char, 4096> chunk;
            const ssize_t count = read(fd.Get(), chunk.data(), chunk.size());
            if (count > 0) {
                lines.Take(chunk.data(), static_cast<size_t>(count));
            }
            return count > 0;
        }
        bool Watch(sd_event* loop)
        {
            return sd_event_add_io(loop, &source, fd.Get(), EPOLLIN, &ProgramRunner::OnOutput, this) >= 0;
        }
        void ReadLast()
        {
            for (int reads = 0; reads < kLastReads && ReadSome(); ++reads) {
            }
            lines.Flush();
        }
    };

    ProgramRunner& runner;
    const std::string name;
    SpawnedProgram spawned;
    std::string lastLine;  // of standard error
    Stream output;
    Stream errors;
    sd_event_source* exit = nullptr;
};

ProgramRunner::ProgramRunner(sd_event* loop) : loop_(sd_event_ref(loop)) {}

ProgramRunner::~ProgramRunner()
{
    programs_.clear();
    sd_event_unref(loop_);
}

pid_t ProgramRunner::Start(const Profile& profile, std::string& reason)
{
    SpawnPlan plan;
    SpawnedProgram spawned;
    if (!PlanProgram(profile, plan, reason) || !Spawn(plan, spawned, reason)) {
        return 0;
    }
    const pid_t pid = spawned.pid;
    try {
        const std::string name = std::filesystem::path(plan.path).filename();
        auto program = std::make_unique<Program>(*this, name, std::move(spawned));
        if (Watch(*program)) {
            programs_[pid] = std::move(program);
            return pid;
        }
    } catch (const std::bad_alloc&) {
    }
    reason = "it can't be watched";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return 0;
}

bool ProgramRunner::Watch(Program& program)
{
    return sd_event_add_child(loop_, &program.exit, program.spawned.pid, WEXITED, &ProgramRunner::OnExit, &program) >=
               0 &&
           program.output.Watch(loop_) && program.errors.Watch(loop_);
}

int ProgramRunner::OnOutput(sd_event_source* source, int, uint32_t events, void* data)
{
    auto* stream = static_cast<Program::Stream*>(data);
    if (!stream->ReadSome() && (events & (EPOLLHUP | EPOLLERR)) != 0) {
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
    }
    return 0;
}

int ProgramRunner::OnExit(sd_event_source*, const siginfo_t* info, void* data)
{
    auto* program = static_cast<Program*>(data);
    ProgramRunner& runner = program->runner;
    const pid_t pid = program->spawned.pid;
    program->output.ReadLast();
    program->errors.ReadLast();
    ProgramEnd end;
    end.bySignal = info->si_code != CLD_EXITED;
    end.status = info->si_status;
    ReadStartFailure(program->spawned.failure, end);
    LogLine(program->name, pid,
        end.bySignal ? "ended by signal " + std::to_string(end.status)
                     : "ended with status " + std::to_string(end.status));
    runner.onEnd_(pid, end);
    runner.programs_.erase(pid);
    return 0;
}

void ProgramRunner::Kill(pid_t pid)
{
    if (programs_.contains(pid)) {
        kill(pid, SIGKILL);  // before it has made its session, there is no group
        kill(-pid, SIGKILL);
    }
}

std::string ProgramRunner::LastLine(pid_t pid)
{
    Program& program = *programs_.at(pid);
    program.errors.lines.Flush();
    return program.lastLine;
}

void ProgramRunner::SignalAll(int signal)
{
    for (const auto& [pid, program] : programs_) {
        kill(pid, signal);
        kill(-pid, signal);
    }
}

}  // namespace VEXA::samgr
