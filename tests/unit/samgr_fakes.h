// SPDX-License-Identifier: Apache-2.0
// What the manager's tests put in the place of processes, time and other processes' objects.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "daemon/program.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::samgr {

// Another process's object, which dies when told to.
class FakeProxy : public IRemoteObject {
public:
    FakeProxy() : IRemoteObject(u"") {}
    int32_t SendRequest(uint32_t, MessageParcel&, MessageParcel&, MessageOption&) override { return -1; }
    bool AddDeathRecipient(const sptr<DeathRecipient>& recipient) override
    {
        recipients_.push_back(recipient);
        return true;
    }
    bool RemoveDeathRecipient(const sptr<DeathRecipient>&) override
    {
        recipients_.clear();
        return true;
    }
    bool IsProxyObject() const override { return true; }
    bool IsObjectDead() const override { return dead_; }

    // Dead, while the notice is still on its way.
    void Die() { dead_ = true; }
    void Notify()
    {
        for (const auto& recipient : std::exchange(recipients_, {})) {
            recipient->OnRemoteDied(wptr<IRemoteObject>(this));
        }
    }
    bool IsWatched() const { return !recipients_.empty(); }

private:
    bool dead_ = false;
    std::vector<sptr<DeathRecipient>> recipients_;
};

// Gives out process ids from 1000 on.
class FakeStarter : public ProgramStarter {
public:
    pid_t Start(const Profile&, std::string& reason) override
    {
        if (!refusal.empty()) {
            reason = refusal;
            return 0;
        }
        return 1000 + starts++;
    }
    void Kill(pid_t pid) override { killed.push_back(pid); }

    std::string refusal;
    int starts = 0;
    std::vector<pid_t> killed;
};

}  // namespace VEXA::samgr
