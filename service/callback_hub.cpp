// SPDX-License-Identifier: Apache-2.0
#include "callback_hub.h"

#include <algorithm>

#include "engine_errors.h"
#include "json_from_struct.h"
#include "native_migrate/ireserve_migrate_status_observer.h"
#include "native_migrate/migrate_callback_proxy.h"
#include "native_migrate/migrate_results.h"
#include "native_migrate/set_backup_file_own_proxy.h"
#include "service_log.h"
#include "vexa/ipc/ipc_errors.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::UpdateEngine {

namespace {

// False when the receiver has died. The answer of a living one does not matter.
bool IsAlive(int32_t result, const char* what)
{
    if (result != IPC_OK) {
        SA_LOGW("%{public}s was answered with %{public}d", what, result);
    }
    return result != IPC_DEAD_OBJECT;
}

bool DeliverRestores(const sptr<IRemoteObject>& object, const std::vector<RestoreEventInfo>& events)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC);
    data.WriteInterfaceToken(RESERVE_STATUS_OBSERVER_DESCRIPTOR);
    data.WriteString(ToJson(events));
    return IsAlive(object->SendRequest(RESERVE_STATUS_CODE, data, reply, option), "a reserve status");
}

}  // namespace

CallbackHub::CallbackHub()
    : progress_(std::make_shared<Receivers<TaskProgress>>(threads_)),
      observers_(std::make_shared<Receivers<RestoreEventInfo>>(threads_)),
      jobs_(std::make_shared<Mailbox<std::function<void()>>>(
          threads_, std::chrono::milliseconds(0), kMostJobs,
          [](const auto& jobs) {
              std::for_each(jobs.begin(), jobs.end(), [](const auto& job) { job(); });
              return true;
          },
          nullptr))
{}

int32_t CallbackHub::AddProgress(const sptr<IRemoteObject>& object)
{
    const bool isAdded = progress_->Add(
        {IPCSkeleton::GetCallingEndpoint(), ""}, object,
        [this, object](auto tasks) { return DeliverProgress(object, std::move(tasks)); },
        [engine = engine_.lock()](const auto& receive) { engine->IntroduceTasks(receive); });
    return isAdded ? MIGRATE_SUCCESS : MIGRATE_TOO_MANY;
}

bool CallbackHub::DeliverProgress(const sptr<IRemoteObject>& object, std::vector<TaskProgress> tasks) const
{
    MigrateStage stage = MigrateStage::NONE;
    EventInfo event;
    event.taskProgresses = std::move(tasks);
    if (const auto engine = engine_.lock()) {
        engine->GetProgress(stage, event.progress);
    }
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(MIGRATE_CALLBACK_DESCRIPTOR);
    data.WriteUint32(static_cast<uint32_t>(stage));
    data.WriteString(ToJson(event));
    return IsAlive(MigrateCallBackProxy(object).OnMigrateProgress(data, reply), "a progress event");
}

int32_t CallbackHub::RemoveProgress()
{
    progress_->Remove({IPCSkeleton::GetCallingEndpoint(), ""});
    return MIGRATE_SUCCESS;
}

int32_t CallbackHub::AddObserver(const ObserverName& name, const sptr<IRemoteObject>& object, BusinessError& /*error*/)
{
    const bool isAdded = observers_->Add(
        {IPCSkeleton::GetCallingEndpoint(), name}, object,
        [object](const auto& events) { return DeliverRestores(object, events); },
        [engine = engine_.lock()](const auto& receive) { engine->IntroduceRestores(receive); });
    return isAdded ? MIGRATE_SUCCESS : MIGRATE_TOO_MANY;
}

BusinessError CallbackHub::RemoveObserver(const Name& name)
{
    const bool isRemoved = observers_->Remove({IPCSkeleton::GetCallingEndpoint(), name});
    return isRemoved ? BusinessError() : MakeError(MIGRATE_ERROR_NOTHING, "no observer of that name was there");
}

int32_t CallbackHub::OwnBackups(const sptr<ISetBackupFileOwnInterface>& notice)
{
    const bool isQueued = jobs_->Post([engine = engine_.lock(), notice, uid = IPCSkeleton::GetCallingUid()] {
        notice->OnSetBackupFileOwnFinished(engine->OwnBackups(uid));
    });
    return isQueued ? MIGRATE_SUCCESS : MIGRATE_TOO_MANY;
}

}  // namespace VEXA::UpdateEngine
