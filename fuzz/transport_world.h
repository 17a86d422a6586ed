// SPDX-License-Identifier: Apache-2.0
// Three processes in one program: the books, sessions and transfers of each are real, but no thread runs. Each step is
// drawn, so a seed names a whole history. The world knows what the processes hold and what is under way between them,
// and compares.
#pragma once

#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <set>

#include "object_transfer.h"
#include "parcel_access.h"
#include "peer_requests.h"
#include "taken.h"
#include "transport.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/log/kolog.h"

namespace VEXA::test {

// System calls that fail from now on; a number says how often each still does.
struct Faults {
    int accepts = 0;
    int sends = 0;
    int sockets = 0;
    bool isFull = false;  // no descriptor may be used for a connection
    int until = 0;        // so many more calls of those that a start makes; then one fails. 0: none does
};
inline Faults faults;
inline uint64_t randomNumbers = 0;  // drawn so far: endpoints decide things, so a history must have its own
inline int lastWait = 0;            // for which a reactor would have waited, as epoll_wait is told
inline int locksHeld = 0;

inline bool Fails(int& times, int reason)
{
    errno = times > 0 ? reason : errno;
    return times > 0 && times-- > 0;
}
inline bool FailsNow()
{
    int times = faults.until > 0 && --faults.until == 0 ? 1 : 0;
    return Fails(times, EMFILE);
}

}  // namespace VEXA::test

// These stand before the C library's.
extern "C" int accept4(int fd, sockaddr* address, socklen_t* size, int flags)
{
    using namespace VEXA::test;
    return Fails(faults.accepts, EMFILE) ? -1 : static_cast<int>(syscall(SYS_accept4, fd, address, size, flags));
}
extern "C" ssize_t send(int fd, const void* bytes, size_t size, int flags)
{
    using namespace VEXA::test;
    return Fails(faults.sends, ENOBUFS) ? -1 : syscall(SYS_sendto, fd, bytes, size, flags, nullptr, 0);
}
extern "C" int socket(int domain, int type, int protocol) noexcept
{
    using namespace VEXA::test;
    const bool fails = FailsNow() || Fails(faults.sockets, EMFILE);
    return fails ? -1 : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}
#define NM_STARTS_WITH(name, number, parameters, ...)                                        \
    extern "C" int name parameters noexcept                                                  \
    {                                                                                        \
        return VEXA::test::FailsNow() ? -1 : static_cast<int>(syscall(number, __VA_ARGS__)); \
    }
NM_STARTS_WITH(eventfd, SYS_eventfd2, (unsigned count, int flags), count, flags)
NM_STARTS_WITH(epoll_create1, SYS_epoll_create1, (int flags), flags)
NM_STARTS_WITH(epoll_ctl, SYS_epoll_ctl, (int set, int act, int fd, epoll_event* event), set, act, fd, event)
NM_STARTS_WITH(bind, SYS_bind, (int fd, const sockaddr* address, socklen_t size), fd, address, size)
NM_STARTS_WITH(listen, SYS_listen, (int fd, int most), fd, most)
NM_STARTS_WITH(rename, SYS_rename, (const char* from, const char* to), from, to)
// Any of the descriptors that are ready may come first.
extern "C" int epoll_wait(int set, epoll_event* events, int most, int wait)
{
    epoll_event ready[16];
    VEXA::test::lastWait = wait;
    const int count = static_cast<int>(syscall(SYS_epoll_pwait, set, ready, 16, 0, nullptr, 8));
    std::rotate(ready, ready + (count > 0 ? ++VEXA::test::randomNumbers % static_cast<uint64_t>(count) : 0),
        ready + std::max(count, 0));
    return std::copy_n(ready, std::min(count, most), events), std::min(count, most);
}
extern "C" ssize_t getrandom(void* bytes, size_t size, unsigned)
{
    const uint64_t next = ++VEXA::test::randomNumbers * 0x9E3779B97F4A7C15;
    const uint64_t mixed = (next ^ (next >> 29)) * 0xBF58476D1CE4E5B9;
    std::memcpy(bytes, &mixed, std::min(size, sizeof(mixed)));
    return static_cast<ssize_t>(std::min(size, sizeof(mixed)));
}
// A sanitizer calls this before it can be called itself.
#if __has_attribute(disable_sanitizer_instrumentation)
#define NM_EARLY \
    __attribute__((disable_sanitizer_instrumentation, no_sanitize("thread", "address", "undefined", "coverage")))
