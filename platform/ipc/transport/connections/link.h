// SPDX-License-Identifier: Apache-2.0
// A link: the lasting connection between two processes, as bytes in and out. The session, which is made of it, knows
// what its frames mean.
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

    // For any thread:
    // Queues a frame and returns; false when the link is closed or its peer takes nothing any more.
    bool Send(const void* frame, size_t size);
    // Waits until everything queued has reached the kernel, or the link has ended.
    bool WaitFlushed(Deadline deadline);
    // Ends the connection, which the reactor then sees.
    void Shutdown();

    const Credentials& Who() const { return connection_.who; }

    // For the reactor's thread:
    void OnEvents(uint32_t events) override;
    void TakeStock() override;
    bool Drain() override;
    void Resume() override;

protected:
    enum class Verdict { GO_ON, CLOSE, END, HANDED_OVER, WAIT };

    // Decides by its header whether a frame is accepted, before its body is read. Called once for each frame.
    virtual bool Admit(const FrameHeader& header) = 0;
    // Deals with a whole frame. CLOSE: it is a breach of the protocol. END: it ends the connection all the same. WAIT:
    // the frame is brought again when the settling that is under way has ended, and at each Resume; meanwhile nothing
    // may follow it.
    virtual Verdict Handle(const FrameHeader& header, MessageParcel& frame) = 0;
    // Is called once, when the connection has ended and is not watched any more.
    virtual void OnEnd() = 0;

    // For Handle: takes the frame that Handle was called with out of the link. Where memory is short it throws and
    // takes nothing.
    std::unique_ptr<MessageParcel> TakeFrame(MessageParcel& frame);
    // For Handle: gives the connection away; Reader() has what was read of it beyond the frame. HANDED_OVER has to
    // follow.
    Connection GiveUp();
    const FrameReader& Reader() const { return reader_; }
    void Close(bool malformed);

    Reactor& reactor_;

private:
    // Reads until so many frames were dealt with, or so many bytes have been received in all; true when any frame was.
    bool ReadFrames(size_t frames, uint64_t bytes);
    bool AdmitOnce(const FrameHeader& header);
    void Flush();
    void EndLocked() VEXA_REQUIRES(outMutex_);

    Connection connection_;  // without its descriptor, which the event handler has
    // The reactor's thread only:
    FrameReader reader_;
    std::unique_ptr<MessageParcel> scratch_ = std::make_unique<MessageParcel>();
    uint64_t due_ = 0;                 // the count of bytes up to which Drain reads
    MessageParcel* parked_ = nullptr;  // the frame that is dealt with, or that waits to be
    bool admitted_ = false;            // by Admit: the frame that is arriving
    bool reading_ = false;
    bool closed_ = false;

    Mutex outMutex_{LockRank::LinkOut};
    CondVar flushed_;
    std::vector<uint8_t> out_ VEXA_GUARDED_BY(outMutex_);
    size_t outSent_ VEXA_GUARDED_BY(outMutex_) = 0;
    bool outClosed_ VEXA_GUARDED_BY(outMutex_) = false;
};

}  // namespace VEXA::ipc
