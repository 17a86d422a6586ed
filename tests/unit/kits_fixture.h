// SPDX-License-Identifier: Apache-2.0
// A migration service that does what a test says, at a manager in this process; and the fields of a parcel as data,
// written and read one by one as the other side does.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

#include "native_migrate/migrate_protocol.h"
#include "vexa/testing/in_process_manager.h"
#include "vexa/testing/recording_log_sink.h"
#include "vexa/testing/refusing_parcels.h"
#include "vexa/testing/scripted_remote_object.h"
#include "vexa/testing/unreachable_manager.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

// Some remote object, not null; a Want of that action. Both are only read.
struct AnObject {};
struct WantOf {
    std::string action;
};
using Field = std::variant<uint32_t, int32_t, bool, int64_t, std::string, AnObject, WantOf>;
using Fields = std::vector<Field>;

struct FieldWriter {
    MessageParcel& parcel;
    void operator()(uint32_t value) const { parcel.WriteUint32(value); }
    void operator()(int32_t value) const { parcel.WriteInt32(value); }
    void operator()(int64_t value) const { parcel.WriteInt64(value); }
    void operator()(const std::string& value) const { parcel.WriteString(value); }
    template <typename T>
    void operator()(const T&) const
    {
        FAIL() << "only read";
    }
};

struct FieldReader {
    MessageParcel& parcel;
    void operator()(uint32_t value) const { EXPECT_EQ(parcel.ReadUint32(), value); }
    void operator()(int32_t value) const { EXPECT_EQ(parcel.ReadInt32(), value); }
    void operator()(bool value) const { EXPECT_EQ(parcel.ReadBool(), value); }
    void operator()(int64_t value) const { EXPECT_EQ(parcel.ReadInt64(), value); }
    void operator()(const std::string& value) const { EXPECT_EQ(parcel.ReadString(), value); }
    void operator()(AnObject) const { EXPECT_NE(parcel.ReadRemoteObject(), nullptr); }
    void operator()(const WantOf& value) const
    {
        const auto want = parcel.ReadParcelable<AAFwk::Want>();
        EXPECT_EQ(want == nullptr ? "none" : want->GetAction(), value.action);
    }
};

inline void WriteFields(MessageParcel& parcel, const Fields& fields)
{
    for (const Field& field : fields) {
        std::visit(FieldWriter{parcel}, field);
    }
}

// Expects the token and exactly these fields.
inline void ExpectRequest(MessageParcel& parcel, const char16_t* token, const Fields& fields)
{
    EXPECT_EQ(parcel.ReadInterfaceToken(), token);
    for (const Field& field : fields) {
        std::visit(FieldReader{parcel}, field);
    }
    EXPECT_EQ(parcel.GetReadableBytes(), 0U);
}

// A handler that expects one client's request, and answers it.
inline ScriptedRemoteObject::Handler Answer(uint32_t code, Fields request, Fields replies, int32_t result)
{
    return [=](uint32_t sentCode, MessageParcel& data, MessageParcel& reply, MessageOption& option) {
        EXPECT_EQ(sentCode, code);
        EXPECT_EQ(option.GetFlags(), 0);
        EXPECT_EQ(option.GetWaitTime(), 8);
        ExpectRequest(data, u"VEXA.Updater.IMigrateServer", request);
        WriteFields(reply, replies);
        return result;
    };
}

using Lines = std::vector<RecordedMessage>;

inline Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Makes the lines of one source file.
class LinesOf {
public:
    explicit LinesOf(const char* file) : file_(file) {}
    Lines Info(std::initializer_list<std::string> texts) const { return At(KOLOG_INFO, texts); }
    Lines Error(std::initializer_list<std::string> texts) const { return At(KOLOG_ERROR, texts); }

private:
    Lines At(uint32_t level, std::initializer_list<std::string> texts) const
    {
        Lines lines;
        for (const std::string& text : texts) {
            lines.push_back({level, file_, text});
        }
        return lines;
    }
    const char* const file_;
};

// The lines of the service's proxy about one exchange.
inline Lines ProxyLines(int32_t transport)
{
    const LinesOf proxy("migrate_service_proxy.cpp");
    const bool failed = transport != 0 && transport != 2000;
    return proxy.Info({"MigrateServiceProxy::SendRemoteRequest",
               "MigrateServiceProxy::GetResult is " + std::to_string(transport)}) +
           (failed ? proxy.Error({"Transact error"}) : Lines());
}

// What a caller gets for a result of the transport.
struct Outcome {
    int32_t transport;
    int32_t result;
};
inline constexpr Outcome OUTCOMES[] = {
    {0, 0}, {2000, 0}, {2001, 1}, {2003, 3}, {-1, 104}, {1, 104}, {1999, 104}, {INT32_MIN, 104}};

class KitsTest : public testing::Test {
protected:
    // A service that is running, or that has to be started. It answers everything with 0 until it dies.
    sptr<ScriptedRemoteObject> RunService()
    {
        const sptr<ScriptedRemoteObject> service(new ScriptedRemoteObject);
        manager_->SetRunning(MIGRATE_SERVICE_ID, service);
        return service;
    }
    sptr<ScriptedRemoteObject> PrepareService()
    {
        const sptr<ScriptedRemoteObject> service(new ScriptedRemoteObject);
        manager_->SetLoadable(MIGRATE_SERVICE_ID, service);
        return service;
    }

    InProcessManager manager_;
};

using ManagerCalls = std::vector<ScriptedManager::Call>;
inline const ScriptedManager::Call CHECK{ScriptedManager::Operation::CHECK, 65792, 0};
inline const ScriptedManager::Call LOAD{ScriptedManager::Operation::LOAD, 65792, 5};

}  // namespace VEXA::UpdateEngine
