// SPDX-License-Identifier: Apache-2.0
#include "callback_hub.h"

#include <algorithm>
#include <set>

#include "json_text.h"
#include "native_migrate/ireserve_migrate_status_observer.h"
#include "native_migrate/migrate_callback_proxy.h"
#include "service_limits.h"
#include "service_log.h"
#include "vexa/ipc/ipc_errors.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::UpdateEngine {

namespace {

uint32_t KeyOf(const TaskProgress& task)
{
    return task.id;
}
const std::string& KeyOf(const RestoreEventInfo& event)
{
    return event.restoreAppInfo.scanSourceDir;
}

// Keeps the last item of each task or application.
template <typename Item>
void KeepLast(std::vector<Item>& items)
{
    std::set<std::decay_t<decltype(KeyOf(items.front()))>> known;
    std::vector<Item> kept;
    for (auto item = items.rbegin(); item != items.rend(); ++item) {
        if (known.insert(KeyOf(*item)).second) {
            kept.push_back(std::move(*item));
        }
    }
    std::reverse(kept.begin(), kept.end());
    items = std::move(kept);
}

template <typename Item>
std::unique_ptr<Mailbox<Item>> MakeMailbox(typename Mailbox<Item>::Deliver deliver)
{
    const typename Mailbox<Item>::Limits limits{kReportInterval, kMostItems};
    return std::make_unique<Mailbox<Item>>(limits, std::move(deliver), &KeepLast<Item>);
}

class DeathWatch : public IRemoteObject::DeathRecipient {
public:
    explicit DeathWatch(std::function<void()> act) : act_(std::move(act)) {}
    void OnRemoteDied(const wptr<IRemoteObject>& /*object*/) override { act_(); }

private:
    const std::function<void()> act_;
};

// False when the receiver has died; what a living one answers is its own business.
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

CallbackHub::~CallbackHub()
{
    Close();
}

template <typename Item>
CallbackHub::Receiver<Item> CallbackHub::TakeOut(Receivers<Item>& receivers, const Key& key)
{
    Receiver<Item> receiver;
    const auto found = receivers.registered.find(key);
    if (found != receivers.registered.end()) {
        receiver = std::move(found->second);
        receivers.registered.erase(found);
        receiver.mailbox->Close();
        receivers.leaving.push_back(std::move(receiver.mailbox));
    }
    return receiver;
}

template <typename Item>
CallbackHub::Mailboxes<Item> CallbackHub::TakeEnded(Receivers<Item>& receivers)
{
    auto& leaving = receivers.leaving;
    const auto firstEnded =
        std::partition(leaving.begin(), leaving.end(), [](const auto& mailbox) { return !mailbox->HasEnded(); });
    Mailboxes<Item> ended;
    std::move(firstEnded, leaving.end(), std::back_inserter(ended));
    leaving.erase(firstEnded, leaving.end());
    return ended;
}

template <typename Item>
bool CallbackHub::Add(Receivers<Item> CallbackHub::*receiversMember, const Key& key, const sptr<IRemoteObject>& object,
    typename Mailbox<Item>::Deliver deliver, const Introduce<Item>& introduce)
{
    // Not counted: the object holds its watch, which must not hold the object.
    const IRemoteObject* const it = object.GetRefPtr();
    const sptr<IRemoteObject::DeathRecipient> watch(new DeathWatch([hub = weak_from_this(), receiversMember, key, it] {
        if (const auto alive = hub.lock()) {
            alive->Remove((*alive).*receiversMember, key, it);
        }
    }));
    Receivers<Item>& receivers = this->*receiversMember;
    Receiver<Item> receiver{object, watch, MakeMailbox<Item>(std::move(deliver))};
    Receiver<Item> replaced;
    Mailboxes<Item> ended;
    bool isAdded = false;
    // Under the lock of whoever introduces, too: nothing is sent or dropped here.
    const auto insert = [&](std::vector<Item> first) {
        MutexLock lock(mutex_);
        ended = TakeEnded(receivers);
        replaced = TakeOut(receivers, key);
        if (receivers.registered.size() < kMostReceivers) {
            for (Item& item : first) {
                receiver.mailbox->Post(std::move(item));
            }
            receivers.registered.emplace(key, std::move(receiver));
            isAdded = true;
        }
    };
    if (introduce) {
        introduce(insert);
    } else {
        insert({});
    }
    if (replaced.object != nullptr) {
        replaced.object->RemoveDeathRecipient(replaced.watch);
    }
    if (isAdded) {
        // Behind the entry: a death that follows at once must find it.
        object->AddDeathRecipient(watch);
    }
    return isAdded;
}

// `object`: only if it is still that one; null: whichever it is.
template <typename Item>
bool CallbackHub::Remove(Receivers<Item>& receivers, const Key& key, const IRemoteObject* object)
{
    Receiver<Item> removed;
    Mailboxes<Item> ended;
    {
        MutexLock lock(mutex_);
        ended = TakeEnded(receivers);
        const auto found = receivers.registered.find(key);
        if (found != receivers.registered.end() && (object == nullptr || found->second.object.GetRefPtr() == object)) {
            removed = TakeOut(receivers, key);
        }
    }
    if (removed.object == nullptr) {
        return false;
    }
    removed.object->RemoveDeathRecipient(removed.watch);
    return true;
}

bool CallbackHub::AddProgress(
    pid_t process, const sptr<IRemoteObject>& object, const Introduce<TaskProgress>& introduce)
{
    const auto deliver = [this, object](auto tasks) { return DeliverProgress(object, std::move(tasks)); };
    return Add(&CallbackHub::progressReceivers_, Key(process, ""), object, deliver, introduce);
}

bool CallbackHub::DeliverProgress(const sptr<IRemoteObject>& object, std::vector<TaskProgress> tasks) const
{
    MigrateStage stage = MigrateStage::NONE;
    EventInfo event;
    event.taskProgresses = std::move(tasks);
    progress_(stage, event.progress);
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(MIGRATE_CALLBACK_DESCRIPTOR);
    data.WriteUint32(static_cast<uint32_t>(stage));
    data.WriteString(ToJson(event));
    return IsAlive(MigrateCallBackProxy(object).OnMigrateProgress(data, reply), "a progress event");
}

void CallbackHub::RemoveProgress(pid_t process)
{
    Remove(progressReceivers_, Key(process, ""), nullptr);
}

bool CallbackHub::AddObserver(pid_t process, const std::string& caller, const sptr<IRemoteObject>& object,
    const Introduce<RestoreEventInfo>& introduce)
{
    const auto deliver = [object](const auto& events) { return DeliverRestores(object, events); };
    return Add(&CallbackHub::observers_, Key(process, caller), object, deliver, introduce);
}

bool CallbackHub::RemoveObserver(pid_t process, const std::string& caller)
{
    return Remove(observers_, Key(process, caller), nullptr);
}

void CallbackHub::OnTask(const TaskProgress& task)
{
    MutexLock lock(mutex_);
    for (auto& [key, receiver] : progressReceivers_.registered) {
        receiver.mailbox->Post(task);
    }
}

void CallbackHub::OnRestore(const RestoreEventInfo& event)
{
    MutexLock lock(mutex_);
    for (auto& [key, receiver] : observers_.registered) {
        receiver.mailbox->Post(event);
    }
}

void CallbackHub::Close()
{
    Receivers<TaskProgress> progress;
    Receivers<RestoreEventInfo> observers;
    {
        MutexLock lock(mutex_);
        std::swap(progress, progressReceivers_);
        std::swap(observers, observers_);
    }
    // All at once, so that the waits at the end are no longer than one.
    const auto close = [](auto& receivers) {
        for (auto& [key, receiver] : receivers.registered) {
            receiver.mailbox->Close();
            receiver.object->RemoveDeathRecipient(receiver.watch);
        }
    };
    close(progress);
    close(observers);
}

}  // namespace VEXA::UpdateEngine
