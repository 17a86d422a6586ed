// SPDX-License-Identifier: Apache-2.0
// Death recipients beside others that take long.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <semaphore>
#include <vector>

#include "death_notifier.h"
#include "thread.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::ipc {
namespace {

using namespace std::chrono_literals;

class Recipient : public IRemoteObject::DeathRecipient {
public:
    explicit Recipient(std::shared_future<void> until) : until_(std::move(until)) {}

    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        if (++inside_ > 1) {
            isAlone_ = false;
        }
        began_.release();
        until_.wait_for(20s);
        --inside_;
    }
    bool Begins(std::chrono::milliseconds limit) { return began_.try_acquire_for(limit); }
    bool IsAlone() const { return isAlone_; }

private:
    const std::shared_future<void> until_;
    std::atomic<int> inside_{0};
    std::atomic<bool> isAlone_{true};
    std::counting_semaphore<> began_{0};
};

TEST(DeathNotifierTest, WhatTakesLongHoldsUpNoOtherProcesssDeath)
{
    // Its threads outlive the test.
    static DeathNotifier& notifier = *new DeathNotifier(&StartThread);
    const sptr<IRemoteObject> object(new IPCObjectStub);
    std::promise<void> over;
    const std::shared_future<void> until = over.get_future();
    std::promise<void> nothing;
    nothing.set_value();
    const std::shared_future<void> atOnce = nothing.get_future();
    const sptr<Recipient> quick(new Recipient(atOnce));
    std::vector<sptr<Recipient>> slow;
    for (EndpointId process = 1; process < 8; ++process) {
        slow.push_back(sptr<Recipient>(new Recipient(until)));
        notifier.Post(process, object, slow.back());
        notifier.Post(process + 100, object, slow.back());
    }
    // All threads but one are held up.
    for (int round = 0; round < 2; ++round) {
        notifier.Post(1000, object, quick);
        EXPECT_TRUE(quick->Begins(20s));
    }
    for (const sptr<Recipient>& recipient : slow) {
        EXPECT_TRUE(recipient->Begins(20s));
    }
    const sptr<Recipient> next(new Recipient(atOnce));
    notifier.Post(1, object, next);
    EXPECT_FALSE(next->Begins(100ms)) << "its process's first recipient is running";

    EXPECT_TRUE(notifier.Cancel(object.GetRefPtr(), slow[0]));
    EXPECT_FALSE(notifier.Cancel(object.GetRefPtr(), slow[0])) << "it is running";
    over.set_value();
    EXPECT_TRUE(next->Begins(20s));
    for (size_t i = 1; i < slow.size(); ++i) {
        EXPECT_TRUE(slow[i]->Begins(20s));
        EXPECT_TRUE(slow[i]->IsAlone());
    }
    EXPECT_FALSE(slow[0]->Begins(0s));
}

class TellsOfItsEnd : public IRemoteObject::DeathRecipient {
public:
    TellsOfItsEnd(DeathNotifier& notifier, std::promise<void>& ended) : notifier_(notifier), ended_(ended) {}
    ~TellsOfItsEnd() override
    {
        notifier_.Cancel(nullptr, nullptr);
        ended_.set_value();
    }
    void OnRemoteDied(const wptr<IRemoteObject>&) override {}

private:
    DeathNotifier& notifier_;
    std::promise<void>& ended_;
};

TEST(DeathNotifierTest, ARecipientThatEndsWithItsNoticeMayUseTheNotifier)
{
    static DeathNotifier& notifier = *new DeathNotifier(&StartThread);
    static auto& ended = *new std::promise<void>;
    notifier.Post(1, new IPCObjectStub, new TellsOfItsEnd(notifier, ended));
    EXPECT_EQ(ended.get_future().wait_for(20s), std::future_status::ready);
}

}  // namespace
}  // namespace VEXA::ipc
