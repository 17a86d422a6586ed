// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "mailbox.h"
#include "native_migrate/migrate_records.h"
#include "service_limits.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::UpdateEngine {

inline uint32_t KeyOf(const TaskProgress& task)
{
    return task.id;
}
inline const std::string& KeyOf(const RestoreEventInfo& event)
{
    return event.restoreAppInfo.scanSourceDir;
}

// Keeps the last item of each task or application.
template <typename Item>
void KeepLast(std::vector<Item>& items)
{
    std::set<std::decay_t<decltype(KeyOf(items.front()))>> known;
    const auto isKnown = [&known](const Item& item) { return !known.insert(KeyOf(item)).second; };
    std::reverse(items.begin(), items.end());
    std::erase_if(items, isKnown);
    std::reverse(items.begin(), items.end());
}

// The receivers of one kind of events. Each has a mailbox of its own, and is dropped when its process has
// died. All operations may be called from any thread.
template <typename Item>
class Receivers : public std::enable_shared_from_this<Receivers<Item>> {
public:
    // The endpoint of whoever registered it, and under which name.
    using Key = std::pair<uint64_t, std::string>;
    using Receive = std::function<void(std::vector<Item>)>;

    explicit Receivers(DeliveryThreads& threads) : threads_(threads) {}

    // In place of the one with that key. False when there is no room. `introduce` hands over what the receiver hears
    // first, at a moment when no change is being told.
    bool Add(const Key& key, const sptr<IRemoteObject>& object, typename Mailbox<Item>::Deliver deliver,
        const std::function<void(const Receive&)>& introduce)
    {
        // The object is not counted: it holds its watch, which must not hold the object.
        const auto die = [weak = this->weak_from_this(), key, it = object.GetRefPtr()] {
            if (const auto receivers = weak.lock()) {
                receivers->Remove(key, it);
            }
        };
        const Receiver receiver{object, new Watch(die),
            std::make_shared<Mailbox<Item>>(
                threads_, kReportInterval, kMostItems, std::move(deliver), &KeepLast<Item>)};
        Receiver replaced;
        bool isAdded = false;
        // This also runs under the lock of `introduce`'s caller, so nothing is sent or dropped here.
        introduce([&](std::vector<Item> first) {
            MutexLock lock(mutex_);
            replaced = TakeOut(key, nullptr);
            isAdded = receivers_.size() < kMostReceivers;
            if (isAdded) {
                for (Item& item : first) {
                    receiver.mailbox->Post(std::move(item));
                }
                receivers_.emplace(key, receiver);
            }
        });
        replaced.EndWatch();
        if (isAdded) {
            // The watch comes after the entry, because a death that follows at once must find the entry.
            object->AddDeathRecipient(receiver.watch);
        }
        return isAdded;
    }
    // `object`: only if it is still that one; null: whichever it is. False when there is none.
    bool Remove(const Key& key, const IRemoteObject* object = nullptr)
    {
        Receiver removed;
        {
            MutexLock lock(mutex_);
            removed = TakeOut(key, object);
        }
        removed.EndWatch();
        return removed.object != nullptr;
    }
    void Tell(const Item& item)
    {
        MutexLock lock(mutex_);
        for (auto& [key, receiver] : receivers_) {
            receiver.mailbox->Post(item);
        }
    }

private:
    struct Watch : IRemoteObject::DeathRecipient {
        explicit Watch(std::function<void()> act) : act_(std::move(act)) {}
        void OnRemoteDied(const wptr<IRemoteObject>& /*object*/) override { act_(); }
        const std::function<void()> act_;
    };
    struct Receiver {
        sptr<IRemoteObject> object;
        sptr<IRemoteObject::DeathRecipient> watch;
        std::shared_ptr<Mailbox<Item>> mailbox;

        void EndWatch() const
        {
            if (object != nullptr) {
                object->RemoveDeathRecipient(watch);
            }
        }
    };

    // Ends its deliveries; the caller drops what it gets without a lock.
    Receiver TakeOut(const Key& key, const IRemoteObject* object) VEXA_REQUIRES(mutex_)
    {
        Receiver receiver;
        const auto found = receivers_.find(key);
        if (found != receivers_.end() && (object == nullptr || found->second.object.GetRefPtr() == object)) {
            receiver = std::move(found->second);
            receiver.mailbox->Close();
            receivers_.erase(found);
        }
        return receiver;
    }

    DeliveryThreads& threads_;
    Mutex mutex_{LockRank::CallbackHub};
    std::map<Key, Receiver> receivers_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::UpdateEngine
