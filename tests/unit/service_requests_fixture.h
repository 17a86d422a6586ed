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
        engine->Stop();
        hub->Close();
    }
    EngineListener& Listener() override { return *hub; }
    void Run(uint64_t bytesPerSecond = 0)
    {
        Open(bytesPerSecond);
        hub->Attach(engine);
        std::promise<RequestParts> parts;
        parts.set_value({engine, engine, engine, hub});
        stub = sptr<MigrateServerStub>(new MigrateServerStub(parts.get_future(), CONTROL_GROUP));
        engine->Start();
    }

    // The transport's result; the texts of the reply are in `replies`, a leading int64 in `number`.
    template <typename... Fields>
    int32_t Ask(Code code, const Fields&... fields)
    {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInterfaceToken(token);
        (VEXA::test::PutField{data}(fields), ...);
        const int32_t result = ipc::CarryOut(*stub, static_cast<uint32_t>(code), data, reply, option, caller);
        number = code == Code::GET_MIGRATION_DATA_SIZE && result == 0 ? reply.ReadInt64() : -1;
        replies.clear();
        while (reply.GetReadableBytes() > 0) {
            replies.push_back(reply.ReadString());
        }
        return result;
    }
    // The first text of the reply.
    template <typename... Fields>
    std::string TextOf(Code code, const Fields&... fields)
    {
        EXPECT_EQ(Ask(code, fields...), 0);
        return replies.empty() ? "no text" : replies[0];
    }
    template <typename Record, typename... Fields>
    Record RecordOf(Code code, const Fields&... fields)
    {
        Record record{};
        EXPECT_EQ(JsonParse::JsonStrToStruct(TextOf(code, fields...), record), JsonError::SUCCESS);
        return record;
    }
    // The number of the error record that ends the reply.
    template <typename... Fields>
    int32_t ErrorOf(Code code, const Fields&... fields)
    {
        TextOf(code, fields...);
        BusinessError error;
        EXPECT_EQ(JsonParse::JsonStrToStruct(replies.empty() ? "" : replies.back(), error), JsonError::SUCCESS);
        return error.errorNum;
    }

    const std::shared_ptr<CallbackHub> hub = std::make_shared<CallbackHub>();
    sptr<MigrateServerStub> stub;
    ipc::Caller caller{{getpid(), geteuid(), getegid()}, 1, {}};
    std::u16string token = MIGRATE_SERVER_DESCRIPTOR;
    std::vector<std::string> replies;
    int64_t number = -1;
};

}  // namespace VEXA::UpdateEngine::test
