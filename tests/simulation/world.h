// SPDX-License-Identifier: Apache-2.0
// Three processes in one program: the books, sessions and transfers of each are real, but no thread runs. Each step is
// drawn, so a seed names a whole history. The world knows what the processes hold and what is under way between them,
// and compares.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "object_transfer.h"
#include "parcel_access.h"
#include "peer_requests.h"
#include "runtime_paths.h"
#include "transport.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/log/log_sink.h"

namespace VEXA::test {

class World : private LogSink {
public:
    // `draw` returns a number below the one it is called with.
    explicit World(std::function<size_t(size_t)> draw) : draw_(std::move(draw)), previousLog_(SetLogSink(this))
    {
        for (size_t place = 0; place < now_.size(); ++place) {
            Begin(place);
        }
    }
    ~World() override { SetLogSink(previousLog_); }

    // The first thing that went wrong; empty while nothing has.
    const std::string& Failure() const { return failure_; }

    void Step()
    {
        // Weights of a thousand. Whatever else may happen between two steps gets a line here.
        static constexpr std::pair<size_t, void (World::*)(Life&)> kActs[] = {{400, &World::Deliver},
            {150, &World::RunTasks}, {20, &World::TellDeath}, {130, &World::SendOneWay}, {60, &World::Drop},
            {60, &World::BeginCall}, {80, &World::DeliverCall}, {20, &World::CutCall}, {24, &World::Meet},
            {20, &World::Watch}, {10, &World::Unwatch}, {10, &World::Stop}, {8, &World::Kill}, {2, &World::Stranger},
            {2, &World::Lie}, {4, &World::Quiet}};
        size_t left = draw_(1000);
        Life& at = *now_[draw_(3)];
        const auto* next = kActs;
        for (; left >= next->first; ++next) {
            left -= next->first;
        }
        if (++step_ >= at.stoppedUntil || next->second == &World::Kill) {
            (this->*next->second)(at);
        }
        CheckNothingHeldIsFreed();
    }

    // Everybody lets go of everything, and dies.
    void End()
    {
        Quiet(*now_[0]);
        for (Life* life : now_) {
            life->held.clear();
            life->own.clear();
        }
        Quiet(*now_[0]);
        for (Life* life : now_) {
            Kill(*life);
        }
    }

private:
    using Objects = std::map<size_t, sptr<IRemoteObject>>;  // each has a number in the world
    using Cargo = std::vector<size_t>;                      // objects
    using Request = std::tuple<size_t, size_t, uint32_t>;   // from a life to an object; later ones have larger numbers

    struct Watcher : IRemoteObject::DeathRecipient {
        Watcher(World& itsWorld, size_t itsObject) : world(itsWorld), object(itsObject) {}
        void OnRemoteDied(const wptr<IRemoteObject>&) override
        {
            world.Check(
                !isRemoved && ++told == 1 && !world.Home(object).transport, "a recipient is told what is not so");
        }
        World& world;
        size_t object;
        int told = 0;
        bool isRemoved = false;
    };
    // One process from its start to its death, after which it has no transport.
    struct Life {
        size_t index;
        size_t place;
        std::unique_ptr<ipc::Transport> transport;
        ipc::EndpointId id;
        Objects own{};
        Objects held{};
        std::vector<sptr<Watcher>> watchers{};
        std::set<size_t> leftBehind{};  // counted as held: a process died that had said so and was yet to give it
        std::map<size_t, IRemoteObject*> stubs{};  // those of its objects that are not freed
        std::set<size_t> grants{};                 // the processes that it has told of new holders
        uint64_t stoppedUntil = 0;
        int lies = 0;

