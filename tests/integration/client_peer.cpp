// SPDX-License-Identifier: Apache-2.0
//   client_peer ID [FILE]   serves ID until its manager has gone; appends a line with ID to FILE when it starts
//
// A migration service without a migration. The error number of StartMigrate's answer is the process id, and each
// StartMigrate sends one event to the callback that is registered.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "client_peer.h"
#include "native_migrate/migrate_protocol.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

class PeerService : public IPCObjectStub {
public:
    PeerService() : IPCObjectStub(MIGRATE_SERVER_DESCRIPTOR) {}

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        if (code >= PEER_PID) {
            return OnTestRequest(code, data, reply);
        }
        if (data.ReadInterfaceToken() != MIGRATE_SERVER_DESCRIPTOR) {
            return MIGRATE_UNREACHABLE;
        }
        switch (static_cast<MigrateRequestCode>(code)) {
            case MigrateRequestCode::START_MIGRATE:
                return StartMigrate(reply);
            case MigrateRequestCode::REGISTER_PROGRESS_CALLBACK:
                return SetCallback(data.ReadRemoteObject());
            case MigrateRequestCode::UNREGISTER_PROGRESS_CALLBACK:
                return SetCallback(nullptr);
            case MigrateRequestCode::REGISTER_RESERVE_OBSERVER: {
                const std::string caller = data.ReadString();
                sptr<IRemoteObject> observer = data.ReadRemoteObject();
                MutexLock lock(mutex_);
                observers_[caller].Swap(observer);
                return reply.WriteString("{}") ? 0 : 1;
            }
            default:
                return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
        }
    }

private:
    int32_t OnTestRequest(uint32_t code, MessageParcel& data, MessageParcel& reply)
    {
        MutexLock lock(mutex_);
        switch (code) {
            case PEER_PID:
                return reply.WriteInt32(getpid()) ? 0 : 1;
            case PEER_ANSWER:
                answer_ = data.ReadInt32();
                answerChanged_.NotifyAll();
                return 0;
            case PEER_ENTERED:
                return reply.WriteInt32(entered_) ? 0 : 1;
            case PEER_REGISTRATIONS:
                return reply.WriteInt32(registrations_) ? 0 : 1;
            case PEER_GIVE_CALLBACK:
                return callback_ == nullptr || reply.WriteRemoteObject(callback_) ? 0 : 1;
            default:
                return 1;
        }
    }

    int32_t StartMigrate(MessageParcel& reply)
    {
        sptr<IRemoteObject> callback;
        int32_t answer = 0;
        {
            MutexLock lock(mutex_);
            ++entered_;
            const auto answers = [this]() VEXA_NO_THREAD_SAFETY_ANALYSIS { return answer_ != PEER_HANGS; };
            answerChanged_.WaitFor(mutex_, std::chrono::seconds(60), answers);
            callback = callback_;
            answer = answer_;
        }
        if (callback != nullptr) {
            MessageParcel event;
            MessageParcel nothing;
            MessageOption option;
            event.WriteInterfaceToken(MIGRATE_CALLBACK_DESCRIPTOR);
            event.WriteUint32(1);
            event.WriteString("{}");
            callback->SendRequest(MIGRATE_PROGRESS_CODE, event, nothing, option);
        }
        reply.WriteString("{\"message\":\"\",\"errorNum\":" + std::to_string(getpid()) + ",\"data\":[]}");
        return answer;
    }

    int32_t SetCallback(sptr<IRemoteObject> callback)
    {
        MutexLock lock(mutex_);
        registrations_ += callback != nullptr ? 1 : 0;
        callback_.Swap(callback);
        return 0;
    }

    Mutex mutex_;
    CondVar answerChanged_;
    int32_t answer_ VEXA_GUARDED_BY(mutex_) = 0;
    int32_t entered_ VEXA_GUARDED_BY(mutex_) = 0;
    int32_t registrations_ VEXA_GUARDED_BY(mutex_) = 0;
    sptr<IRemoteObject> callback_ VEXA_GUARDED_BY(mutex_);
    std::map<std::string, sptr<IRemoteObject>> observers_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace

int main(int argc, char** argv)
{
    const pid_t parent = getppid();
    if (argc < 2) {
        return 1;
    }
    if (argc > 2) {
        std::ofstream(argv[2], std::ios::app) << argv[1] << std::endl;
    }
    // On a machine under load the manager may take its time.
    sptr<ISystemAbilityManager> manager;
    for (int attempt = 0; manager == nullptr && attempt < 10; ++attempt) {
        manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    }
    const sptr<IRemoteObject> service(new PeerService);
    if (manager == nullptr || manager->AddSystemAbility(std::atoi(argv[1]), service) != SAMGR_OK) {
        return 1;
    }
    while (getppid() == parent) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    _exit(0);
}
