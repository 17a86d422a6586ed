// SPDX-License-Identifier: Apache-2.0
// The service's stub in this process, asked as a client asks it.
#pragma once

#include <unistd.h>

#include "call_context.h"
#include "callback_hub.h"
#include "json_parse.h"
#include "migrate_server_stub.h"
#include "service_fixture.h"
#include "support/requests.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine::test {

inline constexpr gid_t CONTROL_GROUP = 4242;

class RequestsTest : public EngineTest {
protected:
    using Code = MigrateRequestCode;

    void TearDown() override
    {
        if (engine != nullptr) {
            engine->Stop();
        }
        hub->Close();
        EngineTest::TearDown();
    }
    EngineListener& Listener() override { return *hub; }
    void Run(uint64_t bytesPerSecond = 0, bool works = true, bool sync = false)
    {
        stub = nullptr;
        Open(bytesPerSecond, sync);
        hub->Attach(engine);
        std::promise<RequestParts> parts;
        parts.set_value({engine, engine, engine, hub});
        stub = sptr<MigrateServerStub>(new MigrateServerStub(parts.get_future(), CONTROL_GROUP));
        if (works) {
            engine->Start();
        }
    }

    // The transport's result; the texts of the reply are in `replies`, a leading int64 in `number`.
    template <typename... Fields>
    int32_t Ask(Code code, const Fields&... fields)
    {
        MessageParcel data;
        data.WriteInterfaceToken(token);
        (VEXA::test::PutField{data}(fields), ...);
        return Send(code, data);
    }
    int32_t Send(Code code, MessageParcel& data)
    {
        MessageParcel reply;
        MessageOption option;
        const int32_t result = ipc::CarryOut(*stub, static_cast<uint32_t>(code), data, reply, option, caller);
        number = code == Code::GET_MIGRATION_DATA_SIZE && result == 0 ? reply.ReadInt64() : -1;
        replies.clear();
        while (reply.GetReadableBytes() > 0) {
            replies.push_back(reply.ReadString());
        }
        return result;
    }
    const std::shared_ptr<CallbackHub> hub = std::make_shared<CallbackHub>();
    sptr<MigrateServerStub> stub;
    ipc::Caller caller{{getpid(), geteuid(), getegid()}, 1, {}};
    std::u16string token = MIGRATE_SERVER_DESCRIPTOR;
    std::vector<std::string> replies;
    int64_t number = -1;
};

}  // namespace VEXA::UpdateEngine::test
