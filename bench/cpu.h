// SPDX-License-Identifier: Apache-2.0
// Which processors processes run on, and for how long they have run.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <vector>

namespace VEXA::bench {

// The processor time of all threads of a process so far, in microseconds.
double CpuMicroseconds(pid_t process);

// The resident memory of a process in bytes.
double ResidentBytes(pid_t process);

// Keeps all threads of the processes, and what they start, on the last processor that this process may use. Those that
// are there at its end are set free again.
class PinnedToOneCpu {
public:
    explicit PinnedToOneCpu(std::vector<pid_t> processes);
    ~PinnedToOneCpu();
    PinnedToOneCpu(const PinnedToOneCpu&) = delete;
    PinnedToOneCpu& operator=(const PinnedToOneCpu&) = delete;

private:
    const std::vector<pid_t> processes_;
    cpu_set_t before_;
};

}  // namespace VEXA::bench
