// SPDX-License-Identifier: Apache-2.0
// The service's side of the migration service's remote interface.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "callback_hub.h"
#include "mailbox.h"
#include "migration_engine.h"
#include "native_migrate/imigrate_server.h"
#include "vexa/ipc/iremote_stub.h"

namespace VEXA::UpdateEngine {

// Reads requests, hands them to the engine or the hub, and writes the replies. A request whose fields are not all there
// or hold what they must not is answered with MIGRATE_BAD_ARGUMENT. No handler waits for copying or for a client.
class MigrateServerStub : public IRemoteStub<IMigrateServer> {
public:
    MigrateServerStub(std::shared_ptr<MigrationEngine> engine, std::shared_ptr<CallbackHub> hub);
    ~MigrateServerStub() override;

    // 0; a service's result plus MIGRATE_RESULT_OFFSET; MIGRATE_UNREACHABLE for a wrong interface token; for a code
    // that is none of the interface's what the runtime's default handler says.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    // For a caller in this process.
    int32_t SendRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply) override;

private:
    // Returns the service's result.
    using Handler = int32_t (MigrateServerStub::*)(MessageParcel& data, MessageParcel& reply);
    static Handler FindHandler(uint32_t code);

    int32_t GetMigrateStatus(MessageParcel& data, MessageParcel& reply);
    int32_t GetMigrateInfo(MessageParcel& data, MessageParcel& reply);
    int32_t GetPakMigrateInfo(MessageParcel& data, MessageParcel& reply);
    int32_t GetApkInfo(MessageParcel& data, MessageParcel& reply);
    int32_t StartMigrate(MessageParcel& data, MessageParcel& reply);
    int32_t StartPakMigrate(MessageParcel& data, MessageParcel& reply);
    int32_t RemoveMigrate(MessageParcel& data, MessageParcel& reply);
    int32_t RemovePakMigrate(MessageParcel& data, MessageParcel& reply);
    int32_t RegisterProgress(MessageParcel& data, MessageParcel& reply);
    int32_t UnregisterProgress(MessageParcel& data, MessageParcel& reply);
    int32_t SetMigratePolicy(MessageParcel& data, MessageParcel& reply);
    int32_t CheckAppRestore(MessageParcel& data, MessageParcel& reply);
    int32_t PresetData(MessageParcel& data, MessageParcel& reply);
    int32_t GetMigrateResult(MessageParcel& data, MessageParcel& reply);
    int32_t GetMigrationUsers(MessageParcel& data, MessageParcel& reply);
    int32_t GetModuleMigrationPolicy(MessageParcel& data, MessageParcel& reply);
    int32_t ResumeMigration(MessageParcel& data, MessageParcel& reply);
    int32_t NotifyEmporionCoreEvent(MessageParcel& data, MessageParcel& reply);
    int32_t StartPakMigration(MessageParcel& data, MessageParcel& reply);
    int32_t GetPakMigrationTaskStatus(MessageParcel& data, MessageParcel& reply);
    int32_t GetMigrationDataSize(MessageParcel& data, MessageParcel& reply);
    int32_t SetBackupFileOwn(MessageParcel& data, MessageParcel& reply);

    int32_t GetRestoreAppInfos(MessageParcel& data, MessageParcel& reply);
    int32_t RestoreApp(MessageParcel& data, MessageParcel& reply);
    int32_t RegisterObserver(MessageParcel& data, MessageParcel& reply);
    int32_t UnregisterObserver(MessageParcel& data, MessageParcel& reply);
    int32_t ClearApp(MessageParcel& data, MessageParcel& reply);
    int32_t ClearAllVirtualData(MessageParcel& data, MessageParcel& reply);
    int32_t GetRestoreAppStatus(MessageParcel& data, MessageParcel& reply);
    int32_t AdjustAppPriority(MessageParcel& data, MessageParcel& reply);

    const std::shared_ptr<MigrationEngine> engine_;
    const std::shared_ptr<CallbackHub> hub_;
    // What takes longer than a request may.
    Mailbox<std::function<void()>> jobs_;
};

}  // namespace VEXA::UpdateEngine
