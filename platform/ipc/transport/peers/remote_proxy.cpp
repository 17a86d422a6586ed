// SPDX-License-Identifier: Apache-2.0
#include "remote_proxy.h"

#include <algorithm>
#include <utility>

#include "frame_reader.h"
#include "ipc_log.h"
#include "object_transfer.h"
#include "parcel_access.h"
#include "process_life.h"
#include "runtime_paths.h"
#include "trace.h"
#include "transport/limits.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA::ipc {
namespace {

// Lays the request's header and object table around the data. Returns the size of the frame, 0 when it can't be sent.
size_t Frame(FrameHeader header, uint32_t code, MessageParcel& data, Peer& receiver, ObjectTransfer& transfer)
{
    header.code = code;
    header.bytes = static_cast<uint32_t>(data.GetDataSize());
    if (!ParcelAccess::Objects(data).empty() && !transfer.Pack(data, receiver, header)) {
        return 0;
    }
    SetHeader(data, header);
    return kHeaderBytes + BodyBytes(header);
}

}  // namespace

RemoteProxy::~RemoteProxy()
{
    if (!ProcessLife::Forked()) {
        Owner()->Forget(*this);
    }
}

int32_t RemoteProxy::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (ProcessLife::Forked()) {
        return IPC_FORKED;
    }
    const NoCancel guard;
    if (ProcessLife::Exiting() || IsObjectDead()) {
        return Lost();
    }
    if (data.GetDataSize() > IPC_MAX_PARCEL_BYTES || ParcelAccess::Objects(data).size() > IPC_MAX_PARCEL_OBJECTS) {
        return IPC_TOO_LARGE;
    }
    const uint64_t number = peers_.NextRequest();
    RequestTrace trace({true, true, Process().Pid(), number}, code, option.IsOneWay(), data);
    return trace.End(
        option.IsOneWay() ? SendOneWay(number, code, data) : SendSync(number, code, data, reply, option.GetWaitTime()),
        reply);
}

int32_t RemoteProxy::Lost(std::chrono::milliseconds lag) const
{
    if (ProcessLife::Exiting()) {
        return IPC_EXITING;
    }
    if (const uint32_t other = Process().otherVersion; other != 0) {
        IPC_LOGE("a request fails: its process speaks version %{public}u, this one %{public}u", other, kWireVersion);
    }
    return Process().WaitUntilDead(lag) ? IPC_DEAD_OBJECT : IPC_CONNECTION_LOST;
}

ClientChannel RemoteProxy::OpenChannel(Deadline deadline, int32_t& error)
{
    ChannelKey key;
    if (!Process().WaitForKey(deadline, Generation(), key)) {
        error = IsObjectDead() ? Lost() : IPC_TIMED_OUT;
        return ClientChannel();
    }
    ClientChannel channel;
    UniqueFd fd = ConnectTo(EndpointPath(Process().Id()));
    if (fd && Process().Who().IsSameAs(CredentialsOf(fd))) {
        channel = Process().Channels().Open(std::move(fd), peers_.Self(), key);
    }
    if (!channel) {
        error = Lost(kDeathLag);
    }
    return channel;
}

int32_t RemoteProxy::SendSync(
    uint64_t number, uint32_t code, MessageParcel& data, MessageParcel& reply, int32_t waitTime)
{
    const Deadline deadline = std::chrono::steady_clock::now() + std::chrono::seconds(waitTime);
    ObjectTransfer transfer(peers_);
    const FrameHeader request = MakeHeader(FrameKind::REQUEST, Id(), number);
    const size_t size = Frame(request, code, data, Process(), transfer);
    if (size == 0) {
        return IPC_FAILED;
    }
    const WorkerWait wait;
    int32_t error = IPC_OK;
    ClientChannel channel = Process().Channels().TakeIdle();
    if (!channel) {
        channel = OpenChannel(deadline, error);
    }
    if (!channel) {
        return error;
    }
    ClientChannel::Reached reached{};
    error = channel.Exchange(data, size, reply, deadline, reached);
    if (error == IPC_OK || reached == ClientChannel::Reached::SENT) {
        transfer.Commit();
    }
    if (error != IPC_OK) {
        Process().Channels().Lose(channel);
        ParcelAccess::Clear(reply);
        return error == IPC_CONNECTION_LOST ? Lost(kDeathLag) : error;
    }
    const FrameHeader header = HeaderOf(reply);
    if (header.objects > 0) {
        AwaitGrants(peers_, reply, header, Process());
        Unpacked unpacked{false};
        RetryForMemory([&] { unpacked = UnpackObjects(peers_, reply, header, Owner()); });
        channel.AcknowledgeObjects();
        error = unpacked.isSound ? IPC_OK : IPC_FAILED;
    }
    Process().Channels().Return(std::move(channel));
    return error != IPC_OK ? error : static_cast<int32_t>(header.code);
}

int32_t RemoteProxy::SendOneWay(uint64_t number, uint32_t code, MessageParcel& data)
{
    ObjectTransfer transfer(peers_);
    const FrameHeader request = MakeHeader(FrameKind::ONE_WAY, Id(), number);
    const size_t size = Frame(request, code, data, Process(), transfer);
    if (size == 0) {
        return IPC_FAILED;
    }
    const int32_t result = Process().Credit().SendOneWay(ParcelAccess::Storage(data), size, data.GetDataSize());
    if (result == IPC_OK) {
        transfer.Commit();
    }
    return result == IPC_DEAD_OBJECT && IsObjectDead() ? Lost() : result;
}

bool RemoteProxy::AddDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    if (recipient == nullptr || ProcessLife::Forked()) {
        return false;
    }
    DeathNotifier::Notices added{{nullptr, recipient}};
    MutexLock lock(mutex_);
    recipients_.splice(recipients_.end(), added);
    lock.Unlock();
    // The recipients are collected after the object is marked dead; one that came too late for that is collected here.
    if (IsObjectDead()) {
        NotifyDeath();
    }
    return true;
}

bool RemoteProxy::RemoveDeathRecipient(const sptr<DeathRecipient>& recipient)
{
    if (ProcessLife::Forked()) {
        return false;
    }
    DeathNotifier::Notices removed;  // may be the last reference to it, which goes after the lock
    MutexLock lock(mutex_);
    const auto found = std::ranges::find(recipients_, recipient, &DeathNotifier::Notice::recipient);
    if (found != recipients_.end()) {
        removed.splice(removed.end(), recipients_, found);
        return true;
    }
    return peers_.Deaths().Cancel(this, recipient);
}

void RemoteProxy::NotifyDeath()
{
    // The mutex is held, so that RemoveDeathRecipient finds a recipient either here or with the notifier.
    MutexLock lock(mutex_);
    for (DeathNotifier::Notice& notice : recipients_) {
        notice.object = this;
    }
    peers_.Deaths().Post(recipients_);
}

}  // namespace VEXA::ipc
