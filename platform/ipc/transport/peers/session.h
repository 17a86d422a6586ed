// SPDX-License-Identifier: Apache-2.0
// The protocol on a link: the greeting, one-way requests, and the book-keeping of references. The end of a session that
// stands is the death of the other process.
#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <list>
#include <memory>

#include "link.h"
#include "one_way_queues.h"
#include "peer.h"
#include "peer_directory.h"
#include "wire.h"

namespace VEXA::ipc {

// Brings the answer of the process that publishes the context object to the thread that waits for it.
struct Greeting {
    std::promise<sptr<Peer>> peer;     // null when the link has ended
    std::atomic<bool> isTaken{false};  // by the answer or by the end of the wait, whichever is first
};

class Session : public Link {
public:
    // The parts of a transport that sessions work with.
    struct Parts {
        PeerDirectory& peers;
        OneWayQueues& oneWays;
        // Serves a connection that has turned out to be a channel of that process. May throw before it is given up.
        std::function<void(const GiveUpConnection& giveUp, const sptr<Peer>& peer, const FrameReader& reader)>
            adoptChannel;
    };

    // On a connection that was accepted. Its first frame tells whether it is a link or a channel.
    Session(const Parts& parts, Connection connection);
    // On a connection that this process has made: to a peer or, with `greeting`, to a process that is not known yet.
    Session(const Parts& parts, Connection connection, const sptr<Peer>& peer,
        std::shared_ptr<Greeting> greeting = nullptr);

    void OnTick(Deadline now) override;

protected:
    bool Admit(const FrameHeader& header) override;
    Verdict Handle(const FrameHeader& header, MessageParcel& frame) override;
    void OnEnd() override;

private:
    Verdict HandleHello(const HelloBody& body);
    Verdict HandleReply(const HelloBody& body);
    Verdict HandleRefusal(Refusal reason, const HelloBody& body);
    Verdict Refuse(Refusal reason);
    void LogVersions(uint32_t other) const;
    Verdict HandleChannel(const HelloBody& body);
    Verdict HandleOneWay(const FrameHeader& header, MessageParcel& frame);
    // Comes before the session stands, as it may throw: the end of the process is its end, whoever has its sockets
    // then.
    void WatchProcess();
    void Stand();
    // Sees to a frame that names something that its sender does not hold. WAIT: a grant may be on its way.
    Verdict HandleUnheld(const FrameHeader& header, MessageParcel& frame);

    const Parts& parts_;
    const bool accepted_;
    const Deadline greetBy_{};  // for an accepted connection only: no timer says that another process is dead
    Reactor::Ticks awaiting_;   // a greeting on an accepted connection, or its turn
    sptr<Peer> peer_;
    OneWayDebt::Charge arriving_;  // of the one-way request whose frame has begun to arrive
    std::shared_ptr<Greeting> greeting_;
    bool isTaker_ = false;  // of the greeting
    bool stands_ = false;
    Refusal refusal_{};         // that the other process has given as its reason
    sptr<EventHandler> watch_;  // of the process
    // Grants that the peer may still take back, the latest last.
    std::list<ObjectEntry> grants_;
};

}  // namespace VEXA::ipc
