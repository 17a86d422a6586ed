// SPDX-License-Identifier: Apache-2.0
// An object that does on request whatever a test of the transport wants the other process to do, and the hub over which
// test processes find each other's objects.
#pragma once

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "process.h"
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
    KEEP,         // object, or null
    GIVE,         // -> the object kept
    CALL_KEPT,    // int32 -> what ADD_ONE on the object kept makes of it
    DIE,          // int32: of that signal; 0: exits
    HANG,         // does not answer
    ECHO,         // string -> string
    MANY_NEW,     // int32 n -> n new objects
    MAKE_NEW,     // -> a new object
    TABLE_SIZE,   // -> int32: objects that other processes hold
    THROW,
    WHO_CALLS,   // -> int32 pid, int32 uid
    NOTE,        // int32, one-way: notes the number
    NOTES,       // -> the numbers noted: int32 count, int32 each
    PASS,        // string name, object: puts it under that name (hub)
    FETCH,       // string name -> object (hub)
    FETCH_KEPT,  // string name: keeps what the hub has under the name
    RESULT,      // int32 -> that result
    LIMIT,       // int32: how many threads may carry out requests
};

// One request with at most one number and one object as arguments.
class Call {
public:
    explicit Call(const sptr<IRemoteObject>& object, uint32_t code) : object_(object), code_(code) {}
    Call& Int(int32_t value)
    {
        data_.WriteInt32(value);
        return *this;
    }
    Call& Text(const std::string& value)
    {
        data_.WriteString(value);
        return *this;
    }
    Call& Object(const sptr<IRemoteObject>& value)
    {
        data_.WriteRemoteObject(value);
        return *this;
    }
    Call& Wait(int32_t seconds)
    {
        option_ = MessageOption(MessageOption::TF_SYNC, seconds);
        return *this;
    }
    Call& OneWay()
    {
        option_ = MessageOption(MessageOption::TF_ASYNC);
        return *this;
    }
    int32_t Send() { return object_->SendRequest(code_, data_, reply_, option_); }
    // The answer of a request that is expected to succeed.
    int32_t Answer() { return Send() == 0 ? reply_.ReadInt32() : -1000; }
    sptr<IRemoteObject> AnswerObject() { return Send() == 0 ? reply_.ReadRemoteObject() : nullptr; }
    MessageParcel& Reply() { return reply_; }

private:
    const sptr<IRemoteObject> object_;
    const uint32_t code_;
    MessageParcel data_;
    MessageParcel reply_;
    MessageOption option_;
};

class TestObject : public IPCObjectStub {
public:
    static std::atomic<int>& Alive()
    {
        static std::atomic<int> count{0};
        return count;
    }
    TestObject() { ++Alive(); }
    ~TestObject() override { --Alive(); }

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        switch (code) {
            case ADD_ONE:
                return reply.WriteInt32(data.ReadInt32() + 1) ? 0 : 1;
            case NEST:
                return Nest(data, reply);
            case GIVE:
                return reply.WriteRemoteObject(Kept()) ? 0 : 1;
            case CALL_KEPT:
                return Kept()->SendRequest(ADD_ONE, data, reply, option);
            case DIE:
                if (const int32_t signal = data.ReadInt32(); signal != 0) {
                    raise(signal);
                }
                std::exit(0);
            case HANG:
                pause();
                return 0;
            case ECHO:
                return reply.WriteString(data.ReadString()) ? 0 : 1;
            case MANY_NEW:
                for (int32_t left = data.ReadInt32(); left > 0; --left) {
                    reply.WriteRemoteObject(new TestObject);
                }
                return 0;
            case MAKE_NEW:
                return reply.WriteRemoteObject(new TestObject) ? 0 : 1;
            case TABLE_SIZE:
                return reply.WriteInt32(static_cast<int32_t>(ipc::IpcProcess::Get().Start()->Objects().Size())) ? 0 : 1;
            case THROW:
                reply.WriteInt32(1);
                throw std::runtime_error("on request");
            case WHO_CALLS:
                reply.WriteInt32(IPCSkeleton::GetCallingPid());
                reply.WriteInt32(static_cast<int32_t>(IPCSkeleton::GetCallingUid()));
                return 0;
            case RESULT:
                return data.ReadInt32();
            case LIMIT:
                IPCSkeleton::SetMaxWorkThreads(static_cast<size_t>(data.ReadInt32()));
                return 0;
            default:
                return OnStateRequest(code, data, reply);
        }
    }

private:
    int32_t OnStateRequest(uint32_t code, MessageParcel& data, MessageParcel& reply)
    {
        MutexLock lock(mutex_);
        switch (code) {
            case KEEP:
                kept_ = data.ReadRemoteObject();
                return 0;
            case FETCH_KEPT:
                kept_ = Call(GetContextObject(), FETCH).Text(data.ReadString()).AnswerObject();
                return 0;
            case NOTE:
                notes_.push_back(data.ReadInt32());
                return 0;
            case NOTES:
                reply.WriteInt32(static_cast<int32_t>(notes_.size()));
                for (const int32_t note : notes_) {
                    reply.WriteInt32(note);
                }
                return 0;
            case PASS: {
                const std::string name = data.ReadString();
                hub_[name] = data.ReadRemoteObject();
                return 0;
            }
            case FETCH:
                return reply.WriteRemoteObject(hub_[data.ReadString()]) ? 0 : 1;
            default:
                return IPC_UNKNOWN_REQUEST;
        }
    }

    int32_t Nest(MessageParcel& data, MessageParcel& reply)
    {
        const int32_t depth = data.ReadInt32();
        const sptr<IRemoteObject> other = data.ReadRemoteObject();
        Call inner(other, NEST);
        const int32_t result = depth > 0 ? inner.Int(depth - 1).Object(this).Send() : 0;
        reply.WriteInt32(depth > 0 ? inner.Reply().ReadInt32() + 1 : 0);
        return result;
    }

    sptr<IRemoteObject> Kept()
    {
        MutexLock lock(mutex_);
        return kept_;
    }

    Mutex mutex_{LockRank::Program};
    sptr<IRemoteObject> kept_ VEXA_GUARDED_BY(mutex_);
    std::map<std::string, sptr<IRemoteObject>> hub_ VEXA_GUARDED_BY(mutex_);
    std::vector<int32_t> notes_ VEXA_GUARDED_BY(mutex_);
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

}  // namespace VEXA::test
