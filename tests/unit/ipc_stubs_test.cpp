// SPDX-License-Identifier: Apache-2.0
#include "kits_fixture.h"
#include "migrate_service_proxy.h"
#include "native_migrate/migrate_callback_proxy.h"
#include "native_migrate/migrate_callback_stub.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "native_migrate/set_backup_file_own_proxy.h"
#include "native_migrate/set_backup_file_own_stub.h"

namespace VEXA::UpdateEngine {
namespace {

using Calls = std::vector<std::string>;
Calls g_calls;

class OwnStub : public SetBackupFileOwnStub {
    void OnSetBackupFileOwnFinished(int32_t errorCode) override { g_calls.push_back(std::to_string(errorCode)); }
};

class ObserverStub : public ReserveMigrateStatusObserverStub {
    int32_t OnRestoreStatusChanged(const std::string& status) override
    {
        g_calls.push_back(status);
        return 7;
    }
};

void Record(const MigrateStage& stage, const EventInfo& event)
{
    g_calls.push_back(std::to_string(static_cast<uint32_t>(stage)) + " " + std::to_string(event.progress.percent));
}

const sptr<IPCObjectStub> PROGRESS_STUB(new MigrateCallBackStub({Record}));
const sptr<IPCObjectStub> OWN_STUB(new OwnStub);
const sptr<IPCObjectStub> OBSERVER_STUB(new ObserverStub);

const std::u16string PROGRESS = u"VEXA.UpdateEngine.IMigrateCallBack";
const std::u16string OWN = u"VEXA.UpdateEngine.ISetBackupFileOwnInterface";
const std::u16string OBSERVER = u"VEXA.Updater.IMigrateVirtStatusObserver";

const LinesOf OWN_FILE{"set_backup_file_own_stub.cpp"};
const LinesOf OBSERVER_FILE{"reserve_migrate_status_observer_stub.cpp"};

Lines OwnLines(const std::string& code, const std::string& error)
{
    return OWN_FILE.Info({"SetBackupFileOwnStub func code " + code}) +
           OWN_FILE.Error({"SetBackupFileOwnStub, " + error});
}

// The stub, the token, the code and the arguments; the result, the calls and the lines.
const std::tuple<sptr<IPCObjectStub>, std::u16string, uint32_t, Fields, int32_t, Calls, Lines> STUB_CASES[] = {
    {PROGRESS_STUB, PROGRESS, 1, {3U, R"({"progress":{"percent":40}})"}, 0, {"3 40"}, {}},
    {PROGRESS_STUB, PROGRESS, 1, {4000000000U}, 0, {"4000000000 0"}, {}},
    {PROGRESS_STUB, PROGRESS, 2, {3U, "{}"}, IPC_UNKNOWN_REQUEST, {}, {}},
    {PROGRESS_STUB, PROGRESS + u"s", 2, {}, 104, {},
        LinesOf{"migrate_callback_stub.cpp"}.Error({"MigrateCallBack::ReadInterfaceToken fail"})},
    {new MigrateCallBackStub({nullptr}), PROGRESS, 1, {3U, "{}"}, 0, {}, {}},
    {OWN_STUB, OWN, 1, {-5}, 0, {"-5"}, OwnLines("1", "OnSetBackupFileOwnFinished errorCode = -5")},
    {OWN_STUB, OWN, 4294967295U, {0}, 801, {}, OWN_FILE.Info({"SetBackupFileOwnStub func code 4294967295"})},
    {OWN_STUB, PROGRESS, 1, {3}, 100, {"100"}, OwnLines("1", "ReadInterfaceToken fail")},
    {OWN_STUB, PROGRESS, 7, {3}, 100, {}, OwnLines("7", "ReadInterfaceToken fail")},
    {OBSERVER_STUB, OBSERVER, 0, {"[not json"}, 7, {"[not json"},
        OBSERVER_FILE.At(KOLOG_DEBUG, {"statusJsonString is [not json"})},
    {OBSERVER_STUB, OBSERVER, 1, {"x"}, 100, {}, {}},
    {OBSERVER_STUB, OBSERVER.substr(1), 1, {"x"}, 104, {}, OBSERVER_FILE.Error({"ReadInterfaceToken is error"})},
};

TEST(CallbackStubs, CheckTheTokenThenTheCodeThenDeliver)
{
    for (const auto& expected : STUB_CASES) {
        SCOPED_TRACE(&expected - STUB_CASES);
        const auto& [stub, token, code, arguments, result, calls, lines] = expected;
        g_calls.clear();
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInterfaceToken(token);
        WriteFields(data, arguments);
        RecordingLogSink log;
        EXPECT_EQ(stub->OnRemoteRequest(code, data, reply, option), result);
        EXPECT_EQ(g_calls, calls);
        EXPECT_EQ(log.Messages(), lines);
        EXPECT_EQ(reply.GetDataSize(), 0U);
    }
}

TEST(CallbackProxies, ForwardProgressAsItIsAndSendTheEndOfOwnershipOneWay)
{
    const sptr<ScriptedRemoteObject> object(new ScriptedRemoteObject);
    object->QueueAnswer(2104, {"answer"});
    object->QueueAnswer(-6);
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(u"any");
    EXPECT_EQ(iface_cast<IMigrateCallBack>(object)->OnMigrateProgress(data, reply), 2104);
    EXPECT_EQ(reply.ReadString(), "answer");
    const auto owner = iface_cast<ISetBackupFileOwnInterface>(object);
    RecordingLogSink log;
    owner->OnSetBackupFileOwnFinished(-5);
    {
        const RefusingParcels refusing;
        owner->OnSetBackupFileOwnFinished(1);
    }
    const LinesOf file{"set_backup_file_own_proxy.cpp"};
    EXPECT_EQ(log.Messages(), file.Info({"SetBackupFileOwnProxy, OnSetBackupFileOwnFinished ret=-6"}) +
                                  file.Error({"SetBackupFileOwnProxy, WriteInterfaceToken fail"}));
    std::vector<std::tuple<uint32_t, int32_t, int32_t, std::string>> sent;
    for (const auto& [code, flags, waitTime, parcel] : object->Requests()) {
        sent.emplace_back(code, flags, waitTime, Bytes(*parcel));
    }
    EXPECT_EQ(sent, (decltype(sent){{1, 0, 8, RequestBytes(u"any", {})}, {1, 1, 8, RequestBytes(OWN, {-5})}}));
}

TEST(Proxies, SendNothingWithoutARemoteObject)
{
    MessageParcel data;
    MessageParcel reply;
    RecordingLogSink log(KOLOG_ERROR);
    EXPECT_EQ(sptr<IMigrateCallBack>(new MigrateCallBackProxy(nullptr))->OnMigrateProgress(data, reply), -1);
    sptr<ISetBackupFileOwnInterface>(new SetBackupFileOwnProxy(nullptr))->OnSetBackupFileOwnFinished(1);
    EXPECT_EQ(sptr<IMigrateServer>(new MigrateServiceProxy(nullptr))->SendRemoteRequest(5, data, reply), 104);
    EXPECT_EQ(log.Messages(),
        LinesOf{"migrate_callback_proxy.cpp"}.Error({"remotePtr is nullptr"}) +
            LinesOf{"set_backup_file_own_proxy.cpp"}.Error({"SetBackupFileOwnProxy, remoteObject is nullptr"}) +
            LinesOf{"migrate_service_proxy.cpp"}.Error({"Can not get remote"}));
}

}  // namespace
}  // namespace VEXA::UpdateEngine