        ipc::PeerDirectory& Peers() const { return transport->Peers(); }
        sptr<ipc::Peer> Knows(const Life& other) const { return Peers().KnownPeer(other.id); }
        bool Counts(size_t object) const { return held.contains(object) || leftBehind.contains(object); }
    };
    struct Stub : IPCObjectStub {
        Stub(World& itsWorld, size_t itsObject) : world(itsWorld), object(itsObject)
        {
            world.Home(object).stubs[object] = this;
        }
        ~Stub() override { world.Home(object).stubs.erase(object); }
        int32_t OnRemoteRequest(uint32_t number, MessageParcel& data, MessageParcel& reply, MessageOption& how) override
        {
            return world.Arrive(object, number, data, how.IsOneWay() ? nullptr : &reply);
        }
        World& world;
        size_t object;
    };
    // A frame on its way to a living process: a request, then its reply. What follows the cargo ends with the sender.
    struct Call {
        Life* from;
        Life* to;
        ipc::FrameHeader header;
        std::unique_ptr<MessageParcel> frame = std::make_unique<MessageParcel>();
        Cargo cargo{};
        sptr<IRemoteObject> target{};
        std::unique_ptr<ipc::ObjectTransfer> request{};
        std::unique_ptr<ipc::PeerRequests> serving{};
    };

    void Check(bool holds, const char* what)
    {
        if (!holds && failure_.empty()) {
            failure_ = std::string(what) + ", step " + std::to_string(step_);
        }
    }
    bool Write(const LogRecord& record) override
    {
        Check(record.message.find("does not hold") == std::string_view::npos, "a holder is refused");
        return true;
    }

    void Begin(size_t place)
    {
        auto transport = std::make_unique<ipc::Transport>([](const char*, std::function<void()>) { return true; });
        const ipc::EndpointId id = transport->Id();
        Check(transport->Start(), "a process can't start");
        transport->Loop().Turn(false);  // this thread is the reactor's
        lives_.push_back({lives_.size(), place, std::move(transport), id});
        now_[place] = &lives_.back();
    }
    void Stop(Life& at) { at.stoppedUntil = step_ + draw_(150); }
    void Deliver(Life& at) { at.transport->Loop().Turn(false, 1); }
    void RunTasks(Life& at) { at.transport->Workers().RunTasks(); }
    void TellDeath(Life& at) { at.transport->Deaths().TellOne(); }

    void Kill(Life& at)
    {
        for (const Life* other : now_) {
            const sptr<ipc::Peer> peer = at.Knows(*other);
            // What only this process has yet is not known here. And a process that never knew it does not believe it:
            // an object of that one's that it has passed on is then not the new holder's.
            if ((peer && !peer->WaitLinkFlushed({})) ||
                (other != &at && !other->Knows(at) && at.grants.contains(other->index))) {
                return;
            }
        }
        // Its connections end, and it reaches nobody. What it would still say is not heard.
        const std::string failure = failure_;
        const std::string directory = ipc::EndpointDirectory();
        rename(directory.c_str(), (directory + "-").c_str());
        for (int turn = 0; turn < 24; ++turn) {
            at.transport->Loop().CutAll();
            at.transport->Loop().Turn(false);
        }
        rename((directory + "-").c_str(), directory.c_str());
        failure_ = failure;
        for (Call& call : calls_) {
            if (call.from == &at) {
                call.request ? call.request->Commit() : call.serving->OnLastReplyRead();
                ParcelAccess::Objects(*call.frame).clear();
                call = {call.from, call.to, call.header, std::move(call.frame), std::move(call.cargo)};
            }
        }
        at.held.clear();
        at.watchers.clear();
        at.own.clear();
        at.leftBehind.clear();
        at.transport.reset();
        unlink(ipc::EndpointPath(at.id).c_str());
        Check(at.stubs.empty(), "a dead process's objects stay");
        std::erase_if(calls_, [&](const Call& call) { return call.to == &at; });
        std::erase_if(due_, [&](const auto& due) {
            const auto& [from, target, number] = due.first;
            const bool isLost = &Home(target) == &at || (from == at.index && !Home(target).Knows(at));
            Lose(lives_[from], Home(target), isLost ? due.second : Cargo());
            return isLost;
        });
        Begin(at.place);
    }

    // Connects, and says only a part of something.
    void Stranger(Life& at)
    {
        const ipc::UniqueFd fd = ipc::ConnectAtOnce(ipc::EndpointPath(at.id));
        const ipc::HelloFrame hello = ipc::MakeHello(ipc::FrameKind::HELLO, ipc::ConnectionUse::LINK, at.id);
        size_t sent = 0;
        ipc::SendNow(fd.Get(), &hello, draw_(sizeof(hello)), sent);
    }

