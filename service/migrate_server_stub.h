// SPDX-License-Identifier: Apache-2.0
// The service's side of the migration service's remote interface.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <tuple>

#include "callback_hub.h"
#include "mailbox.h"
#include "migration_engine.h"
#include "native_migrate/imigrate_server.h"
#include "request_fields.h"
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
    // Answers a request behind its token; returns the service's result.
    using Handler = std::function<int32_t(MessageParcel& data, MessageParcel& reply)>;

    // Adds a request with fields of these types. `act` gets the reply and the fields, and returns the service's result.
    template <typename... Fields, typename Act>
    void On(MigrateRequestCode code, Act act)
    {
        handlers_[code] = [act](MessageParcel& data, MessageParcel& reply) {
            std::tuple<Fields...> fields{};
            return std::apply(
                [&](auto&... field) {
                    return ReadFields(data, field...) ? act(reply, field...) : MIGRATE_BAD_ARGUMENT;
                },
                fields);
        };
    }
    // Adds a request without fields that is answered with what `query` finds, and its error.
    template <typename Found>
    void OnQuery(MigrateRequestCode code, BusinessError (MigrationEngine::*query)(Found&) const);
    void AddQueries();
    void AddCommands();
    void AddCallbacks();
    void AddReserveRequests();

    std::map<MigrateRequestCode, Handler> handlers_;  // complete when the constructor ends
    const std::shared_ptr<MigrationEngine> engine_;
    const std::shared_ptr<CallbackHub> hub_;
    // What takes longer than a request may.
    Mailbox<std::function<void()>> jobs_;
};

}  // namespace VEXA::UpdateEngine
