// SPDX-License-Identifier: Apache-2.0
// The migration itself: moves packages from the source to the target, restores reserved applications, and remembers
// what it has done. Knows nothing of IPC.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine_state.h"
#include "migration_commands.h"
#include "migration_queries.h"
#include "reservations.h"

namespace VEXA::UpdateEngine {

// All operations may be called from any thread and wait for no copying; those that look into the source or target take
// as long as reading directories does. Errors are BusinessErrors with the numbers of
// "native_migrate/migrate_results.h". By its signature an operation can answer a request: what it takes by value or by
// const reference are the request's fields, and what it takes by reference, or returns in place of an error, is the
// reply.
//
// Under its name the target has all of a package or what was there before; what the engine has not placed itself is
// never replaced. Whatever ends the process, or with `sync` the whole machine, the next engine on the same state goes
// on.
class MigrationEngine : public MigrationQueries, public MigrationCommands, public Reservations {
public:
    // Null, with the reason in `error`, when the directories or the state can't be used. Starts nothing yet.
    // `beforeChecks` is called when they are this process's alone, before the checks and scans that take time; false
    // from it is the end, without a reason.
    static std::unique_ptr<MigrationEngine> Open(EngineOptions options, EngineListener& listener, std::string& error,
        std::function<bool()> beforeChecks = nullptr);
    ~MigrationEngine() { Stop(); }
    MigrationEngine(const MigrationEngine&) = delete;
    MigrationEngine& operator=(const MigrationEngine&) = delete;

    // Starts the two workers, one for the migration and one for reserved applications. What was under way goes on.
    void Start();
    // Ends the workers within the time of one piece, or that the disk takes for what it has not got yet; what they were
    // doing is taken up by the next engine. What is asked for after that is only remembered.
    void Stop();

private:
    explicit MigrationEngine(std::unique_ptr<EngineState> state)
        : MigrationQueries(*state), MigrationCommands(*state), Reservations(*state), state_(std::move(state))
    {}

    const std::unique_ptr<EngineState> state_;
    std::vector<std::thread> workers_;
};

}  // namespace VEXA::UpdateEngine
