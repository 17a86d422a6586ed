// SPDX-License-Identifier: Apache-2.0
#include "bench_world.h"

#include <filesystem>
#include <utility>

#include "native_migrate/migrate_protocol.h"

namespace VEXA::bench {

World::World() : self_(std::filesystem::read_symlink("/proc/self/exe"))
{
    manager_.AddProfile(UpdateEngine::MIGRATE_SERVICE_ID, self_, R"(, "arguments": ["--service"])");
    manager_.StartManager();
    service_ = test::ChildProcess({self_, "--service"});
    raw_ = test::ChildProcess({self_, "--raw-server", manager_.Folder() + "/raw"});
}

bool World::IsReady()
{
    ServiceState state;
    const bool isReady = test::Eventually([&] { return AskState(state); });
    serving_ = state.process;
    return isReady;
}

std::vector<pid_t> World::Processes() const
{
    return {getpid(), manager_.Manager().Pid(), serving_, raw_.Pid()};
}

Side World::RawSide(const std::string& name, MessageSizes sizes, size_t threads) const
{
    std::vector<std::shared_ptr<RawConnection>> connections;
    for (size_t i = 0; i < threads; ++i) {
        connections.push_back(std::make_shared<RawConnection>(manager_.Folder() + "/raw", sizes));
    }
    const auto exchange = [connections](size_t thread) { return connections[thread]->Exchange(); };
    return {name, exchange, raw_.Pid(), {}, {}, {}, 0};
}

Side World::RequestSide(const std::string& name, std::function<bool(size_t)> call) const
{
    return {name, std::move(call), serving_, {}, {}, {}, 0};
}

}  // namespace VEXA::bench