#else
#define NM_EARLY __attribute__((no_sanitize("thread", "address")))
#endif
extern "C" NM_EARLY int getrlimit(__rlimit_resource_t what, rlimit* limit) noexcept
{
    const int result = static_cast<int>(syscall(SYS_prlimit64, 0, what, nullptr, limit));
    limit->rlim_cur = VEXA::test::faults.isFull ? 1 : limit->rlim_cur;
    return result;
}
#ifndef VEXA_CHECK_LOCK_ORDER  // a sanitizer may have its own
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto next = reinterpret_cast<decltype(&pthread_mutex_lock)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return ++VEXA::test::locksHeld, next(mutex);
}
extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static const auto next =
        reinterpret_cast<decltype(&pthread_mutex_unlock)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    return --VEXA::test::locksHeld, next(mutex);
}
#endif

namespace VEXA::test {

class World {
public:
    // `draw` returns a number below the one it is called with.
    explicit World(std::function<size_t(size_t)> draw) : draw_(std::move(draw))
    {
        KoLogSetLevel(KOLOG_FATAL);  // deaths are logged
        randomNumbers = 0;
        for (size_t place = 0; place < now_.size(); ++place) {
            Begin(place);
        }
        descriptors_ = OpenDescriptors();
        blocks_ = LiveBlocks();
        Quiet(*now_[0]);
    }

    // The first thing that went wrong; empty while nothing has.
    const std::string& Failure() const { return failure_; }

    void Step()
    {
        // Weights of a thousand. Whatever else may happen between two steps gets a line here.
        static constexpr std::pair<size_t, void (World::*)(Life&)> kActs[] = {{330, &World::Deliver},
            {130, &World::RunTasks}, {20, &World::TellDeath}, {250, &World::SendRequest}, {60, &World::Drop},
            {94, &World::GoOnWithCall}, {44, &World::Meet}, {30, &World::WatchOrNot}, {10, &World::Stop},
            {10, &World::Tick}, {10, &World::Refuse}, {8, &World::Kill}, {4, &World::Quiet}};
        size_t left = draw_(1000);
        Life& at = *now_[draw_(3)];
        const auto* next = kActs;
        for (; left >= next->first; ++next) {
            left -= next->first;
        }
        const bool isDeath = next->second == &World::Kill;
        if (++step_ >= at.stoppedUntil ? mayDie_ || !isDeath : isDeath && mayDie_) {
            (this->*next->second)(at);
        }
    }

    // Goes on without deaths until every session has gathered what it may, its latest grants. From then on no more
    // memory is taken than is given back.
    void GoOnForLong()
    {
        mayDie_ = false;
        ptrdiff_t blocks = 0;
        for (const int steps : {120'000, 20'000}) {
            for (int left = steps; left > 0 && failure_.empty(); --left) {
                Step();
                if (left % 4000 == 1) {
                    LetGo();
                }
            }
            blocks = LiveBlocks() - blocks;
        }
        Check(blocks < 8, "memory is not given back");
        mayDie_ = true;
    }

    // Everybody lets go of everything, and dies; after a failure at once.
    void End()
    {
        LetGo();
        for (Life* life : now_) {
            for (const Life* other : now_) {
                const sptr<ipc::Peer> peer = life->Knows(*other);
                Check(
                    !failure_.empty() || !peer || peer->TellObjects().empty(), "an object that nobody holds is known");
            }
        }
        for (Life* life : now_) {
            Kill(*life);
        }
        Check(OpenDescriptors() == descriptors_, "a descriptor is lost");
        Check(LiveBlocks() - blocks_ < 16, "a process leaves memory behind");
    }

private:
    struct Stub;
    struct Watcher;
    using Clock = std::chrono::steady_clock;
    using Objects = std::map<size_t, sptr<IRemoteObject>>;  // each has a number in the world

