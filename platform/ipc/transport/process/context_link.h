// SPDX-License-Identifier: Apache-2.0
// Leads to the process that publishes the context object, the manager.
#pragma once

#include <atomic>
#include <functional>

#include "local_endpoint.h"
#include "session.h"
#include "vexa/base/mutex.h"

namespace VEXA::ipc {

// Says, with errno, that no process publishes the context object.
void LogNoPublisher();
// The errno of this thread's last LogNoPublisher; 0 for none. A plain number, so that exit handlers may use it.
inline thread_local int t_noPublisher = 0;
// Returns the text of LogNoPublisher for that errno.
std::string NoPublisherText(int error);

// All operations may be called from any thread.
class ContextLink {
public:
    // Makes a session that greets, and passes the answer to `greeting`; null when the reactor can't watch it.
    using Open = std::function<sptr<Link>(Connection connection, const std::shared_ptr<Greeting>& greeting)>;

    ContextLink(LocalEndpoint& endpoint, Open open) : endpoint_(endpoint), open_(std::move(open)) {}

    // Returns the publisher, null when there is none. Waits for its greeting, at most for kGreetingWait.
    sptr<Peer> Reach();
    // True while the publisher that was reached last lives.
    bool HasPublisher() const { return publisher_.load() != 0; }
    // Is told that a process has died; true when that was the publisher that was reached last.
    bool Lose(EndpointId dead) { return publisher_.compare_exchange_strong(dead, 0); }

private:
    // Null, with errno, when there is no publisher that greets in time.
    sptr<Peer> Greet(Deadline deadline) VEXA_REQUIRES(mutex_);

    LocalEndpoint& endpoint_;
    const Open open_;
    std::atomic<uint64_t> failures_{0};
    std::atomic<EndpointId> publisher_{0};  // 0: none, or a dead one
    Mutex mutex_{LockRank::Context};        // held while connecting, so that concurrent first uses share one link
    sptr<Peer> peer_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
