// SPDX-License-Identifier: Apache-2.0
// An object that does on request whatever a test of the transport wants the other process to do, keeps what test
// processes hand each other, and counts deaths.
#pragma once

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "process.h"
#include "support/requests.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/context_object.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::test {

enum Code : uint32_t {
    ADD_ONE = 1,  // int32 -> int32
    NEST,         // int32 depth, object -> int32: calls object->NEST(depth - 1, self), and adds one to its answer
    KEEP,         // object: keeps it
    GIVE,         // -> the object kept
    DIE,          // int32: of that signal; 0: exits
    HANG,         // does not answer
    ECHO,         // string -> string
    MAKE_NEW,     // -> a new object
    THROW,
    WHO_CALLS,  // int32 group -> int32 pid, int32 uid, uint64 endpoint, int32: whether it is in the group
    RESULT,     // int32 -> that result
    LIMIT,      // int32: how many threads may carry out requests
};

class CountingRecipient : public IRemoteObject::DeathRecipient {
public:
    std::atomic<int> count{0};
    std::atomic<const IRemoteObject*> of{nullptr};
    void OnRemoteDied(const wptr<IRemoteObject>& object) override
    {
        of = object.Promote().GetRefPtr();
        ++count;
    }
};

class Call {
public:
    template <typename... Arguments>
    explicit Call(const sptr<IRemoteObject>& object, Code code, const Arguments&... arguments)
        : object_(object), code_(code)
    {
        (PutField{data_}(arguments), ...);
    }
    int32_t Send(MessageOption option = MessageOption()) { return object_->SendRequest(code_, data_, reply_, option); }
    // The answer of a request that is expected to succeed.
    int32_t Answer(MessageOption option = MessageOption()) { return Send(option) == 0 ? reply_.ReadInt32() : -1000; }
    sptr<IRemoteObject> AnswerObject() { return Send() == 0 ? reply_.ReadRemoteObject() : nullptr; }
    MessageParcel& Reply() { return reply_; }

private:
    const sptr<IRemoteObject> object_;
    const Code code_;
    MessageParcel data_;
    MessageParcel reply_;
};

class TestObject : public IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        switch (code) {
            case ADD_ONE:
                return reply.WriteInt32(data.ReadInt32() + 1) ? 0 : 1;
            case NEST:
                return Nest(data, reply);
            case KEEP:
            case GIVE: {
                MutexLock lock(mutex_);
                kept_ = code == KEEP ? data.ReadRemoteObject() : kept_;
                return code == KEEP || reply.WriteRemoteObject(kept_) ? 0 : 1;
            }
            case DIE:
                if (const int32_t signal = data.ReadInt32(); signal != 0) {
                    raise(signal);
                }
                std::exit(0);
            case HANG:
                return pause();
            case ECHO:
                return reply.WriteString(data.ReadString()) ? 0 : 1;
            case MAKE_NEW:
                return reply.WriteRemoteObject(new TestObject) ? 0 : 1;
            case THROW:
                reply.WriteInt32(1);
                throw std::runtime_error("on request");
            case WHO_CALLS:
                reply.WriteInt32(IPCSkeleton::GetCallingPid());
                reply.WriteInt32(static_cast<int32_t>(IPCSkeleton::GetCallingUid()));
                reply.WriteUint64(IPCSkeleton::GetCallingEndpoint());
                return reply.WriteInt32(IPCSkeleton::IsCallerInGroup(static_cast<gid_t>(data.ReadInt32()))) ? 0 : 1;
            case RESULT:
                return data.ReadInt32();
            case LIMIT:
                IPCSkeleton::SetMaxWorkThreads(static_cast<size_t>(data.ReadInt32()));
                return 0;
            default:
                return IPC_UNKNOWN_REQUEST;
        }
    }

private:
    int32_t Nest(MessageParcel& data, MessageParcel& reply)
    {
        const int32_t depth = data.ReadInt32();
        Call inner(data.ReadRemoteObject(), NEST, depth - 1, sptr<IRemoteObject>(this));
        return reply.WriteInt32(depth > 0 ? inner.Answer() + 1 : 0) ? 0 : 1;
    }

    Mutex mutex_{LockRank::Program};
    sptr<IRemoteObject> kept_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::test
