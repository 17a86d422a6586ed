// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/ipc_skeleton.h"

#include <unistd.h>

#include <algorithm>

#include "call_context.h"
#include "peer_log.h"
#include "process.h"
#include "process_life.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA {

pid_t IPCSkeleton::GetCallingPid()
{
    const ipc::Caller* const caller = ipc::CurrentCaller();
    return caller != nullptr ? caller->pid : getpid();
}

uid_t IPCSkeleton::GetCallingUid()
{
    const ipc::Caller* const caller = ipc::CurrentCaller();
    return caller != nullptr ? caller->uid : geteuid();
}

bool IPCSkeleton::IsCallerInGroup(gid_t group)
{
    if (const ipc::Caller* const caller = ipc::CurrentCaller()) {
        return std::ranges::find(caller->groups, group) != caller->groups.end();
    }
    return group == getegid() || group_member(group) != 0;
}

uint64_t IPCSkeleton::GetCallingEndpoint()
{
    if (const ipc::Caller* const caller = ipc::CurrentCaller()) {
        return caller->endpoint;
    }
    const ipc::Transport* const own = ipc::IpcProcess::Get().Running();
    return own != nullptr ? own->Id() : 0;
}

bool IPCSkeleton::MayLogCaller()
{
    return ipc::MayLogOf(ipc::CurrentCaller());
}

bool IPCSkeleton::IsForkedChild()
{
    return ipc::ProcessLife::Forked();
}

bool IPCSkeleton::AwaitProcess(const sptr<IRemoteObject>& object, std::chrono::steady_clock::time_point deadline)
{
    if (object == nullptr || object->IsObjectDead()) {
        return false;
    }
    const auto* const remote = dynamic_cast<const ipc::PeerObject*>(object.GetRefPtr());
    ipc::ChannelKey key;
    const WorkerWait wait;
    return remote == nullptr || remote->Owner()->WaitForKey(deadline, remote->Generation(), key);
}

void IPCSkeleton::SetMaxWorkThreads(size_t count)
{
    ipc::IpcProcess::Get().SetMaxWorkThreads(count);
}

}  // namespace VEXA
