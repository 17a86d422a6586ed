// SPDX-License-Identifier: Apache-2.0
// The protocol on a link: the greeting, one-way requests, and the book-keeping of references. The end of the link is
// the other process's death.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <memory>

#include "link.h"
#include "one_way_queues.h"
#include "peer.h"
#include "peer_directory.h"
#include "wire.h"

namespace VEXA::ipc {

// What the process that opened a link to whoever publishes the context object waits for.
struct Greeting {
    std::promise<sptr<Peer>> peer;     // null when the link has ended
    std::atomic<bool> isTaken{false};  // by the answer or by the end of the wait, whichever is first
};

class Session : public Link {
public:
    // What sessions work with.
    struct Parts {
        PeerDirectory& peers;
        OneWayQueues& oneWays;
        // Serves a connection that has turned out to be a channel of that process.
        std::function<void(Connection connection, const sptr<Peer>& peer, const FrameReader& reader)> adoptChannel;
    };

    // On a connection that was accepted; what it is for, its first frame tells.
    Session(const Parts& parts, Connection connection);
    // To a process that is known by its endpoint.
    Session(const Parts& parts, Connection connection, const sptr<Peer>& peer);
    // To whoever publishes the context object.
    Session(const Parts& parts, Connection connection, std::shared_ptr<Greeting> greeting);

    void OnTick(Deadline now) override;

protected:
    bool Admit(const FrameHeader& header) override;
    Verdict Handle(const FrameHeader& header, MessageParcel& frame) override;
    void OnEnd() override;

private:
    void Greet();
    Verdict HandleHello(Parcel& frame, FrameKind kind);
    Verdict HandleChannel(const HelloBody& body);
    Verdict HandleOneWay(const FrameHeader& header, MessageParcel& frame);
    // The frame names something that its sender does not hold; WAIT: as far as is known now.
    Verdict HandleUnheld(const FrameHeader& header, MessageParcel& frame);
    bool TakeBackGrant(const ObjectEntry& grant);

    const Parts& parts_;
    const bool accepted_;
    const Deadline greetBy_{};  // of an accepted connection; no timer says that another process is dead
    Reactor::Ticks awaiting_;   // the greeting on it
    sptr<Peer> peer_;
    std::shared_ptr<Greeting> greeting_;
    bool greeted_ = false;
    // Grants that the peer may still take back, the latest last.
    std::deque<ObjectEntry> grants_;
};

}  // namespace VEXA::ipc
