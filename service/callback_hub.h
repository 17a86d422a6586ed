// SPDX-License-Identifier: Apache-2.0
// The clients' callbacks: who is registered, and how events reach them.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mailbox.h"
#include "migration_engine.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::UpdateEngine {

// Every receiver has a mailbox of its own, so that a slow one delays nobody. A receiver whose process has died is
// dropped. All operations may be called from any thread.
class CallbackHub : public EngineListener, public std::enable_shared_from_this<CallbackHub> {
public:
    // Progress as a whole, asked for at every delivery.
    using Progress = std::function<void(MigrateStage&, MigrateProgress&)>;
    explicit CallbackHub(Progress progress) : progress_(std::move(progress)) {}
    ~CallbackHub() override;

    // Hands what a new receiver hears first to the function that it gets, at a moment when no change is being told: see
    // MigrationEngine::IntroduceTasks. Empty: nothing is to be heard first.
    template <typename Item>
    using Introduce = std::function<void(const std::function<void(std::vector<Item>)>&)>;

    // In place of the process's earlier one. False when there is no room.
    bool AddProgress(pid_t process, const sptr<IRemoteObject>& object, const Introduce<TaskProgress>& introduce);
    void RemoveProgress(pid_t process);
    // In place of the one that the process has registered under that name.
    bool AddObserver(pid_t process, const std::string& caller, const sptr<IRemoteObject>& object,
        const Introduce<RestoreEventInfo>& introduce);
    // False when there is none.
    bool RemoveObserver(pid_t process, const std::string& caller);

    void OnTask(const TaskProgress& task) override;
    void OnRestore(const RestoreEventInfo& event) override;

    // Ends all deliveries, and waits for those under way: at most the wait time of a request.
    void Close();

private:
    // Who registered it, and under which name.
    using Key = std::pair<pid_t, std::string>;
    template <typename Item>
    struct Receiver {
        sptr<IRemoteObject> object;
        sptr<IRemoteObject::DeathRecipient> watch;
        std::unique_ptr<Mailbox<Item>> mailbox;
    };
    template <typename Item>
    using Mailboxes = std::vector<std::unique_ptr<Mailbox<Item>>>;
    template <typename Item>
    struct Receivers {
        std::map<Key, Receiver<Item>> registered;
        // Withdrawn while a delivery was under way; removed when that has ended.
        Mailboxes<Item> leaving;
    };

    template <typename Item>
    bool Add(Receivers<Item> CallbackHub::*receiversMember, const Key& key, const sptr<IRemoteObject>& object,
        typename Mailbox<Item>::Deliver deliver, const Introduce<Item>& introduce);
    template <typename Item>
    bool Remove(Receivers<Item>& receivers, const Key& key, const IRemoteObject* object);
    // Takes a receiver out and ends its deliveries; the caller drops what it gets without a lock.
    template <typename Item>
    static Receiver<Item> TakeOut(Receivers<Item>& receivers, const Key& key);
    // Takes out the withdrawn mailboxes whose end will not have to wait.
    template <typename Item>
    static Mailboxes<Item> TakeEnded(Receivers<Item>& receivers);
    bool DeliverProgress(const sptr<IRemoteObject>& object, std::vector<TaskProgress> tasks) const;

    const Progress progress_;
    Mutex mutex_{LockRank::CallbackHub};
    Receivers<TaskProgress> progressReceivers_;  // guarded by mutex_
    Receivers<RestoreEventInfo> observers_;      // guarded by mutex_
};

}  // namespace VEXA::UpdateEngine
