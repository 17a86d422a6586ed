// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <thread>
#include <vector>

#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// Lets a handler run until the gate is closed, and lets the closing thread wait for the handlers inside.
class HandlerGate {
public:
    // One run of a handler.
    class Visit {
    public:
        explicit Visit(HandlerGate& gate) : gate_(gate), admitted_(gate.Enter()) {}
        ~Visit()
        {
            if (admitted_) {
                gate_.Leave();
            }
        }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;
        bool IsAdmitted() const { return admitted_; }

    private:
        HandlerGate& gate_;
        const bool admitted_;
    };

    // Admits no further handler and waits until those on other threads have left: as long as they take. A handler on
    // this very thread can't be waited for; false tells that there is one, which goes on after this call.
    bool Close() VEXA_EXCLUDES(mutex_);
    bool IsClosed() VEXA_EXCLUDES(mutex_);

private:
    bool Enter() VEXA_EXCLUDES(mutex_);
    void Leave() VEXA_EXCLUDES(mutex_);

    Mutex mutex_{LockRank::KitsGate};
    CondVar left_;
    bool closed_ VEXA_GUARDED_BY(mutex_) = false;
    std::vector<std::thread::id> inside_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::UpdateEngine
