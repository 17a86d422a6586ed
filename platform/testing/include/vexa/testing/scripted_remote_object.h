// SPDX-License-Identifier: Apache-2.0
// A remote object without another process: a proxy that answers as a test says, and dies when it says so.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA {

// All operations may be called from any thread; handlers and recipients run without its mutex.
class ScriptedRemoteObject : public IRemoteObject {
public:
    // Answers a request, on the thread that sends it.
    using Handler =
        std::function<int32_t(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)>;

    struct Request {
        uint32_t code = 0;
        int32_t flags = 0;
        int32_t waitTime = 0;
        std::shared_ptr<MessageParcel> data;  // a copy, to be read from the first value; shared by copies of Request
    };

    enum class NoticeThread { OTHER, CALLER };

    // Without a handler, a request that has no queued answer gets 0 and an empty reply.
    explicit ScriptedRemoteObject(Handler handler = nullptr);
    // Waits for the notices that are still running.
    ~ScriptedRemoteObject() override;

    void SetHandler(Handler handler);
    // Answers one request, each answer the next one that has none yet, instead of the handler: with the result and the
    // texts, written with WriteString.
    void QueueAnswer(int32_t result, std::vector<std::string> texts = {});
    // All requests so far, those of the time after the death too.
    std::vector<Request> Requests() const;
    // Forgets them, and the objects that they carry: those may hold this one.
    void ClearRequests();

    // Makes the object hang: from now on a request, unless it is one-way, returns only after ReleaseRequests, which
    // lets it be answered, or Die. After `limit` it gets IPC_TIMED_OUT; the limit stands for the request's wait time,
    // so that a test of time-outs need not wait for so long.
    void HoldRequests(std::chrono::milliseconds limit = std::chrono::seconds(MessageOption::TF_WAIT_TIME));
    void ReleaseRequests();

    // While refused, AddDeathRecipient returns false.
    void RefuseDeathRecipients(bool refuse);
    // How many recipients are registered now; how often one was added with success.
    size_t RecipientCount() const;
    size_t AddedCount() const;

    // The death of the object's process. Every recipient registered now runs once, on one other thread or on the
    // caller's; they have run when it returns. From then on requests get IPC_DEAD_OBJECT, and a recipient that is added
    // runs at once, on another thread. Dying again does nothing.
    void Die(NoticeThread thread = NoticeThread::OTHER);

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool RemoveDeathRecipient(const sptr<DeathRecipient>& recipient) override;
    bool IsProxyObject() const override { return true; }
    bool IsObjectDead() const override;

private:
    // The handler of the next request: a queued answer, the set handler, or one that refuses for the dead.
    Handler NextHandler() VEXA_REQUIRES(mutex_);

    mutable Mutex mutex_{LockRank::TestObject};
    Handler handler_ VEXA_GUARDED_BY(mutex_);
    std::deque<Handler> answers_ VEXA_GUARDED_BY(mutex_);
    std::vector<Request> requests_ VEXA_GUARDED_BY(mutex_);
    std::vector<sptr<DeathRecipient>> recipients_ VEXA_GUARDED_BY(mutex_);
    std::vector<std::thread> lateNotices_ VEXA_GUARDED_BY(mutex_);
    size_t added_ VEXA_GUARDED_BY(mutex_) = 0;
    CondVar released_;
    std::chrono::milliseconds holdLimit_ VEXA_GUARDED_BY(mutex_){0};
    bool isHolding_ VEXA_GUARDED_BY(mutex_) = false;
    bool refuseRecipients_ VEXA_GUARDED_BY(mutex_) = false;
    bool dead_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA
