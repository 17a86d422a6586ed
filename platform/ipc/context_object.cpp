// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/context_object.h"

#include <utility>

#include "context_link.h"
#include "process.h"
#include "process_life.h"

namespace VEXA {

sptr<IRemoteObject> GetContextObject()
{
    if (ipc::ProcessLife::Forked() || ipc::ProcessLife::Exiting()) {
        return nullptr;
    }
    const NoCancel guard;
    ipc::t_noPublisher = 0;
    ipc::IpcProcess& process = ipc::IpcProcess::Get();
    if (ipc::Transport* const own = process.Running()) {
        if (sptr<IRemoteObject> object = own->Objects().Find(ipc::kContextObject, own->Id())) {
            return object;
        }
    }
    const sptr<ipc::Peer> peer = process.ContextPeer();
    return peer != nullptr ? peer->Object(ipc::kContextObject) : nullptr;
}

std::string ContextObjectFailure()
{
    return ipc::t_noPublisher != 0 ? ipc::NoPublisherText(ipc::t_noPublisher) : "";
}

PublishResult PublishContextObject(const sptr<IRemoteObject>& object, std::function<void()> onReplaced)
{
    const NoCancel guard;
    return ipc::ProcessLife::Forked() ? PublishResult::FAILED
                                      : ipc::IpcProcess::Get().PublishContext(object, std::move(onReplaced));
}

void OnContextObjectPublished(std::function<void()> action)
{
    if (ipc::ProcessLife::Forked()) {
        return;
    }
    const NoCancel guard;
    if (ipc::Transport* const transport = ipc::IpcProcess::Get().Start()) {
        transport->Watch().OnNewContext(std::move(action));
    }
}

}  // namespace VEXA
