// SPDX-License-Identifier: Apache-2.0
// A system-ability manager without a daemon, which answers as a test says.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "vexa/base/mutex.h"
#include "vexa/samgr/isystem_ability_manager.h"

namespace VEXA {

// All operations may be called from any thread; answers and callbacks run without its mutex.
class ScriptedManager : public ISystemAbilityManager {
public:
    enum class Operation { CHECK, LOAD, LOAD_ASYNC, ADD, REMOVE };

    struct Call {
        Operation operation;
        int32_t id = 0;
        int32_t timeout = 0;  // of LOAD, in seconds

        friend bool operator==(const Call& a, const Call& b)
        {
            return a.operation == b.operation && a.id == b.id && a.timeout == b.timeout;
        }
    };

    struct PendingLoad {
        int32_t id = 0;
        sptr<ISystemAbilityLoadCallback> callback;
    };

    using CheckAnswer = std::function<sptr<IRemoteObject>(int32_t id)>;
    using LoadAnswer = std::function<sptr<IRemoteObject>(int32_t id, int32_t timeout)>;

    // The service is running as that object; null: not running. A dead object counts as not running.
    void SetRunning(int32_t id, const sptr<IRemoteObject>& object);
    // The object that a load of either kind starts and leaves running. With null, or a dead object, the load fails.
    void SetLoadable(int32_t id, const sptr<IRemoteObject>& object);
    // Functions that answer instead of the two tables above; an empty one brings its table back.
    void OnCheck(CheckAnswer answer);
    void OnLoad(LoadAnswer answer);

    // Sets the JSON text that the list of services is; an empty list unless set.
    void SetListed(std::string services);
    // The result that the asynchronous load returns. With any other than SAMGR_OK, no callback follows.
    void SetAsyncResult(int32_t result);
    // While held, accepted asynchronous loads wait for TakeHeld. Otherwise the callback runs on another thread at once.
    void HoldCallbacks(bool hold);
    // Hands the held loads over. The caller runs their callbacks, or lets them go.
    std::vector<PendingLoad> TakeHeld();
    // Waits until all callbacks that were started have returned.
    void WaitForCallbacks();

    // Every call so far, in order.
    std::vector<Call> Calls() const;

    sptr<IRemoteObject> AsObject() override { return nullptr; }
    sptr<IRemoteObject> CheckSystemAbility(int32_t systemAbilityId) override;
    sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeout, std::string* reason) override;
    int32_t LoadSystemAbility(int32_t systemAbilityId, const sptr<ISystemAbilityLoadCallback>& callback) override;
    int32_t AddSystemAbility(int32_t systemAbilityId, const sptr<IRemoteObject>& object) override;
    int32_t RemoveSystemAbility(int32_t systemAbilityId) override;
    int32_t ListSystemAbilities(std::string& services) override;

private:
    using Objects = std::map<int32_t, sptr<IRemoteObject>>;

    static sptr<IRemoteObject> FindAlive(const Objects& objects, int32_t id);
    // The running object, else the loadable one, which is running from now on.
    sptr<IRemoteObject> Start(int32_t id);
    void Record(const Call& call);

    mutable Mutex mutex_{LockRank::TestManager};
    Objects running_ VEXA_GUARDED_BY(mutex_);
    Objects loadable_ VEXA_GUARDED_BY(mutex_);
    std::string listed_ VEXA_GUARDED_BY(mutex_) = "[]";
    CheckAnswer checkAnswer_ VEXA_GUARDED_BY(mutex_);
    LoadAnswer loadAnswer_ VEXA_GUARDED_BY(mutex_);
    std::vector<Call> calls_ VEXA_GUARDED_BY(mutex_);
    std::vector<PendingLoad> held_ VEXA_GUARDED_BY(mutex_);
    std::vector<std::thread> deliveries_ VEXA_GUARDED_BY(mutex_);
    int32_t asyncResult_ VEXA_GUARDED_BY(mutex_) = SAMGR_OK;
    bool hold_ VEXA_GUARDED_BY(mutex_) = false;
};

// While it lives, its manager is the one that this process finds. Its end waits for the callbacks that were started.
class InProcessManager {
public:
    InProcessManager();
    ~InProcessManager();
    InProcessManager(const InProcessManager&) = delete;
    InProcessManager& operator=(const InProcessManager&) = delete;

    ScriptedManager* operator->() const { return manager_.GetRefPtr(); }

private:
    const sptr<ScriptedManager> manager_;
};

}  // namespace VEXA
