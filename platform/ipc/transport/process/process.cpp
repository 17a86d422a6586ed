// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foreign_code.h"
#include "ipc_log.h"
#include "process_life.h"
#include "runtime_paths.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::ipc {

IpcProcess& IpcProcess::Get()
{
    static IpcProcess* const process = new IpcProcess;
    return *process;
}

Transport* IpcProcess::Start()
{
    if (Transport* const running = Running()) {
        return running;
    }
    MutexLock lock(mutex_);
    if (Transport* const running = Running()) {
        return running;
    }
    ProcessLife::Watch();
    auto transport = std::make_unique<Transport>(&StartThread);
    if (!transport->Start()) {
        if (!hasWarned_) {
            IPC_LOGE("can't start in %{public}s: %{public}s", RuntimeDirectory().c_str(), std::strerror(errno));
        }
        hasWarned_ = true;
        return nullptr;
    }
    // Without room for the handler only the socket's file stays, which the publisher of the context object removes.
    (void)std::atexit(&AtExit);
    running_ = transport.release();
    Running()->Workers().SetLimit(maxWorkThreads_);
    return Running();
}

// A process that leaves runs no more requests, whose code may need what is being destroyed. It takes its socket along
// and ends its connections, which is its death for all others, however long the rest of its exit takes.
void IpcProcess::AtExit()
{
    if (!ProcessLife::Forked()) {
        ProcessLife::Leave();
        RunForeign("leaving", [] { Get().Running()->Leave(); });
    }
}

sptr<Peer> IpcProcess::ContextPeer()
{
    if (Running() == nullptr && access(ContextSocketPath().c_str(), F_OK) != 0) {
        LogNoPublisher();
        return nullptr;
    }
    Transport* const transport = Start();
    return transport != nullptr ? transport->Context().Reach() : nullptr;
}

PublishResult IpcProcess::PublishContext(const sptr<IRemoteObject>& object, std::function<void()> onReplaced)
{
    Transport* const transport = object != nullptr && CreateRuntimeDirectory() ? Start() : nullptr;
    return transport != nullptr ? transport->Publish(object, std::move(onReplaced)) : PublishResult::FAILED;
}

void IpcProcess::SetMaxWorkThreads(size_t count)
{
    // A child of fork may call this too, so it takes no lock. Of this and the start, the later one sees the other.
    maxWorkThreads_ = count;
    if (Transport* const running = Running()) {
        running->Workers().SetLimit(count);
    }
}

}  // namespace VEXA::ipc