    // One process from its start to its death, after which it has no transport.
    struct Life {
        size_t place;
        ipc::EndpointId id;
        std::map<size_t, Stub*> stubs{};  // those of its own objects that are not freed
        std::unique_ptr<ipc::Transport> transport;
        Objects held{};                 // its own objects and others'
        std::set<size_t> leftBehind{};  // counted as held: a process died that had said so and was yet to give it
        std::map<size_t, sptr<Watcher>> watchers{};  // of those that it holds
        std::map<const Life*, size_t> ahead{};       // sent to each since all was done there, as its window counts it
        uint64_t stoppedUntil = 0;

        ipc::PeerDirectory& Peers() const { return transport->Peers(); }
        sptr<ipc::Peer> Knows(const Life& other) const { return Peers().KnownPeer(other.id); }
        bool Counts(size_t object) const { return held.contains(object) || leftBehind.contains(object); }
    };
    struct Stub : IPCObjectStub {
        Stub(World& itsWorld, size_t itsNumber) : world(itsWorld), number(itsNumber) {}
        ~Stub() override
        {
            world.RunForeign();
            world.Home(number).stubs.erase(number);
        }
        int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& how) override
        {
            world.RunForeign();
            world.Arrive(number, code, data, how.IsOneWay() ? nullptr : &reply);
            return 0;
        }
        World& world;
        const size_t number;
    };
    struct Watcher : IRemoteObject::DeathRecipient {
        explicit Watcher(World& itsWorld) : world(itsWorld) {}
        void OnRemoteDied(const wptr<IRemoteObject>& of) override
        {
            world.RunForeign();
            const bool isDead = of.Promote() == nullptr || of.Promote()->IsObjectDead();
            world.Check(++told == 1 && isDead, "a recipient is told what is not so");
        }
        World& world;
        int told = 0;
    };
    // Something on its way to a living process: a one-way request, which the transport carries, or a frame on a
    // channel, which the world does.
    struct Sending {
        Life* from;
        Life* to;
        std::unique_ptr<MessageParcel> frame = std::make_unique<MessageParcel>();  // on a channel, else null
        ipc::FrameHeader header{};
        std::function<void()> hasArrived{};  // tells the sender; holds what the sender does until then
        std::vector<size_t> cargo{};
        size_t target = 0;     // of a one-way request
        uint32_t number = 0;   // of a one-way request; later ones have larger numbers
        bool mayWait = false;  // with its sender, until the receiver has room for it
    };

    void LetGo()
    {
        for (int round = 0; round < 2 && failure_.empty(); ++round) {
            Quiet(*now_[0]);
            for (Life* life : now_) {
                Objects().swap(life->held);
                life->watchers.clear();
            }
        }
    }

    void Check(bool holds, const char* what)
    {
        if (!holds && failure_.empty()) {
            failure_ = std::string(what) + ", step " + std::to_string(step_);
        }
    }

    // Is told when code runs that the transport does not know: it may take long, and may ask for anything.
    void RunForeign() { Check(!isReacting_ && locksHeld == 0, "the reactor or a lock is held up"); }

    // Without what the world itself takes for each object and each process.
    ptrdiff_t LiveBlocks() const { return liveBlocks - static_cast<ptrdiff_t>(names_.size() + lives_.size()); }

