// SPDX-License-Identifier: Apache-2.0
// Another process, as this one knows it.
#pragma once

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "client_channel.h"
#include "link.h"
#include "one_way_credit.h"
#include "refusal_budget.h"
#include "socket.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "wire.h"

namespace VEXA::ipc {

class RemoteProxy;

// Lives while anyone needs it; known to IpcProcess by its endpoint until the process dies. Any thread.
class Peer : public RefBase {
public:
    Peer(EndpointId id, const Credentials& credentials);
    ~Peer() override;

    EndpointId Id() const { return id_; }
    const Credentials& Who() const { return credentials_; }
    bool Dead() const { return dead_.load(std::memory_order_acquire); }
    // What the process shows when it opens a channel to this one.
    const ChannelKey& IssuedKey() const { return issuedKey_; }

    // Where two processes connect to each other at the same moment there are two links; each side sends on the first
    // that it has, so that what it sends stays in order.
    void AttachLink(const sptr<Link>& link);
    bool SendOnLink(const void* frame, size_t size);
    bool WaitLinkFlushed(Deadline deadline);
    // Makes the reactor see the end of all links, which is the process's death for this one.
    void ShutdownLinks();
    // On the reactor's thread: reads what has arrived on all links.
    void DrainLinks();

    // The key for channels has come: the process has answered.
    void SetKey(const ChannelKey& key);
    // False when the process died, or did not answer before the deadline.
    bool WaitForKey(Deadline deadline, ChannelKey& key);
    bool HasAnswered();
    bool WaitUntilDead(std::chrono::milliseconds limit);

    // The process's object of that number, counting one more reference received.
    sptr<IRemoteObject> Proxy(ObjectId id);
    // A proxy ends: gives the references back that it stood for.
    void Forget(const RemoteProxy* proxy, ObjectId id, uint64_t references);

    ClientChannels& Channels() { return channels_; }
    OneWayCredit& Credit() { return credit_; }
    OneWayDebt& Debt() { return debt_; }
    // On the reactor's thread: the process has sent what can't be right, or was unlucky with another that has died.
    // False when it does so again and again, and is taken for hostile.
    bool TakeRefusal(Deadline now) { return refusals_.Take(now); }

    // The process has died. Returns, the first time, what lived off it.
    struct Remains {
        std::vector<sptr<Link>> links;
        std::vector<sptr<RemoteProxy>> proxies;
    };
    bool Bury(Remains& remains);

private:
    const EndpointId id_;
    const Credentials credentials_;
    const ChannelKey issuedKey_;
    std::atomic<bool> dead_{false};
    ClientChannels channels_;
    OneWayCredit credit_;
    OneWayDebt debt_;
    RefusalBudget refusals_;

    std::vector<sptr<Link>> Links() VEXA_EXCLUDES(mutex_);

    Mutex mutex_;
    CondVar changed_;
    std::vector<sptr<Link>> links_ VEXA_GUARDED_BY(mutex_);
    bool answered_ VEXA_GUARDED_BY(mutex_) = false;
    ChannelKey key_ VEXA_GUARDED_BY(mutex_);

    Mutex proxiesMutex_;
    // A proxy takes itself out when it ends; until then its entry may point to one that has no references left.
    std::unordered_map<ObjectId, RemoteProxy*> proxies_ VEXA_GUARDED_BY(proxiesMutex_);
};

}  // namespace VEXA::ipc
