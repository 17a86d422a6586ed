// SPDX-License-Identifier: Apache-2.0
// A link: the lasting connection between two processes. It carries one-way requests and the book-keeping of references,
// in order, in both directions, and its end is the other process's death.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "frame_reader.h"
#include "reactor.h"
#include "socket.h"
#include "vexa/base/mutex.h"
#include "wire.h"

namespace VEXA::ipc {

class Peer;

// What the process that opened a link waits for.
class Greeting : public RefBase {
public:
    // The process that answered, or null when it did not before the deadline. An answer that comes later is not taken.
    sptr<Peer> Wait(Deadline deadline);
    // An answer has come; false when nobody waits for it any more. Answer must follow soon.
    bool Claim();
    void Answer(const sptr<Peer>& peer);

private:
    enum class State { OPEN, CLAIMED, ANSWERED, ABANDONED };

    Mutex mutex_;
    CondVar answered_;
    State state_ VEXA_GUARDED_BY(mutex_) = State::OPEN;
    sptr<Peer> peer_ VEXA_GUARDED_BY(mutex_);
};

class Link : public EventHandler {
public:
    // A connection that was accepted; what it is for, its first frame tells.
    explicit Link(UniqueFd fd);
    // A link to a process that is known by its endpoint.
    Link(UniqueFd fd, const sptr<Peer>& peer);
    // A link to whoever publishes the context object.
    Link(UniqueFd fd, const sptr<Greeting>& greeting);
    ~Link() override;

    // Queues a frame and returns; false when the link is closed or its peer takes nothing any more.
    bool Send(const void* frame, size_t size);
    // Waits until everything queued has reached the kernel, or the link has ended.
    bool WaitFlushed(Deadline deadline);
    // Makes the reactor see the end of this connection.
    void Shutdown();

    // On the reactor's thread:
    void OnEvents(uint32_t events) override;
    void OnTick(Deadline now) override;
    void TakeStock() override;
    bool Drain() override;
    void Resume() override;
    // Completes the greeting of the process at the other end.
    void Answer(const Peer& peer);

private:
    enum class Verdict { GO_ON, CLOSE, HANDED_OVER, WAIT };

    // Reads until so many frames were dealt with, or so many bytes have been received in all; whether any was.
    bool ReadFrames(size_t frames, uint64_t bytes);
    // Whether a frame may come, by its header alone; counts it where it does.
    bool Admit(const FrameHeader& header);
    Verdict Handle(const FrameHeader& header, MessageParcel* frame);
    Verdict HandleHello(Parcel& frame, FrameKind kind);
    static bool ReadHello(Parcel& frame, HelloBody& body);
    Verdict TakeKey(const HelloBody& body);
    Verdict HandleOneWay(const FrameHeader& header, MessageParcel* frame);
    void Close(bool malformed);
    void StopWaiting();
    bool TakeBackGrant(const ObjectEntry& grant);
    void FlushLocked() VEXA_REQUIRES(outMutex_);
    void EndLocked() VEXA_REQUIRES(outMutex_);

    const Credentials credentials_;
    const Deadline greetBy_{};  // of an accepted connection; no timer says that another process is dead
    const bool accepted_;
    bool counted_ = false;  // among the connections of the peer's user
    // The reactor's thread only:
    sptr<Peer> peer_;
    sptr<Greeting> greeting_;
    FrameReader reader_;
    std::unique_ptr<MessageParcel> scratch_;
    // Grants that the peer may still take back, the latest last. It does so within a request's time or never.
    std::deque<ObjectEntry> grants_;
    uint64_t due_ = 0;                 // what Drain reads up to
    MessageParcel* parked_ = nullptr;  // the frame that waits for the end of a Settle
    bool admitted_ = false;            // the frame that is arriving
    bool waiting_ = false;             // counted among those that the reactor ticks for
    bool reading_ = false;
    bool closed_ = false;
    bool greeted_ = false;

    Mutex outMutex_;
    CondVar flushed_;
    std::vector<uint8_t> out_ VEXA_GUARDED_BY(outMutex_);
    size_t outSent_ VEXA_GUARDED_BY(outMutex_) = 0;
    bool outClosed_ VEXA_GUARDED_BY(outMutex_) = false;
};

}  // namespace VEXA::ipc
