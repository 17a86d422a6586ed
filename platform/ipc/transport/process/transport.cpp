// SPDX-License-Identifier: Apache-2.0
#include "transport.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "peer_requests.h"
#include "remote_proxy.h"
#include "runtime_paths.h"

namespace VEXA::ipc {
namespace {

size_t DescriptorLimit()
{
    rlimit limit{};
    const bool isKnown = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
    return isKnown ? static_cast<size_t>(limit.rlim_cur) : SIZE_MAX;
}

}  // namespace

Transport::Transport(const ThreadStarter& startThread)
    : id_(RandomNumber()),
      reactor_(startThread),
      bytes_(workers_),
      workers_(startThread),
      deaths_(startThread),
      connections_(&DescriptorLimit, [this] { peers_.AskToCloseIdle(); }),
      channels_(workers_, reactor_, bytes_),
      oneWays_(workers_),
      endpoint_(EndpointPath(id_), reactor_, connections_, [this](Connection one) { Accept(std::move(one)); }),
      peers_(DirectoryParts()),
      sessions_{peers_, oneWays_,
          [this](const GiveUpConnection& giveUp, const sptr<Peer>& peer, const FrameReader& reader) {
              channels_.Adopt(giveUp, std::make_unique<PeerRequests>(peers_, peer), reader);
          }},
      contextLink_(endpoint_,
          [this](Connection connection, const std::shared_ptr<Greeting>& greeting) -> sptr<Link> {
              const sptr<Link> link(new Session(sessions_, std::move(connection), nullptr, greeting));
              if (!reactor_.Add(link)) {
                  return nullptr;
              }
              const HelloFrame hello = MakeHello(FrameKind::HELLO, ConnectionUse::LINK, id_);
              link->Send(&hello, sizeof(hello));
              return link;
          }),
      contextSocket_(ContextSocketPath(), reactor_, connections_, [this](Connection one) { Accept(std::move(one)); }),
      publisher_(contextSocket_),
      // Only a publisher makes the directory; a process without one waits until the directory is there.
      watch_(reactor_, workers_, contextLink_, EndpointPath(id_), [this] {
          return publisher_.Renew() && access(EndpointDirectory().c_str(), F_OK) == 0 && endpoint_.Provide();
      })
{
    // Closing a channel can end objects, whose code must not hold up the reactor.
    reactor_.SetTickAction([this](Deadline now) {
        peers_.OnTick(now);
        workers_.Post([this, now] {
            channels_.CloseStalled(now);
            watch_.Look();
        });
    });
}

void Transport::Accept(Connection connection)
{
    const sptr<Link> link(new Session(sessions_, std::move(connection)));
    reactor_.Add(link);
}

PeerDirectory::Parts Transport::DirectoryParts()
{
    return {id_, objects_, reactor_, workers_, connections_, bytes_, deaths_,
        [this](const sptr<Peer>& owner, ObjectId id) -> sptr<PeerObject> {
            return sptr<RemoteProxy>::MakeSptr(peers_, owner, id);
        },
        [this](Connection connection, const sptr<Peer>& peer) -> sptr<Link> {
            return new Session(sessions_, std::move(connection), peer);
        },
        [this](EndpointId dead) { OnDeath(dead); }};
}

bool Transport::Start()
{
    watch_.Reserve();
    if (!workers_.Open() || !reactor_.Open() || !endpoint_.Provide()) {
        return false;
    }
    if (deaths_.Start() && reactor_.Start()) {
        watch_.Start();
        return true;
    }
    const int reason = errno;
    deaths_.Stop();
    endpoint_.Remove();
    errno = reason;
    return false;
}

void Transport::Leave()
{
    endpoint_.Remove();
    publisher_.Withdraw();
}

PublishResult Transport::Publish(const sptr<IRemoteObject>& object, std::function<void()> onReplaced)
{
    objects_.SetContextObject(object);
    const PublishResult result = publisher_.Publish(std::move(onReplaced));
    if (result == PublishResult::DONE) {
        isPublishing_ = true;
        RemoveStaleEndpoints();
    }
    return result;
}

void Transport::OnDeath(EndpointId dead)
{
    oneWays_.Trim(dead);
    if (contextLink_.Lose(dead)) {
        workers_.Post([this] { watch_.Look(); });
    }
    // The publisher of the context object clears away the socket that a killed process has left.
    if (isPublishing_) {
        RemoveIfStale(EndpointPath(dead));
    }
}

}  // namespace VEXA::ipc
