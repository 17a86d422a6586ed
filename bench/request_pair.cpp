// SPDX-License-Identifier: Apache-2.0
#include "request_pair.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "bench_service.h"
#include "cpu.h"
#include "measure.h"
#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_server_kits.h"
#include "samgr_world.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace VEXA::bench {
namespace {

constexpr size_t THREADS = 4;
constexpr size_t ROUNDS = 100;

bool StartMigrate(size_t)
{
    UpdateEngine::BusinessError error;
    error.errorNum = 1;
    return UpdateEngine::MigrateServerKits::GetKitsInstance().StartMigrate(error) == 0 && error.errorNum == 0;
}

// The other processes, in a runtime directory of their own.
class World {
public:
    World()
    {
        manager_.AddProfile(UpdateEngine::MIGRATE_SERVICE_ID, "/bin/false", "");
        manager_.StartManager();
        const std::string self = "/proc/self/exe";
        const std::string path = manager_.Folder() + "/raw";
        const MessageSizes sizes = RequestSizes();
        service_ = test::ChildProcess({self, "--service"});
        raw_ = test::ChildProcess(
            {self, "--raw-server", path, std::to_string(sizes.request), std::to_string(sizes.reply)});
        for (size_t i = 0; i < THREADS; ++i) {
            connections_.push_back(std::make_unique<RawConnection>(path, sizes));
        }
        std::printf("request frame %zu bytes, reply frame %zu bytes\n", sizes.request, sizes.reply);
    }

    bool IsReady() const
    {
        return test::Eventually([] {
            const auto samgr = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
            return samgr != nullptr && samgr->CheckSystemAbility(UpdateEngine::MIGRATE_SERVICE_ID) != nullptr;
        });
    }
    pid_t Service() const { return service_.Pid(); }
    std::vector<pid_t> Processes() const { return {getpid(), service_.Pid(), raw_.Pid()}; }
    std::vector<Side> Sides()
    {
        const auto exchange = [this](size_t thread) { return connections_[thread]->Exchange(); };
        return {{"raw.stream", exchange, raw_.Pid(), {}, {}, {}, 0}, RequestSide()};
    }
    Side RequestSide() const { return {"request.start_migrate", &StartMigrate, service_.Pid(), {}, {}, {}, 0}; }

private:
    test::SamgrWorld manager_;
    test::ChildProcess service_;
    test::ChildProcess raw_;
    std::vector<std::unique_ptr<RawConnection>> connections_;
};

// What the client's heap and both processes' memory grow by over many requests, once everything is warm.
bool MeasureGrowth(const World& world, size_t calls, Report& report)
{
    const Side side = world.RequestSide();
    std::vector<float> samples(calls);  // touched, so that it is resident before the first look
    samples.clear();
    std::vector<float> warmUp;
    if (!CallRepeatedly(side, 0, 20'000, warmUp)) {
        return false;
    }
    const auto heap = [] {
        const auto info = mallinfo2();
        return static_cast<double>(info.uordblks + info.hblkhd);
    };
    const double heapBefore = heap();
    const double clientBefore = ResidentBytes(getpid());
    const double serviceBefore = ResidentBytes(world.Service());
    if (!CallRepeatedly(side, 0, calls, samples)) {
        return false;
    }
    const double heapGrowth = heap() - heapBefore;
    const double clientGrowth = ResidentBytes(getpid()) - clientBefore;
    const double serviceGrowth = ResidentBytes(world.Service()) - serviceBefore;
    report.push_back({"request.heap_growth", Percentile(samples, 0.5), Percentile(samples, 0.99),
        {{"calls", static_cast<double>(calls)}, {"bytes", heapGrowth}, {"resident_bytes", clientGrowth},
            {"service_resident_bytes", serviceGrowth}}});
    return true;
}

bool CompareOver(World& world, const std::string& suffix, size_t calls, size_t threads, Report& report)
{
    const size_t perRound = std::max<size_t>(calls / ROUNDS / threads, 1);
    return calls == 0 || Compare(world.Sides(), {suffix, ROUNDS, perRound, threads}, report);
}

}  // namespace

bool MeasureRequests(const RequestCalls& calls, Report& report)
{
    World world;
    if (!world.IsReady()) {
        return false;
    }
    {
        const PinnedToOneCpu pinned(world.Processes());
        if (!CompareOver(world, "", calls.pinned, 1, report) ||
            (calls.heap > 0 && !MeasureGrowth(world, calls.heap, report))) {
            return false;
        }
    }
    return CompareOver(world, ".free", calls.free, 1, report) &&
           CompareOver(world, ".4threads", calls.threads, THREADS, report);
}

}  // namespace VEXA::bench