    // Gives itself what it does not hold.
    void Lie(Life& at)
    {
        Quiet(at);
        const auto* const target = Any(Other(at).held);
        const sptr<ipc::Peer> owner = target != nullptr ? at.Knows(Home(target->first)) : nullptr;
        if (owner != nullptr && !at.Counts(target->first) && ++at.lies < 50) {
            const ipc::FrameHeader grant = ipc::MakeHeader(ipc::FrameKind::GRANT, Proxy(target->second).Id(), at.id);
            owner->SendOnLink(&grant, sizeof(grant));
            Quiet(at);
        }
    }

    Life& Other(const Life& than) { return *now_[(than.place + 1 + draw_(2)) % 3]; }
    Life& Home(size_t object) { return *homes_[object]; }
    static ipc::PeerObject& Proxy(const sptr<IRemoteObject>& object) { return static_cast<ipc::PeerObject&>(*object); }
    const Objects::value_type* Any(const Objects& objects)
    {
        return objects.empty() ? nullptr : &*std::next(objects.begin(), static_cast<ptrdiff_t>(draw_(objects.size())));
    }
    const Objects::value_type* Own(Life& at)
    {
        if (at.own.empty() || draw_(2) == 0) {
            homes_.push_back(&at);
            return &*at.own.emplace(homes_.size() - 1, new Stub(*this, homes_.size() - 1)).first;
        }
        return Any(at.own);
    }

    // Another process is handed an object without a frame. Both connect.
    void Meet(Life& at)
    {
        Life& other = Other(at);
        at.Peers().PeerAt(other.id);
        const auto [number, object] = *Own(at);
        const ipc::ObjectId id = at.Peers().AddHolder(object, other.id);
        Take(other, number, other.Peers().PeerAt(at.id)->Object(id));
    }
    void Take(Life& at, size_t number, const sptr<IRemoteObject>& object)
    {
        const bool isOwn = &Home(number) == &at;
        sptr<IRemoteObject>& kept = (isOwn ? at.own : at.held)[number];
        Check(object && (!isOwn || object.GetRefPtr() == at.stubs[number]), "an object has come as another");
        const bool isSame = object && !object->IsObjectDead() && (!kept || kept == object);
        Check(isSame || !Home(number).transport, "a living process's object has come as another");
        kept = kept ? kept : object;
    }
    void Drop(Life& at)
    {
        Objects& objects = draw_(3) == 0 ? at.own : at.held;
        if (const auto* const any = Any(objects)) {
            const size_t number = any->first;
            std::erase_if(at.watchers, [&](const auto& watcher) { return watcher->object == number; });
            objects.erase(number);
        }
    }

    // Up to three objects, without those that could not travel at once.
    Cargo Load(Life& at, MessageParcel& parcel)
    {
        Cargo cargo;
        for (size_t left = draw_(4); left > 0; --left) {
            const auto* const held = draw_(3) > 0 ? Any(at.held) : nullptr;
            if (held == nullptr || Proxy(held->second).Owner()->WaitLinkFlushed({})) {
                const auto& [number, object] = held != nullptr ? *held : *Own(at);
                at.grants.insert(Home(number).index);
                cargo.push_back(number);
                parcel.WriteInt32(static_cast<int32_t>(number));
                parcel.WriteRemoteObject(object);
            }
        }
        return cargo;
    }
    void Unload(Life& at, MessageParcel& parcel)
    {
        while (parcel.GetReadableBytes() > 0) {
            const auto number = static_cast<size_t>(parcel.ReadInt32());
            Take(at, number, parcel.ReadRemoteObject());
        }
    }
    // What a dead process was about to give: its owner counts the receiver as a holder already.
    void Lose(const Life& from, Life& to, const Cargo& cargo)
    {
        std::copy_if(cargo.begin(), cargo.end(), std::inserter(to.leftBehind, to.leftBehind.end()), [&](size_t object) {
            return !from.transport && to.transport && Home(object).transport && &Home(object) != &to;
        });
    }

