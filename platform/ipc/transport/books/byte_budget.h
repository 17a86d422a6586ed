// SPDX-License-Identifier: Apache-2.0
// Bounds the bytes that other processes make this one hold, for each process and for each user.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <unordered_map>
#include <utility>

#include "vexa/base/mutex.h"
#include "worker_pool.h"

namespace VEXA::ipc {

// Outlives its charges. All operations may be called from any thread.
class ByteBudget {
public:
    explicit ByteBudget(WorkerPool& workers) : workers_(workers) {}

    // Whose bytes are counted together: by process (see ProcessNumber), and by user.
    struct Account {
        uint64_t process;
        uid_t user;
    };

    // Stands for bytes that are held, and gives them back when it ends.
    class Charge {
    public:
        explicit Charge(ByteBudget& budget) : budget_(budget) {}
        ~Charge() { Set({}, 0); }
        Charge(const Charge&) = delete;
        Charge& operator=(const Charge&) = delete;

        // Makes it stand for so many bytes, more or fewer than before. False when there is no room for more: it stays
        // as it is and, with `later`, becomes that large as soon as there is room; then `later` runs on a worker. What
        // waited for room before does so no longer. The account is that of the first of these bytes.
        bool Set(const Account& account, uint64_t bytes, std::function<void()> later = nullptr);
        // Takes over all bytes of another one with the same account.
        void Absorb(Charge& other);
        uint64_t Bytes() const { return bytes_; }

    private:
        friend class ByteBudget;
        ByteBudget& budget_;
        Account account_{};
        uint64_t bytes_ = 0;
        uint64_t wanted_ = 0;
        std::function<void()> later_;  // while it waits
    };

private:
    bool Change(Charge& charge, uint64_t bytes) VEXA_REQUIRES(mutex_);

    WorkerPool& workers_;
    Mutex mutex_{LockRank::ByteBudget};
    std::unordered_map<uint64_t, uint64_t> ofProcess_ VEXA_GUARDED_BY(mutex_);
    std::unordered_map<uid_t, uint64_t> ofUser_ VEXA_GUARDED_BY(mutex_);
    std::deque<Charge*> waiting_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
