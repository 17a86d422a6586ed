// SPDX-License-Identifier: Apache-2.0
#include "cpu.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

namespace VEXA::bench {
namespace {

void Confine(pid_t process, const cpu_set_t& cpus)
{
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", gone)) {
        sched_setaffinity(std::stoi(task.path().filename().string()), sizeof(cpus), &cpus);
    }
}

}  // namespace

double CpuMicroseconds(pid_t process)
{
    clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
    clock_getcpuclockid(process, &clock);
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

double ResidentBytes(pid_t process)
{
    double total = 0;
    double resident = 0;
    std::ifstream("/proc/" + std::to_string(process) + "/statm") >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

PinnedToOneCpu::PinnedToOneCpu(std::vector<pid_t> processes) : processes_(std::move(processes)), before_()
{
    sched_getaffinity(0, sizeof(before_), &before_);
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(last, &before_)) {
        --last;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(last, &one);
    for (const pid_t process : processes_) {
        Confine(process, one);
    }
}

PinnedToOneCpu::~PinnedToOneCpu()
{
    for (const pid_t process : processes_) {
        Confine(process, before_);
    }
}

}  // namespace VEXA::bench
