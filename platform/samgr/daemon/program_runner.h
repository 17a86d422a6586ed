// SPDX-License-Identifier: Apache-2.0
// The started programs: their output goes to the log, their ends are reported, and none outlives an orderly stop.
#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <map>
#include <memory>

#include "daemon/program.h"

namespace VEXA::samgr {

// Belongs to the thread of its event loop. SIGCHLD must be blocked in every thread.
class ProgramRunner : public ProgramStarter {
public:
    explicit ProgramRunner(sd_event* loop);
    ~ProgramRunner() override;

    // Called for each started program when it has ended, before its process id is free again.
    void OnEnd(std::function<void(pid_t, const ProgramEnd&)> onEnd) { onEnd_ = std::move(onEnd); }

    pid_t Start(const Profile& profile, std::string& reason) override;
    void Kill(pid_t pid) override;
    std::string LastLine(pid_t pid) override;
    // Sends the signal to every program and what it has started in its session's first process group.
    void SignalAll(int signal);
    bool Empty() const { return programs_.empty(); }

private:
    struct Program;

    bool Watch(Program& program);
    static int OnOutput(sd_event_source* source, int fd, uint32_t events, void* data);
    static int OnExit(sd_event_source* source, const siginfo_t* info, void* data);

    sd_event* const loop_;
    std::function<void(pid_t, const ProgramEnd&)> onEnd_;
    std::map<pid_t, std::unique_ptr<Program>> programs_;
};

}  // namespace VEXA::samgr