    void Begin(size_t place)
    {
        std::unique_ptr<ipc::Transport> transport;
        // At first something is lacking: any but the first, which it can do without.
        for (const int until : {static_cast<int>(2 + draw_(12)), 0}) {
            transport =
                std::make_unique<ipc::Transport>([](const char*, std::function<void()>) { return !FailsNow(); });
            faults.until = until;
            const bool hasStarted = transport->Start();
            Check(hasStarted ? until == 0 : until > 0 && errno == EMFILE, "a start is not what it says");
            if (hasStarted) {
                break;
            }
            unlink(ipc::EndpointPath(transport->Id()).c_str());
        }
        faults = {};
        transport->Loop().Turn();  // this thread is the reactor's
        now_[place] = &lives_.emplace_back(Life{place, transport->Id(), {}, std::move(transport)});
    }
    void Stop(Life& at) { at.stoppedUntil = step_ + draw_(150); }
    void Deliver(Life& at) { Turn(at, 1); }
    void Turn(Life& at, int most = ipc::Reactor::kBatch)
    {
        const ipc::Raised reacting(isReacting_);
        at.transport->Loop().Turn(true, most);
    }
    void RunTasks(Life& at) { at.transport->Workers().RunTasks(); }
    void TellDeath(Life& at) { at.transport->Deaths().TellOne(); }
    // Half of the time late enough for whoever waits for a greeting.
    void Tick(Life& at) { Tick(at, std::chrono::seconds(6 * draw_(2))); }
    void Tick(Life& at, std::chrono::seconds later)
    {
        const ipc::Raised reacting(isReacting_);
        at.transport->Loop().Tick(Clock::now() + later);
    }
    // It does something while it is out of descriptors or memory, or has as many connections as it may have.
    void Refuse(Life& at)
    {
        static constexpr Faults kKinds[] = {
            {1, 0, 0, false, 0}, {0, 5, 0, false, 0}, {0, 0, 1, false, 0}, {0, 0, 0, true, 0}};
        static constexpr void (World::*kActs[])(Life&) = {
            &World::Deliver, &World::Meet, &World::SendRequest, &World::Tick};
        faults = kKinds[draw_(4)];
        (this->*kActs[draw_(4)])(at);
        faults = {};
    }

    void Kill(Life& at)
    {
        for (const Life* other : now_) {
            const sptr<ipc::Peer> peer = at.Knows(*other);
            // A process that still has unsent frames is not killed: the world doesn't know what they say.
            if (peer && !peer->WaitLinkFlushed({})) {
                return;
            }
        }
        if (std::ranges::any_of(underWay_, [&](const Sending& each) { return each.from == &at && each.mayWait; })) {
            return;
        }
        // Its connections end, and it reaches nobody: what it would still say is not heard.
        const std::unique_ptr<ipc::Transport> transport = std::move(at.transport);
        const std::string directory = ipc::EndpointDirectory();
        const std::string away = directory + "-";
        rename(directory.c_str(), away.c_str());
        for (int turn = 0; turn < 24; ++turn) {
            transport->Loop().CutAll();
            transport->Loop().Turn();
        }
        rename(away.c_str(), directory.c_str());
        unlink(ipc::EndpointPath(at.id).c_str());
        std::erase_if(underWay_, [&](Sending& sending) {
            const bool isLost = sending.to == &at || (sending.from == &at && !sending.to->Knows(at));
            if (sending.from == &at) {
                sending.hasArrived = [] {};
            }
            if (isLost) {
                Lose(sending);
            }
            return isLost;
        });
        at.held.clear();
        at.watchers.clear();
        at.leftBehind.clear();
        at.ahead.clear();
        Begin(at.place);
    }

    Life& Home(size_t object) { return *homes_[object]; }
    static ipc::PeerObject& Proxy(const sptr<IRemoteObject>& object) { return static_cast<ipc::PeerObject&>(*object); }
    template <typename Map>
    auto Any(const Map& map)
    {
        return map.empty() ? map.end() : std::next(map.begin(), static_cast<ptrdiff_t>(draw_(map.size())));
    }
    // One of the objects that it holds, if that is another process's.
    const Objects::value_type* AnyOfOthers(Life& at)
    {
        const auto any = Any(at.held);
        return any != at.held.end() && &Home(any->first) != &at ? &*any : nullptr;
    }
    // One of its own, which is new half of the time.
    Objects::value_type AnyOwn(Life& at)
    {
        if (at.stubs.empty() || draw_(2) == 0) {
            homes_.push_back(&at);
            const sptr<Stub> made(new Stub(*this, homes_.size() - 1));
            at.stubs[made->number] = made.GetRefPtr();
            return {made->number, made};
        }
        const auto any = Any(at.stubs);
        return {any->first, sptr<IRemoteObject>(any->second)};
    }

