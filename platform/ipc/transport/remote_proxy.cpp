// SPDX-License-Identifier: Apache-2.0
#include "remote_proxy.h"

#include <algorithm>

#include "frame_reader.h"
#include "object_transfer.h"
#include "parcel_access.h"
#include "process.h"
#include "process_life.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA::ipc {
namespace {

// How long a request whose channel has ended waits for the kernel to end the link too, which it does when the process
// has died: its sockets close one after the other.
constexpr std::chrono::milliseconds kDeathLag{500};

// Lays the request's header and object table around the data. The size of the frame, 0 when it can't be sent.
size_t Frame(
    FrameKind kind, uint32_t code, ObjectId target, MessageParcel& data, Peer& receiver, ObjectTransfer& transfer)
{
    FrameHeader header = MakeHeader(kind, target);
    header.code = code;
    header.bytes = static_cast<uint32_t>(data.GetDataSize());
    if (!ParcelAccess::Objects(data).empty() && !transfer.Pack(data, receiver, header)) {
        return 0;
    }
    SetHeader(data, header);
    return kHeaderBytes + BodyBytes(header);
}

}  // namespace

RemoteProxy::RemoteProxy(const sptr<Peer>& peer, ObjectId id) : IRemoteObject(std::u16string()), peer_(peer), id_(id) {}

RemoteProxy::~RemoteProxy()
{
    if (!ProcessLife::Get().Forked()) {
        peer_->Forget(this, id_, references_.load(std::memory_order_relaxed));
    }
}

int32_t RemoteProxy::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (ProcessLife::Get().Forked()) {
        return IPC_FORKED;
    }
    if (peer_->Dead()) {
        return IPC_DEAD_OBJECT;
    }
    if (data.GetDataSize() > IPC_MAX_PARCEL_BYTES || ParcelAccess::Objects(data).size() > IPC_MAX_PARCEL_OBJECTS) {
        return IPC_TOO_LARGE;
    }
    return option.IsOneWay() ? SendOneWay(code, data) : SendSync(code, data, reply, option.GetWaitTime());
}

ClientChannel RemoteProxy::OpenChannel(Deadline deadline, int32_t& error)
{
    ChannelKey key;
    if (!peer_->WaitForKey(deadline, key)) {
        error = peer_->Dead() ? IPC_DEAD_OBJECT : IPC_TIMED_OUT;
        return ClientChannel();
    }
    bool gone = false;
    ClientChannel channel = peer_->Channels().Take(peer_->Id(), peer_->Who(), key, gone);
    if (gone && IpcProcess::Get().MissingEndpointMeansExit()) {
        // A process that leaves takes its endpoint along first. It carries out nothing any more, however long its exit
        // takes, so this is its death.
        peer_->ShutdownLinks();
    }
    if (!channel) {
        error = peer_->WaitUntilDead(kDeathLag) ? IPC_DEAD_OBJECT : IPC_CONNECTION_LOST;
    }
    return channel;
}

int32_t RemoteProxy::SendSync(uint32_t code, MessageParcel& data, MessageParcel& reply, int32_t waitTime)
{
    const Deadline deadline = std::chrono::steady_clock::now() + std::chrono::seconds(waitTime);
    ObjectTransfer transfer;
    const size_t size = Frame(FrameKind::REQUEST, code, id_, data, *peer_, transfer);
    if (size == 0) {
        return IPC_FAILED;
    }
    const WorkerWait wait;
    int32_t error = IPC_OK;
    ClientChannel channel = peer_->Channels().TakeIdle();
    if (!channel) {
        channel = OpenChannel(deadline, error);
    }
    if (!channel) {
        transfer.Undo();
        return error;
    }
    ClientChannel::Reached reached{};
    error = channel.Exchange(data, size, reply, deadline, reached);
    if (error != IPC_OK) {
        peer_->Channels().Lose(channel);
        if (error == IPC_CONNECTION_LOST && peer_->WaitUntilDead(kDeathLag)) {
            error = IPC_DEAD_OBJECT;
        }
        if (reached != ClientChannel::Reached::SENT) {
            transfer.Undo();
        }
        ParcelAccess::Clear(reply);
        return error;
    }
    transfer.Commit();
    const FrameHeader header = HeaderOf(reply);
    if (header.objects > 0) {
        AwaitGrants(reply, header, *peer_);
        const Unpacked unpacked = UnpackObjects(reply, header, peer_);
        channel.AcknowledgeObjects();
        error = unpacked.isSound ? IPC_OK : IPC_FAILED;
    }
    peer_->Channels().Return(std::move(channel));
    return error != IPC_OK ? error : static_cast<int32_t>(header.code);
}

int32_t RemoteProxy::SendOneWay(uint32_t code, MessageParcel& data)
{
    ObjectTransfer transfer;
    const size_t size = Frame(FrameKind::ONE_WAY, code, id_, data, *peer_, transfer);
    if (size == 0) {
        return IPC_FAILED;
    }
    MutexLock order(peer_->Credit().SendOrder());
    if (!peer_->Credit().Take(data.GetDataSize())) {
        order.Unlock();
        transfer.Undo();
        return IPC_QUEUE_FULL;
    }
    const bool queued = peer_->SendOnLink(ParcelAccess::Storage(data), size);
    order.Unlock();
    if (!queued) {
        transfer.Undo();
        return IPC_DEAD_OBJECT;
    }
    transfer.Commit();
    return IPC_OK;
}

bool RemoteProxy::AddDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    if (recipient == nullptr || ProcessLife::Get().Forked()) {
        return false;
    }
    {
        MutexLock lock(mutex_);
        recipients_.push_back(recipient);
    }
    // Whoever marks the peer dead collects the recipients afterwards; one that came too late for that is collected
    // here.
    if (peer_->Dead()) {
        NotifyDeath();
    }
    return true;
}

bool RemoteProxy::RemoveDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    if (ProcessLife::Get().Forked()) {
        return false;
    }
    sptr<DeathRecipient> removed;  // so that its last reference, if it is that, goes after the lock
    MutexLock lock(mutex_);
    const auto found = std::find(recipients_.begin(), recipients_.end(), recipient);
    if (found != recipients_.end()) {
        removed = std::move(*found);
        recipients_.erase(found);
        return true;
    }
    return IpcProcess::Get().Notifier().Cancel(this, recipient);
}

void RemoteProxy::NotifyDeath()
{
    // Under the lock, so that RemoveDeathRecipient finds a recipient either here or with the notifier.
    MutexLock lock(mutex_);
    std::vector<sptr<DeathRecipient>> due;
    due.swap(recipients_);
    for (sptr<DeathRecipient>& recipient : due) {
        IpcProcess::Get().Notifier().Post(peer_->Id(), sptr<IRemoteObject>(this), std::move(recipient));
    }
}

}  // namespace VEXA::ipc
