// SPDX-License-Identifier: Apache-2.0
// A link: the lasting connection between two processes, as bytes in and out. What its frames mean, the session on it
// knows.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "connection_counts.h"
#include "frame_reader.h"
#include "reactor.h"
#include "vexa/base/mutex.h"
#include "wire.h"

namespace VEXA::ipc {

class Link : public EventHandler {
public:
    Link(Connection connection, Reactor& reactor);

    // Queues a frame and returns; false when the link is closed or its peer takes nothing any more. Any thread, as the
    // next two.
    bool Send(const void* frame, size_t size);
    // Waits until everything queued has reached the kernel, or the link has ended.
    bool WaitFlushed(Deadline deadline);
    // Makes the reactor see the end of this connection.
    void Shutdown();

    const Credentials& Who() const { return connection_.who; }

    // On the reactor's thread:
    void OnEvents(uint32_t events) override;
    void TakeStock() override;
    bool Drain() override;
    void Resume() override;

protected:
    enum class Verdict { GO_ON, CLOSE, HANDED_OVER, WAIT };

    // Decides by its header whether a frame is accepted, before its body is read. Called once for each frame.
    virtual bool Admit(const FrameHeader& header) = 0;
    // Deals with a whole frame. WAIT: it is brought again when the settling that is under way has ended.
    virtual Verdict Handle(const FrameHeader& header, MessageParcel& frame) = 0;
    // The connection has ended, and is not watched any more. Called once.
    virtual void OnEnd() = 0;

    // For Handle: takes the frame that it was called with out of the link.
    std::unique_ptr<MessageParcel> TakeFrame(MessageParcel& frame);
    // For Handle: gives the connection away; what has been read of it beyond the frame is with Reader(). HANDED_OVER
    // has to follow.
    Connection GiveUp();
    const FrameReader& Reader() const { return reader_; }
    void Close(bool malformed);

    Reactor& reactor_;

private:
    // Reads until so many frames were dealt with, or so many bytes have been received in all; true when any was.
    bool ReadFrames(size_t frames, uint64_t bytes);
    bool AdmitOnce(const FrameHeader& header);
    void FlushLocked() VEXA_REQUIRES(outMutex_);
    void EndLocked() VEXA_REQUIRES(outMutex_);

    // Without its descriptor, which the event handler has.
    Connection connection_;
    // The reactor's thread only:
    FrameReader reader_;
    std::unique_ptr<MessageParcel> scratch_;
    uint64_t due_ = 0;                 // what Drain reads up to
    MessageParcel* parked_ = nullptr;  // the frame that waits for the end of a Settle
    bool admitted_ = false;            // the frame that is arriving
    bool reading_ = false;
    bool closed_ = false;

    Mutex outMutex_{LockRank::LinkOut};
    CondVar flushed_;
    std::vector<uint8_t> out_ VEXA_GUARDED_BY(outMutex_);
    size_t outSent_ VEXA_GUARDED_BY(outMutex_) = 0;
    bool outClosed_ VEXA_GUARDED_BY(outMutex_) = false;
};

}  // namespace VEXA::ipc