    void SendOneWay(Life& at)
    {
        if (const auto* const target = Any(at.held)) {
            MessageParcel data;
            MessageParcel reply;
            MessageOption option(MessageOption::TF_ASYNC);
            data.WriteInt32(static_cast<int32_t>(at.index));
            Cargo cargo = Load(at, data);
            const int32_t result = target->second->SendRequest(++number_, data, reply, option);
            if (Home(target->first).transport) {
                Check(result == IPC_OK, "a living process can't be reached");
                due_[{at.index, target->first, number_}] = std::move(cargo);
            }
        }
    }
    int32_t Arrive(size_t object, uint32_t number, MessageParcel& data, MessageParcel* reply)
    {
        const auto from = static_cast<size_t>(data.ReadInt32());
        Unload(Home(object), data);
        if (reply != nullptr) {
            replyCargo_ = Load(Home(object), *reply);
            return 0;
        }
        const auto due = due_.lower_bound({from, object, 0});
        const bool isNext = due != due_.end() && due->first == Request{from, object, number};
        Check(isNext, "a request arrives twice, or out of order");
        due_.erase(due, isNext ? std::next(due) : due);
        return 0;
    }

    void BeginCall(Life& at)
    {
        const auto* const target = Any(at.held);
        const sptr<ipc::Peer> peer = target != nullptr ? Proxy(target->second).Owner() : nullptr;
        // A channel needs a key, for which its caller waits.
        if (peer != nullptr && Home(target->first).transport && peer->HasAnswered() && calls_.size() < 9) {
            Call call{&at, &Home(target->first), ipc::MakeHeader(ipc::FrameKind::REQUEST, Proxy(target->second).Id())};
            call.target = target->second;
            call.request = std::make_unique<ipc::ObjectTransfer>(at.Peers());
            call.frame->WriteInt32(static_cast<int32_t>(at.index));
            call.cargo = Load(at, *call.frame);
            call.header.bytes = static_cast<uint32_t>(call.frame->GetDataSize());
            Check(call.request->Pack(*call.frame, *peer, call.header), "a request can't be sent");
            calls_.push_back(std::move(call));
        }
    }
    void CutCall(Life& at) { EndCall(at, false); }
    void DeliverCall(Life& at) { EndCall(at, true); }
    void EndCall(Life& to, bool arrives)
    {
        // Channels have no order among themselves.
        std::rotate(calls_.begin(), calls_.begin() + static_cast<ptrdiff_t>(draw_(calls_.size() + 1)), calls_.end());
        const auto found = std::find_if(calls_.begin(), calls_.end(), [&](const Call& call) { return call.to == &to; });
        if (found == calls_.end()) {
            return;
        }
        const Call call = std::move(*found);
        calls_.erase(found);
        const sptr<ipc::Peer> sender = to.Knows(*call.from);
        Check(sender || !call.from->transport, "a living process is not known");
        if (!sender || !arrives) {
            return Lose(*call.from, to, call.cargo);
        }
        MessageParcel received;
        ParcelAccess::ReserveTotal(received, ipc::BodyBytes(call.header));
        std::memcpy(ParcelAccess::Data(received), ParcelAccess::Data(*call.frame), ipc::BodyBytes(call.header));
        ParcelAccess::SetSize(received, call.header.bytes);
        if (call.header.kind == ipc::FrameKind::REPLY) {
            AwaitGrants(to.Peers(), received, call.header, *sender);
            Check(UnpackObjects(to.Peers(), received, call.header, sender).isSound, "a reply is refused");
            Unload(to, received);
            if (call.serving != nullptr) {
                call.serving->OnLastReplyRead();
            }
            return;
        }
        Call answer{&to, call.from, {}};
        answer.serving = std::make_unique<ipc::PeerRequests>(to.Peers(), sender);
        Check(answer.serving->Answer(received, call.header, *answer.frame), "a request is not answered");
        answer.header = ipc::HeaderOf(*answer.frame);
        Check(answer.header.code == 0, "a holder is refused");
        answer.cargo = std::move(replyCargo_);
        if (call.request != nullptr) {
            call.request->Commit();
            calls_.push_back(std::move(answer));
        }
    }

