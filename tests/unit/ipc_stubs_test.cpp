// SPDX-License-Identifier: Apache-2.0
#include "kits_fixture.h"
#include "log_line.h"
#include "migrate_service_proxy.h"
#include "native_migrate/migrate_callback_proxy.h"
#include "native_migrate/migrate_callback_stub.h"
#include "native_migrate/reserve_migrate_status_observer_stub.h"
#include "native_migrate/set_backup_file_own_proxy.h"
#include "native_migrate/set_backup_file_own_stub.h"

namespace VEXA::UpdateEngine {
namespace {

// What is called writes a line, so that its place among the others is seen.
class OwnStub : public SetBackupFileOwnStub {
    void OnSetBackupFileOwnFinished(int32_t errorCode) override { KITS_LOGI("%{public}d", errorCode); }
};

class ObserverStub : public ReserveMigrateStatusObserverStub {
    int32_t OnRestoreStatusChanged(const std::string& status) override
    {
        KITS_LOGI("%{public}s", status.c_str());
        return 7;
    }
};

void Record(const MigrateStage& stage, const EventInfo& event)
{
    KITS_LOGI("%{public}u %{public}u", static_cast<uint32_t>(stage), event.progress.percent);
}

const sptr<IPCObjectStub> PROGRESS_STUB(new MigrateCallBackStub({Record}));
const sptr<IPCObjectStub> OWN_STUB(new OwnStub);
const sptr<IPCObjectStub> OBSERVER_STUB(new ObserverStub);

const std::u16string PROGRESS = u"VEXA.UpdateEngine.IMigrateCallBack";
const std::u16string OWN = u"VEXA.UpdateEngine.ISetBackupFileOwnInterface";
const std::u16string OBSERVER = u"VEXA.Updater.IMigrateVirtStatusObserver";

// The stub, the token, the code, the arguments and the result.
const std::tuple<sptr<IPCObjectStub>, std::u16string, uint32_t, Fields, int32_t> STUB_CASES[] = {
    {PROGRESS_STUB, PROGRESS, 1, {3U, R"({"progress":{"percent":40}})"}, 0},
    {PROGRESS_STUB, PROGRESS, 1, {4000000000U}, 0},
    {PROGRESS_STUB, PROGRESS, 2, {3U, "{}"}, IPC_UNKNOWN_REQUEST},
    {PROGRESS_STUB, PROGRESS + u"s", 2, {}, 104},
    {new MigrateCallBackStub({nullptr}), PROGRESS, 1, {3U, "{}"}, 0},
    {OWN_STUB, OWN, 1, {-5}, 0},
    {OWN_STUB, OWN, 4294967295U, {0}, 801},
    {OWN_STUB, PROGRESS, 1, {3}, 100},
    {OWN_STUB, PROGRESS, 7, {3}, 100},
    {OBSERVER_STUB, OBSERVER, 0, {"[not json"}, 7},
    {OBSERVER_STUB, OBSERVER, 1, {"x"}, 100},
    {OBSERVER_STUB, OBSERVER.substr(1), 1, {"x"}, 104},
};

TEST(CallbackStubs, CheckTheTokenThenTheCodeThenDeliver)
{
    const ExpectedLog log;
    for (const auto& [stub, token, code, arguments, result] : STUB_CASES) {
        KITS_LOGI("the next case");
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        data.WriteInterfaceToken(token);
        WriteFields(data, arguments);
        EXPECT_EQ(stub->OnRemoteRequest(code, data, reply, option), result);
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
    const ExpectedLog log;
    EXPECT_EQ(iface_cast<IMigrateCallBack>(object)->OnMigrateProgress(data, reply), 2104);
    EXPECT_EQ(reply.ReadString(), "answer");
    const auto owner = iface_cast<ISetBackupFileOwnInterface>(object);
    owner->OnSetBackupFileOwnFinished(-5);
    {
        const RefusingParcels refusing;
        owner->OnSetBackupFileOwnFinished(1);
    }
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
    const ExpectedLog log;
    EXPECT_EQ(sptr<IMigrateCallBack>(new MigrateCallBackProxy(nullptr))->OnMigrateProgress(data, reply), -1);
    sptr<ISetBackupFileOwnInterface>(new SetBackupFileOwnProxy(nullptr))->OnSetBackupFileOwnFinished(1);
    EXPECT_EQ(sptr<IMigrateServer>(new MigrateServiceProxy(nullptr))->SendRemoteRequest(5, data, reply), 104);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
