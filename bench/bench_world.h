// SPDX-License-Identifier: Apache-2.0
// The processes that the benchmarks of requests talk to.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench_service.h"
#include "measure.h"
#include "raw_stream.h"
#include "samgr_world.h"

namespace VEXA::bench {

// A manager, a service and a raw server in a runtime directory of their own, which end with it. The manager starts the
// service anew when it was killed. The first one is this program's own child as the raw server is: the kernel schedules
// the processes of one session alike.
class World {
public:
    World();

    // Waits until the service is there, or there again.
    bool IsReady();
    pid_t Service() const { return serving_; }
    // This one included.
    std::vector<pid_t> Processes() const;
    const std::string& Self() const { return self_; }

    // A side that exchanges messages of these sizes with the raw server, with a connection for each thread.
    Side RawSide(const std::string& name, MessageSizes sizes, size_t threads = 1) const;
    Side RequestSide(const std::string& name, std::function<bool(size_t)> call) const;

private:
    const std::string self_;
    test::SamgrWorld manager_;
    test::ChildProcess raw_;
    test::ChildProcess service_;
    pid_t serving_ = -1;
};

}  // namespace VEXA::bench
