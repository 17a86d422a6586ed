// SPDX-License-Identifier: Apache-2.0
// The clients' callbacks: who is registered, and how events reach them.
#pragma once

#include <functional>
#include <memory>

#include "delivery_threads.h"
#include "mailbox.h"
#include "migration_engine.h"
#include "native_migrate/iset_backup_file_own_interface.h"
#include "receivers.h"

namespace VEXA::UpdateEngine {

// A slow receiver delays nobody. A receiver is known by the endpoint of the caller that registers it. All operations
// may be called from any thread.
class CallbackHub : public EngineListener {
public:
    CallbackHub();
    ~CallbackHub() override { Close(); }  // a delivery uses all members

    // Comes before the first request. The engine tells how everything stands, and changes the owner of backup files.
    void Attach(const std::shared_ptr<MigrationEngine>& engine) { engine_ = engine; }

    // Registers a callback in place of the caller's earlier one. 0, or MIGRATE_TOO_MANY when there is no room.
    int32_t AddProgress(const sptr<IRemoteObject>& object);
    int32_t RemoveProgress();
    // The same, in place of the caller's earlier one of that name. `error` stays empty.
    int32_t AddObserver(const ObserverName& name, const sptr<IRemoteObject>& object, BusinessError& error);
    BusinessError RemoveObserver(const Name& name);
    // Makes the backup files the caller's, which takes longer than a request may, and then gives the notice. 0, or
    // MIGRATE_TOO_MANY when too many wait already.
    int32_t OwnBackups(const sptr<ISetBackupFileOwnInterface>& notice);

    void OnTask(const TaskProgress& task) override { progress_->Tell(task); }
    void OnRestore(const RestoreEventInfo& event) override { observers_->Tell(event); }

    // Ends all deliveries, and waits for those under way: at most the wait time of a request.
    void Close() { threads_.Close(); }

private:
    bool DeliverProgress(const sptr<IRemoteObject>& object, std::vector<TaskProgress> tasks) const;

    std::weak_ptr<MigrationEngine> engine_;
    DeliveryThreads threads_;
    const std::shared_ptr<Receivers<TaskProgress>> progress_;
    const std::shared_ptr<Receivers<RestoreEventInfo>> observers_;
    const std::shared_ptr<Mailbox<std::function<void()>>> jobs_;
};

}  // namespace VEXA::UpdateEngine
