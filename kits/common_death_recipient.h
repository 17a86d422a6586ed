// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <utility>

#include "vexa/ipc/iremote_object.h"

namespace VEXA::UpdateEngine {

// A death recipient that runs a callable, which may be empty.
class CommonDeathRecipient : public IRemoteObject::DeathRecipient {
public:
    using DeathCallback = std::function<void(const wptr<IRemoteObject>&)>;

    explicit CommonDeathRecipient(DeathCallback deathCallback) : deathCallback_(std::move(deathCallback)) {}

    void OnRemoteDied(const wptr<IRemoteObject>& object) override
    {
        if (deathCallback_) {
            deathCallback_(object);
        }
    }

private:
    const DeathCallback deathCallback_;
};

}  // namespace VEXA::UpdateEngine
