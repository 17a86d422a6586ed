// SPDX-License-Identifier: Apache-2.0
// A migration service that does what a test says, at a manager in this process; and the fields of a parcel as data.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <variant>

#include "native_migrate/migrate_protocol.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "parcel_access.h"
#include "process_life.h"
#include "support/processes.h"
#include "support/requests.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/testing/in_process_manager.h"
#include "vexa/testing/recording_log_sink.h"
#include "vexa/testing/refusing_parcels.h"
#include "vexa/testing/scripted_remote_object.h"
#include "vexa/testing/unreachable_manager.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

using Field = std::variant<uint32_t, int32_t, bool, int64_t, std::string, sptr<IRemoteObject>, AAFwk::Want>;
using Fields = std::vector<Field>;

inline const sptr<IRemoteObject> AN_OBJECT(new IPCObjectStub);

class Observer : public ReserveMigrateStatusObserverStub {
    int32_t OnRestoreStatusChanged(const std::string&) override { return 0; }
};

inline void WriteFields(MessageParcel& parcel, const Fields& fields)
{
    for (const Field& field : fields) {
        std::visit(VEXA::test::PutField{parcel}, field);
    }
}

inline std::string Bytes(const MessageParcel& parcel)
{
    return {reinterpret_cast<const char*>(ParcelAccess::Data(parcel)), parcel.GetDataSize()};
}

// The bytes of a request with that token and these fields. All objects have the same bytes.
inline std::string RequestBytes(const std::u16string& token, const Fields& fields)
{
    MessageParcel parcel;
    parcel.WriteInterfaceToken(token);
    WriteFields(parcel, fields);
    return Bytes(parcel);
}

// A handler that expects one client's request, and answers it.
inline ScriptedRemoteObject::Handler Answer(uint32_t code, Fields request, Fields replies, int32_t result)
{
    return [=](uint32_t sentCode, MessageParcel& data, MessageParcel& reply, MessageOption& option) {
        EXPECT_EQ(sentCode, code);
        EXPECT_EQ(option.GetFlags(), 0);
        EXPECT_EQ(option.GetWaitTime(), 8);
        EXPECT_EQ(Bytes(data), RequestBytes(u"VEXA.Updater.IMigrateServer", request));
        WriteFields(reply, replies);
        return result;
    };
}

// A line for each that was logged: its level, source file and text.
inline std::string Logged(const RecordingLogSink& log)
{
    std::string lines;
    for (const auto& [level, file, text, line] : log.Messages()) {
        lines += std::string(1, "DIWEF"[level - KOLOG_DEBUG]) + ' ' + file + ": " + text + '\n';
    }
    return lines;
}

// Records the log of a test, which at the end is what tests/data/kits.txt has under the test's name.
struct ExpectedLog : RecordingLogSink {
    ~ExpectedLog() override
    {
        const std::string all = test::FileText(NM_TEST_DATA_DIR "/kits.txt");
        const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        const size_t begin = all.find('\n' + name + '\n') + name.size() + 2;
        EXPECT_EQ(Logged(*this), all.substr(begin, all.find("\n\n", begin) + 1 - begin));
    }
};

// Results of the transport, and what a caller gets for each.
inline constexpr std::pair<int32_t, int32_t> OUTCOMES[] = {
    {0, 0}, {2000, 0}, {2001, 1}, {2003, 3}, {-1, 104}, {1, 104}, {1999, 104}, {INT32_MIN, 104}};

// In a child that another thread forks now, this is true, and soon.
template <typename Condition>
void ExpectInForkedChild(const Condition& condition)
{
    ipc::ProcessLife::Watch();
    std::thread([&] { EXPECT_EXIT((alarm(3), _exit(condition() ? 0 : 1)), testing::ExitedWithCode(0), ""); }).join();
}

class KitsTest : public testing::Test {
protected:
    // A service that is running, or that has to be started. It answers everything with 0 until it dies.
    sptr<ScriptedRemoteObject> RunService(bool isRunning = true)
    {
        const sptr<ScriptedRemoteObject> service(new ScriptedRemoteObject);
        isRunning ? manager_->SetRunning(MIGRATE_SERVICE_ID, service)
                  : manager_->SetLoadable(MIGRATE_SERVICE_ID, service);
        return service;
    }
    sptr<ScriptedRemoteObject> PrepareService() { return RunService(false); }

    InProcessManager manager_;
};

}  // namespace VEXA::UpdateEngine