    // Another process is handed an object without a frame. Both connect.
    void Meet(Life& at)
    {
        Life& other = *now_[(at.place + 1 + draw_(2)) % 3];
        at.Peers().PeerAt(other.id);
        const auto [number, object] = AnyOwn(at);
        const ipc::ObjectId id = at.Peers().AddHolder(object, other.id);
        Take(other, number, other.Peers().PeerAt(at.id)->Object(id));
    }
    void Take(Life& at, size_t number, const sptr<IRemoteObject>& object)
    {
        const bool isOwn = &Home(number) == &at;
        if (object && !isOwn) {
            const auto named = names_.try_emplace({Home(number).id, Proxy(object).Id()}, number).first;
            Check(named->second == number, "a number is used again");
        }
        sptr<IRemoteObject>& kept = at.held.try_emplace(number, object).first->second;
        Check(object && (!isOwn || object.GetRefPtr() == at.stubs[number]), "an object has come as another");
        if (kept != object && kept->IsObjectDead()) {
            at.watchers.erase(number);
            kept = object;
        }
        // A request waits in its queue, so one that has died may come to be read behind the next.
        Check(kept == object || object->IsObjectDead(), "an object has come as another while it lives");
    }
    void Drop(Life& at)
    {
        if (const auto any = Any(at.held); any != at.held.end()) {
            at.watchers.erase(any->first);
            at.held.extract(any);
        }
    }

    static bool CanTravel(ipc::Peer& owner)
    {
        return owner.Stands() ? faults.sends == 0 && owner.WaitLinkFlushed({}) : owner.Dead();
    }
    // Up to three objects, without those that could not travel at once.
    std::vector<size_t> Load(Life& at, MessageParcel& parcel)
    {
        std::vector<size_t> cargo;
        // Now and then more than the receiver's first window.
        parcel.WriteString(std::string(draw_(32) == 0 ? 1000 * draw_(100) : 0, 'x'));
        for (size_t left = draw_(4); left > 0; --left) {
            const auto* const held = draw_(3) > 0 ? AnyOfOthers(at) : nullptr;
            if (held == nullptr || CanTravel(*Proxy(held->second).Owner())) {
                const auto [number, object] = held != nullptr ? *held : AnyOwn(at);
                cargo.push_back(number);
                parcel.WriteUint64(number);
                parcel.WriteRemoteObject(object);
            }
        }
        return cargo;
    }
    void Unload(Life& at, MessageParcel& parcel)
    {
        parcel.ReadString();
        while (parcel.GetReadableBytes() > 0) {
            const uint64_t number = parcel.ReadUint64();
            Take(at, number, parcel.ReadRemoteObject());
        }
    }
    // The owner counts the receiver as a holder of the objects that a dead process was about to hand over.
    void Lose(const Sending& sending)
    {
        for (const size_t object : sending.cargo) {
            if (!sending.from->transport && sending.to->transport && &Home(object) != sending.to) {
                sending.to->leftBehind.insert(object);
            }
        }
    }

