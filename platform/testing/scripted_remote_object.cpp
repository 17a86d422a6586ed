// SPDX-License-Identifier: Apache-2.0
#include "vexa/testing/scripted_remote_object.h"

#include <algorithm>
#include <utility>

#include "vexa/ipc/ipc_errors.h"

namespace VEXA {

ScriptedRemoteObject::ScriptedRemoteObject(Handler handler)
    : IRemoteObject(std::u16string()), handler_(std::move(handler))
{}

ScriptedRemoteObject::~ScriptedRemoteObject()
{
    std::vector<std::thread> notices;
    {
        MutexLock lock(mutex_);
        notices.swap(lateNotices_);
    }
    for (auto& notice : notices) {
        // A recipient may have held the last reference.
        if (notice.get_id() == std::this_thread::get_id()) {
            notice.detach();
        } else {
            notice.join();
        }
    }
}

void ScriptedRemoteObject::SetHandler(Handler handler)
{
    MutexLock lock(mutex_);
    handler_ = std::move(handler);
}

void ScriptedRemoteObject::QueueAnswer(int32_t result, std::vector<std::string> texts)
{
    MutexLock lock(mutex_);
    answers_.push_back(
        [result, texts = std::move(texts)](uint32_t, MessageParcel&, MessageParcel& reply, MessageOption&) {
            for (const auto& text : texts) {
                reply.WriteString(text);
            }
            return result;
        });
}

std::vector<ScriptedRemoteObject::Request> ScriptedRemoteObject::Requests() const
{
    MutexLock lock(mutex_);
    return requests_;
}

void ScriptedRemoteObject::ClearRequests()
{
    std::vector<Request> cleared;
    MutexLock lock(mutex_);
    cleared.swap(requests_);
}

void ScriptedRemoteObject::HoldRequests(std::chrono::milliseconds limit)
{
    MutexLock lock(mutex_);
    isHolding_ = true;
    holdLimit_ = limit;
}

void ScriptedRemoteObject::ReleaseRequests()
{
    MutexLock lock(mutex_);
    isHolding_ = false;
    released_.NotifyAll();
}

void ScriptedRemoteObject::RefuseDeathRecipients(bool refuse)
{
    MutexLock lock(mutex_);
    refuseRecipients_ = refuse;
}

size_t ScriptedRemoteObject::RecipientCount() const
{
    MutexLock lock(mutex_);
    return recipients_.size();
}

size_t ScriptedRemoteObject::AddedCount() const
{
    MutexLock lock(mutex_);
    return added_;
}

void ScriptedRemoteObject::Die(NoticeThread thread)
{
    std::vector<sptr<DeathRecipient>> recipients;
    {
        MutexLock lock(mutex_);
        dead_ = true;
        released_.NotifyAll();
        recipients.swap(recipients_);
    }
    const auto notify = [this, &recipients] {
        for (const auto& recipient : recipients) {
            recipient->OnRemoteDied(wptr<IRemoteObject>(this));
        }
    };
    if (thread == NoticeThread::CALLER) {
        notify();
    } else {
        std::thread(notify).join();
    }
}

ScriptedRemoteObject::Handler ScriptedRemoteObject::NextHandler()
{
    if (dead_) {
        return [](uint32_t, MessageParcel&, MessageParcel&, MessageOption&) { return IPC_DEAD_OBJECT; };
    }
    if (answers_.empty()) {
        return handler_;
    }
    Handler answer = std::move(answers_.front());
    answers_.pop_front();
    return answer;
}

int32_t ScriptedRemoteObject::SendRequest(
    uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    Request request{code, option.GetFlags(), option.GetWaitTime(), std::make_shared<MessageParcel>()};
    request.data->CopyFrom(data);
    Handler handler;
    {
        MutexLock lock(mutex_);
        requests_.push_back(std::move(request));
        const auto mayGoOn = [this]() VEXA_REQUIRES(mutex_) { return !isHolding_ || dead_; };
        if ((option.GetFlags() & MessageOption::TF_ASYNC) == 0 && !released_.WaitFor(mutex_, holdLimit_, mayGoOn)) {
            return IPC_TIMED_OUT;
        }
        handler = NextHandler();
    }
    return handler ? handler(code, data, reply, option) : IPC_OK;
}

bool ScriptedRemoteObject::AddDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    MutexLock lock(mutex_);
    if (refuseRecipients_ || recipient == nullptr) {
        return false;
    }
    ++added_;
    if (dead_) {
        lateNotices_.emplace_back([recipient, object = wptr<IRemoteObject>(this)] { recipient->OnRemoteDied(object); });
    } else {
        recipients_.push_back(recipient);
    }
    return true;
}

bool ScriptedRemoteObject::RemoveDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    sptr<DeathRecipient> removed;  // ends without the mutex
    MutexLock lock(mutex_);
    const auto found = std::find(recipients_.begin(), recipients_.end(), recipient);
    if (found == recipients_.end()) {
        return false;
    }
    removed = *found;
    recipients_.erase(found);
    return true;
}

bool ScriptedRemoteObject::IsObjectDead() const
{
    MutexLock lock(mutex_);
    return dead_;
}

}  // namespace VEXA
