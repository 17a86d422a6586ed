// SPDX-License-Identifier: Apache-2.0
// The service's stub in this process, asked as a client asks it.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "callback_hub.h"
#include "json_parse.h"
#include "migrate_server_stub.h"
#include "service_fixture.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine::test {

class RequestsTest : public testing::Test {
protected:
    using Code = MigrateRequestCode;

    void SetUp() override
    {
        hub = std::make_shared<CallbackHub>([this](MigrateStage& stage, MigrateProgress& progress) {
            if (engine != nullptr) {
                engine->GetProgress(stage, progress);
            }
        });
    }
    void TearDown() override
    {
        if (engine != nullptr) {
            engine->Stop();
        }
        hub->Close();
    }
    void Run(uint64_t bytesPerSecond = 0)
    {
        std::string error;
        engine = MigrationEngine::Open({folders.Source(), folders.Target(), "", bytesPerSecond}, *hub, error);
        ASSERT_NE(engine, nullptr) << error;
        stub = sptr<MigrateServerStub>(new MigrateServerStub(engine, hub));
        engine->Start();
    }

    static void Put(MessageParcel& data, bool value) { data.WriteBool(value); }
    static void Put(MessageParcel& data, int32_t value) { data.WriteInt32(value); }
    static void Put(MessageParcel& data, uint32_t value) { data.WriteUint32(value); }
    static void Put(MessageParcel& data, const char* value) { data.WriteString(value); }
    static void Put(MessageParcel& data, const sptr<IRemoteObject>& value) { data.WriteRemoteObject(value); }
    static void Put(MessageParcel& data, const AAFwk::Want& value) { data.WriteParcelable(&value); }

    // The transport's result; the texts of the reply are in `replies`, a leading int64 in `number`.
    template <typename... Fields>
    int32_t Ask(Code code, const Fields&... fields)
    {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInterfaceToken(MIGRATE_SERVER_DESCRIPTOR);
        (Put(data, fields), ...);
        const int32_t result = stub->OnRemoteRequest(static_cast<uint32_t>(code), data, reply, option);
        if (code == Code::GET_MIGRATION_DATA_SIZE && result == 0) {
            number = reply.ReadInt64();
        }
        replies.clear();
        while (reply.GetReadableBytes() > 0) {
            replies.push_back(reply.ReadString());
        }
        return result;
    }
    // The error record that ends the reply.
    BusinessError Error() const
    {
        BusinessError error;
        EXPECT_FALSE(replies.empty());
        EXPECT_EQ(JsonParse::JsonStrToStruct(replies.empty() ? "" : replies.back(), error), JsonError::SUCCESS);
        return error;
    }
    bool Ends()
    {
        return Eventually([this] {
            MigrateStatus status;
            Ask(Code::GET_MIGRATE_STATUS, 0U);
            return JsonParse::JsonStrToStruct(replies.at(0), status) == JsonError::SUCCESS && status.status >= 3;
        });
    }

    Folders folders;
    std::shared_ptr<CallbackHub> hub;
    std::shared_ptr<MigrationEngine> engine;
    sptr<MigrateServerStub> stub;
    std::vector<std::string> replies;
    int64_t number = -1;
};

}  // namespace VEXA::UpdateEngine::test