    void SendRequest(Life& at)
    {
        const auto* const target = AnyOfOthers(at);
        if (target == nullptr) {
            return;
        }
        const auto& [number, object] = *target;
        Sending sending{&at, &Home(number)};
        // A channel needs a key, for which its caller waits.
        const bool isDead = object->IsObjectDead();
        const bool isCall = sending.to->transport && !isDead && Proxy(object).Owner()->Stands() && draw_(3) == 0;
        sending.cargo = Load(at, *sending.frame);
        if (isCall) {
            const auto transfer = std::make_shared<ipc::ObjectTransfer>(at.Peers());
            sending.header = ipc::MakeHeader(ipc::FrameKind::REQUEST, Proxy(object).Id());
            sending.header.bytes = static_cast<uint32_t>(sending.frame->GetDataSize());
            Check(transfer->Pack(*sending.frame, *Proxy(object).Owner(), sending.header), "a request can't be sent");
            sending.hasArrived = [transfer, kept = object] { transfer->Commit(); };
            return SendFrame(std::move(sending));
        }
        MessageParcel reply;
        MessageOption option(MessageOption::TF_ASYNC);
        size_t& ahead = at.ahead[sending.to];
        ahead = Proxy(object).Owner()->Credit().IsWhole() ? 0 : ahead;
        const int32_t result = object->SendRequest(++number_, *sending.frame, reply, option);
        Check(result == (isDead ? IPC_CONNECTION_LOST : IPC_OK) || !sending.to->transport, "a request has another end");
        if (result == IPC_OK && sending.to->transport) {
            ahead += 1024 + sending.frame->GetDataSize();
            sending.mayWait = ahead > 65536;
            sending.frame.reset();
            sending.target = number;
            sending.number = number_;
            underWay_.push_back(std::move(sending));
        }
    }
    void Arrive(size_t object, uint32_t number, MessageParcel& data, MessageParcel* reply)
    {
        Unload(Home(object), data);
        if (reply != nullptr) {
            replyCargo_ = Load(Home(object), *reply);
            return;
        }
        const auto sent = std::ranges::find(underWay_, number, &Sending::number);
        if (sent == underWay_.end()) {
            return Check(false, "a request arrives twice");
        }
        const bool isNext = std::ranges::none_of(underWay_, [&](const Sending& other) {
            return other.from == sent->from && other.target == object && !other.frame && other.number < number;
        });
        Check(isNext, "a request arrives out of order");
        underWay_.erase(sent);
    }

    void SendFrame(Sending sending)
    {
        // Bytes travel, not objects.
        ParcelAccess::Objects(*sending.frame).clear();
        ParcelAccess::SetSize(*sending.frame, sending.header.bytes);
        underWay_.push_back(std::move(sending));
    }
    void GoOnWithCall(Life& to) { EndFrame(to, draw_(5) > 0); }
    // One of the frames that are on channels to it arrives or is lost.
    void EndFrame(Life& to, bool arrives)
    {
        // Channels have no order among themselves.
        const auto start = underWay_.begin() + static_cast<ptrdiff_t>(draw_(underWay_.size() + 1));
        std::rotate(underWay_.begin(), start, underWay_.end());
        const auto found = std::ranges::find_if(underWay_, [&](auto& each) { return each.to == &to && each.frame; });
        if (found == underWay_.end()) {
            return;
        }
        const Sending sending = std::move(*found);
        underWay_.erase(found);
        const sptr<ipc::Peer> sender = to.Knows(*sending.from);
        Check(sender || !sending.from->transport, "a living process is not known");
        if (!sender || !arrives) {
            return Lose(sending);
        }
        if (sending.header.kind == ipc::FrameKind::REPLY) {
            AwaitGrants(to.Peers(), *sending.frame, sending.header, *sender);
            Check(UnpackObjects(to.Peers(), *sending.frame, sending.header, sender).isSound, "a reply is refused");
            Unload(to, *sending.frame);
            return sending.hasArrived();
        }
        const auto serving = std::make_shared<ipc::PeerRequests>(to.Peers(), sender);
        Sending reply{&to, sending.from};
        Check(serving->Answer(*sending.frame, sending.header, *reply.frame), "a request is not answered");
        reply.header = ipc::HeaderOf(*reply.frame);
        Check(reply.header.code == 0, "a holder is refused");
        reply.cargo = std::move(replyCargo_);
        reply.hasArrived = [serving] { serving->OnLastReplyRead(); };
        sending.hasArrived();
        if (sending.from->transport) {
            SendFrame(std::move(reply));
        }
    }

