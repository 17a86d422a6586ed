// SPDX-License-Identifier: Apache-2.0
#include "migration_engine.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "recovery.h"
#include "task_worker.h"

namespace VEXA::UpdateEngine {

std::unique_ptr<MigrationEngine> MigrationEngine::Open(
    EngineOptions options, EngineListener& listener, std::string& error, std::function<bool()> beforeChecks)
{
    UniqueFd source(open(options.source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!source) {
        error = options.source + ": " + strerror(errno);
        return nullptr;
    }
    auto target = TargetDirectory::Open(options.target, options.source, error);
    if (target == nullptr) {
        return nullptr;
    }
    if (options.stateFile.empty()) {
        options.stateFile = options.target + "/.migrate-state.db";
    }
    auto store = TaskStore::Open(options.stateFile, error, std::move(beforeChecks));
    if (store == nullptr) {
        return nullptr;
    }
    auto state =
        std::make_unique<EngineState>(options, listener, std::move(store), std::move(source), std::move(target));
    Recover(*state);
    return std::unique_ptr<MigrationEngine>(new MigrationEngine(std::move(state)));
}

void MigrationEngine::Start()
{
    for (const TaskKind kind : {TaskKind::MIGRATE, TaskKind::RESTORE}) {
        workers_.emplace_back([this, kind] { RunTasks(*state_, kind); });
    }
}

void MigrationEngine::Stop()
{
    {
        MutexLock lock(state_->mutex);
        state_->isStopping = true;
        state_->Wake();
    }
    for (std::thread& worker : workers_) {
        worker.join();
    }
    workers_.clear();
}

}  // namespace VEXA::UpdateEngine
