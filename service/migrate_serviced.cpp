// SPDX-License-Identifier: Apache-2.0
// migrate_serviced: the reference migration service.
#include <grp.h>

#include <cstdio>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "callback_hub.h"
#include "command_line.h"
#include "migrate_server_stub.h"
#include "migration_engine.h"
#include "service_log.h"
#include "signals.h"
#include "vexa/base/standard_streams.h"
#include "vexa/ipc/context_object.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

// Returns the group of that name; without a value when the name is empty, or no group has it, which is logged.
std::optional<gid_t> FindGroup(const std::string& name)
{
    const group* const found = name.empty() ? nullptr : getgrnam(name.c_str());
    if (found == nullptr && !name.empty()) {
        SA_LOGW("there is no group %{public}s: only root and the service's user may change anything", name.c_str());
    }
    return found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
}

bool Register(const sptr<IRemoteObject>& object)
{
    // Whoever started this program waits for it, so a manager that is slow under load gets a few more tries, a second
    // each.
    sptr<ISystemAbilityManager> manager;
    for (int attempt = 0; manager == nullptr && attempt < 4; ++attempt) {
        manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    }
    if (manager == nullptr) {
        fprintf(stderr, "migrate_serviced: no manager answers in %s\n", RuntimeDirectory().c_str());
        return false;
    }
    const int32_t result = manager->AddSystemAbility(MIGRATE_SERVICE_ID, object);
    if (result != SAMGR_OK) {
        fprintf(stderr, "migrate_serviced: the manager did not take the service (result %d)\n", result);
    }
    return result == SAMGR_OK;
}

int Run(const EngineOptions& options, const std::string& controlGroup)
{
    // The signals are blocked before the first thread starts, so that no thread takes one of them.
    const sigset_t stop = SignalSet({SIGTERM, SIGINT});
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    std::string error;
    std::promise<RequestParts> parts;
    const sptr<IRemoteObject> stub(new MigrateServerStub(parts.get_future().share(), FindGroup(controlGroup)));
    const auto hub = std::make_shared<CallbackHub>();
    const std::shared_ptr<MigrationEngine> engine =
        MigrationEngine::Open(options, *hub, error, [&stub] { return Register(stub); });
    if (engine == nullptr) {
        fprintf(stderr, "%s", error.empty() ? "" : ("migrate_serviced: " + error + "\n").c_str());
        return 1;
    }
    hub->Attach(engine);
    parts.set_value({engine, engine, engine, hub});
    engine->Start();
    SA_LOGI("serving %{public}s to %{public}s", options.source.c_str(), options.target.c_str());
    int signal = 0;
    sigwait(&stop, &signal);
    SA_LOGI("ends on signal %{public}d", signal);
    if (const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()) {
        manager->RemoveSystemAbility(MIGRATE_SERVICE_ID);
    }
    engine->Stop();
    hub->Close();
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    OccupyStandardStreams();
    EngineOptions options;
    std::string controlGroup;
    // Without it the parser takes numbers that are negative or do not fit, and changes them.
    const CLI::Range isCount(int64_t{0}, int64_t{1} << 60);
    CLI::App app("The reference migration service: moves packages from one directory to another.", "migrate_serviced");
    app.add_option("--source", options.source, "Directory that holds the packages")->required();
    app.add_option("--target", options.target, "Directory that they are moved to")->required();
    app.add_option(
        "--state", options.stateFile, "File that the service keeps its state in (default: .migrate-state.db there)");
    app.add_option("--throttle", options.bytesPerSecond, "Bytes that are copied in a second, at most; 0: no limit")
        ->envname("MIGRATE_THROTTLE")
        ->check(isCount);
    app.add_flag_callback(
        "--no-sync", [&options] { options.sync = false; },
        "Does not wait for the disk: faster, but a loss of power may cost packages that count as placed");
    app.add_option("--control-group", controlGroup,
        "Group that may change something, besides root and the user that this program runs as");
    if (const auto status = ParseCommandLine(app, argc, argv)) {
        return *status;
    }
    return Run(options, controlGroup);
}