    void WatchOrNot(Life& at)
    {
        const auto* const held = AnyOfOthers(at);
        if (held == nullptr) {
            return;
        }
        sptr<Watcher>& watcher = at.watchers[held->first];
        if (watcher == nullptr) {
            watcher = new Watcher(*this);
            Check(held->second->AddDeathRecipient(watcher), "a recipient is refused");
        } else {
            const bool isRemoved = held->second->RemoveDeathRecipient(watcher);
            Check(isRemoved == (watcher->told == 0), "a recipient that waits can't be removed");
            watcher->told = 1;
            watcher = nullptr;
        }
    }

    // All that is under way arrives; then all reach each other, and all books have to agree.
    void Quiet(Life&)
    {
        for (int rounds = 0; rounds < 32; ++rounds) {
            for (Life* life : now_) {
                for (const Life* other : now_) {
                    if (rounds == 12 && other != life) {
                        life->Peers().PeerAt(other->id);
                    }
                }
                life->stoppedUntil = 0;
                Turn(*life);
                Tick(*life, std::chrono::seconds(rounds < 6 ? 3 * rounds : 0));
                RunTasks(*life);
                while (life->transport->Deaths().TellOne()) {
                }
                for (size_t left = underWay_.size(); left > 0; --left) {
                    EndFrame(*life, true);
                }
            }
        }
        Check(underWay_.empty(), "a request does not arrive");
        const ptrdiff_t descriptors = OpenDescriptors();
        Check(std::exchange(whenQuiet_, descriptors) == descriptors || step_ == 0, "descriptors are lost");
        for (Life* life : now_) {
            Turn(*life);
            Check(lastWait == -1, "a process is woken for nothing");
            CheckTable(*life);
            CheckPeers(*life);
        }
    }
    void CheckTable(Life& at)
    {
        size_t out = 0;
        for (const auto& [number, stub] : at.stubs) {
            size_t holders = 0;
            ipc::ObjectId id = 0;
            for (Life* other : now_) {
                holders += other != &at && other->Counts(number) ? 1 : 0;
                id = other != &at && other->held.contains(number) ? Proxy(other->held[number]).Id() : id;
            }
            for (const Life* other : now_) {
                const bool isCounted = id != 0 && at.transport->Objects().Find(id, other->id);
                Check(id == 0 || isCounted == (other != &at && other->Counts(number)), "others are counted than hold");
            }
            out += holders > 0 ? 1 : 0;
            Check(holders > 0 || at.held.contains(number), "an object that nobody holds stays");
        }
        Check(at.transport->Objects().Size() == out, "an object that nobody holds is in the table");
    }
    void CheckPeers(Life& at)
    {
        for (const Life* other : now_) {
            const sptr<ipc::Peer> peer = other != &at ? at.Peers().PeerAt(other->id) : nullptr;
            Check(!peer || peer->Stands(), "a living process stays deaf");
            Check(!peer || peer->Credit().IsWhole(), "credit is lost");
        }
        for (const auto& [number, object] : at.held) {
            const bool isAlive = Home(number).transport != nullptr;
            Check(!isAlive || Home(number).stubs.contains(number), "an object that is held is freed");
            const sptr<Watcher>& watcher = at.watchers[number];
            Check(!watcher || watcher->told == (object->IsObjectDead() ? 1 : 0), "a recipient is not told");
            Check(isAlive || object->IsObjectDead(), "a dead process's object lives");
        }
    }

    const std::function<size_t(size_t)> draw_;
    std::string failure_;
    uint64_t step_ = 0;
    uint32_t number_ = 0;
    bool isReacting_ = false;  // one of the reactors
    bool mayDie_ = true;
    std::array<Life*, 3> now_{};
    std::vector<Life*> homes_;  // by objects
    std::map<std::pair<ipc::EndpointId, ipc::ObjectId>, size_t> names_;
    ptrdiff_t descriptors_ = 0;  // open at first
    ptrdiff_t whenQuiet_ = 0;    // open when all are connected
    ptrdiff_t blocks_ = 0;       // live at first
    std::deque<Life> lives_;
    std::vector<Sending> underWay_;
    std::vector<size_t> replyCargo_;
};

}  // namespace VEXA::test