    void Watch(Life& at)
    {
        if (const auto* const object = Any(at.held)) {
            at.watchers.push_back(sptr<Watcher>(new Watcher(*this, object->first)));
            Check(object->second->AddDeathRecipient(at.watchers.back()), "a recipient is refused");
        }
    }
    void Unwatch(Life& at)
    {
        if (!at.watchers.empty()) {
            const auto place = at.watchers.begin() + static_cast<ptrdiff_t>(draw_(at.watchers.size()));
            const sptr<Watcher> watcher = *place;
            at.watchers.erase(place);
            watcher->isRemoved = at.held[watcher->object]->RemoveDeathRecipient(watcher);
            Check(watcher->isRemoved == (watcher->told == 0), "a recipient that waits can't be removed");
        }
    }

    void CheckNothingHeldIsFreed()
    {
        const auto isThere = [this](size_t object) {
            Check(!Home(object).transport || Home(object).stubs.contains(object), "an object that is held is freed");
        };
        for (const Life* life : now_) {
            for (const auto& [number, object] : life->held) {
                isThere(number);
            }
        }
        for (const auto& [request, cargo] : due_) {
            if (lives_[std::get<0>(request)].transport) {
                std::for_each(cargo.begin(), cargo.end(), isThere);
            }
        }
    }

    // All that is under way arrives; then all books have to agree.
    void Quiet(Life&)
    {
        for (int rounds = 10; rounds > 0; rounds = calls_.empty() ? rounds - 1 : 10) {
            for (Life* life : now_) {
                life->stoppedUntil = 0;
                life->transport->Loop().Turn(false);
                RunTasks(*life);
                while (life->transport->Deaths().TellOne()) {
                }
                DeliverCall(*life);
            }
        }
        Check(due_.empty(), "a request does not arrive");
        for (Life* life : now_) {
            CheckTable(*life);
            CheckPeers(*life);
        }
    }
    void CheckTable(Life& at)
    {
        std::set<size_t> out;
        for (const auto& [number, stub] : at.stubs) {
            ipc::ObjectId id = 0;
            for (Life* other : now_) {
                id = other->held.contains(number) ? Proxy(other->held[number]).Id() : id;
                if (other->Counts(number)) {
                    out.insert(number);
                }
            }
            for (const Life* other : id != 0 ? now_ : std::array<Life*, 3>{}) {
                const bool counts = other && at.transport->Objects().Find(id, other->id);
                Check(counts == (other && other->Counts(number)), "others are counted than hold");
            }
            Check(out.contains(number) || at.own.contains(number), "an object that nobody holds stays");
        }
        Check(at.transport->Objects().Size() == out.size(), "an object that nobody holds is in the table");
    }
    void CheckPeers(Life& at)
    {
        for (const Life* other : now_) {
            const sptr<ipc::Peer> peer = at.Knows(*other);
            Check(!at.Peers().HasDied(other->id) && (!peer || !peer->Dead()), "a living process stays deaf");
            constexpr uint64_t kAll = ipc::kMaxQueuedOneWayBytes;
            Check(!peer || (peer->Credit().Take(kAll) && peer->Credit().GiveBack(1, kAll)), "credit is lost");
        }
        for (const auto& [number, object] : at.held) {
            ipc::Peer& owner = *Proxy(object).Owner();
            const bool isKnown = owner.Dead() && (!owner.HasAnswered() || at.Peers().HasDied(owner.Id()));
            Check(Home(number).transport || isKnown, "a dead process is not known as dead");
        }
        std::erase_if(at.watchers, [&](const auto& watcher) {
            Check(watcher->told == (Home(watcher->object).transport ? 0 : 1), "a recipient is not told");
            return watcher->told > 0;
        });
    }

    const std::function<size_t(size_t)> draw_;
    LogSink* const previousLog_;
    std::string failure_;
    uint64_t step_ = 0;
    uint32_t number_ = 0;
    std::deque<Life> lives_;
    std::array<Life*, 3> now_{};
    std::vector<Life*> homes_;      // by objects
    std::map<Request, Cargo> due_;  // one-way requests
    std::vector<Call> calls_;
    Cargo replyCargo_;
};

}  // namespace VEXA::test
