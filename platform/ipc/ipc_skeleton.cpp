// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/ipc_skeleton.h"

#include <unistd.h>

#include "call_context.h"
#include "process.h"
#include "process_life.h"

namespace VEXA {

pid_t IPCSkeleton::GetCallingPid()
{
    const ipc::Credentials* const caller = ipc::CurrentCaller();
    return caller != nullptr ? caller->pid : getpid();
}

uid_t IPCSkeleton::GetCallingUid()
{
    const ipc::Credentials* const caller = ipc::CurrentCaller();
    return caller != nullptr ? caller->uid : geteuid();
}

bool IPCSkeleton::IsForkedChild()
{
    return ipc::ProcessLife::Forked();
}

void IPCSkeleton::SetMaxWorkThreads(size_t count)
{
    ipc::IpcProcess::Get().SetMaxWorkThreads(count);
}

}  // namespace VEXA
