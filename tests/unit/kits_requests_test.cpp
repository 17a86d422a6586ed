// SPDX-License-Identifier: Apache-2.0
// The operations of the migration client: what each sends, binds and logs.
#include <sstream>

#include "kits_fixture.h"
#include "migrate_server_kits_impl.h"
#include "native_migrate/iset_backup_file_own_interface.h"

namespace VEXA::UpdateEngine {
namespace {

// Everything that an operation may write to.
struct Outputs {
    BusinessError error;
    std::string text = "before";
    int64_t size = -1;
    MigrateStatus status;
    MigrateInfo info;
    std::vector<PakMigrateInfo> paks;
    std::vector<std::string> apks;
    std::vector<MigrationUser> users;
    std::vector<ModuleMigrationPolicy> policies;
    ReserveMigrationStatus reserve;
};

// One value of each output.
std::string Show(const Outputs& out)
{
    std::ostringstream shown;
    shown << out.text << ' ' << out.size << ' ' << out.status.status << ' ' << out.info.migrateProgress.percent << ' ';
    shown << (out.paks.empty() ? "" : out.paks.back().source) << (out.apks.empty() ? "" : out.apks.back());
    shown << (out.users.empty() ? "" : std::to_string(out.users.back().targetUser));
    shown << (out.policies.empty() ? "" : out.policies.back().sourceModuleInfo.id) << ' ';
    shown << out.reserve.errorInfo.code << ' ' << out.error.errorNum << out.error.message;
    return shown.str();
}
const char* const UNTOUCHED = "before -1 0 0  0 0";

const Field ERROR = R"({"message":"m","errorNum":7})";
const char* const ONLY_ERROR = "before -1 0 0  0 7m";

struct OperationCase {
    uint32_t code;
    const char* startLine;
    const char* resultName;  // null: a failed request has no line of its own
    int32_t (*call)(MigrateServerKits&, Outputs&);
    Fields request;
    Fields reply = {ERROR};
    const char* shown = ONLY_ERROR;
};

#define CALL(...) [](MigrateServerKits& kits, [[maybe_unused]] Outputs& out) { return kits.__VA_ARGS__; }
#define IMPL "MigrateServerKitsImpl::"
const sptr<IRemoteObject> A_PROXY(new ScriptedRemoteObject);
constexpr MigrateStage STAGE = static_cast<MigrateStage>(3);

const OperationCase OPERATION_CASES[] = {
    {1, "GetMigrateStatus start", IMPL "GetMigrateStatus", CALL(GetMigrateStatus(STAGE, out.status, out.error)), {3U},
        {R"({"status":2})", ERROR}, "before -1 2 0  0 7m"},
    {2, IMPL "getMigrateInfo start", IMPL "getMigrateInfo", CALL(GetMigrateInfo(STAGE, out.info, out.error)), {3U},
        {R"({"migrateProgress":{"percent":40}})", ERROR}, "before -1 0 40  0 7m"},
    {3, IMPL "getPakMigrateInfo start", IMPL "getPakMigrateInfo", CALL(GetPakMigrateInfo(out.paks, out.error)), {},
        {R"([{"source":"p"}])", ERROR}, "before -1 0 0 p 0 7m"},
    {4, IMPL "GetApkInfo start", IMPL "GetApkInfo", CALL(GetApkInfo(out.apks, out.error)), {}, {R"(["x"])", ERROR},
        "before -1 0 0 x 0 7m"},
    {5, IMPL "startMigrate start", IMPL "StartMigrate", CALL(StartMigrate(out.error)), {}},
    {6, IMPL "startPakMigrate", IMPL "StartPakMigrate", CALL(StartPakMigrate("p", out.error)), {"p"}},
    {7, IMPL "RemoveMigrate start", IMPL "RemoveMigrate", CALL(RemoveMigrate(-9, out.error)), {-9}},
    {8, IMPL "RemovePakMigrate start", IMPL "RemovePakMigrate", CALL(RemovePakMigrate("", out.error)), {""}},
    {9, "RegisterProgressCallBack Start", "RegisterProgressCallBack", CALL(On({})), {AN_OBJECT}, {}, UNTOUCHED},
    {10, "UnRegisterAllProgressCallBack", "UnRegisterProgressCallBack", CALL(Off()), {}, {}, UNTOUCHED},
    {11, "SetMigratePolicy", "SetMigratePolicy", CALL(SetMigratePolicy({1, 2}, out.error)), {2}},
    {12, "CheckAppRestore, bundleName b", "CheckAppRestore", CALL(CheckAppRestore("b", out.text, out.error)), {"b"},
        {"no { json", ERROR}, "no { json -1 0 0  0 7m"},
    {13, "PresetData", "PresetData", CALL(PresetData("d", out.error)), {"d"}},
    {14, "GetMigrateResult", "GetMigrateResult", CALL(GetMigrateResult(out.text, out.error)), {}, {"", ERROR},
        " -1 0 0  0 7m"},
    {15, "GetMigrationUsers", "GetMigrationUsers", CALL(GetMigrationUsers(out.users, out.error)), {},
        {R"([{"targetUser":5},{}])", ERROR}, "before -1 0 0 -1 0 7m"},
    {16, "GetModuleMigrationPolicy", "GetModuleMigrationPolicy",
        CALL(GetModuleMigrationPolicy(true, {{1, "a"}, {2, "\""}}, out.policies, out.error)),
        {true, R"([{"type":1,"id":"a"},{"type":2,"id":"\""}])"}, {R"([{"sourceModuleInfo":{"id":"s"}}])", ERROR},
        "before -1 0 0 s 0 7m"},
    {16, "GetModuleMigrationPolicy", "GetModuleMigrationPolicy",
        CALL(GetModuleMigrationPolicy(false, {}, out.policies, out.error)), {false, "[]"}, {"no json", ERROR}},
    {17, IMPL "resumeMigration start", IMPL "ResumeMigration", CALL(ResumeMigration(out.error)), {}, {"no json"},
        UNTOUCHED},
    {25, IMPL "notifyEmporionCoreEvent start", IMPL "NotifyEmporionCoreEvent",
        CALL(NotifyEmporionCoreEvent(AAFwk::Want().SetAction("event"), out.error)), {AAFwk::Want().SetAction("event")}},
    {26, "StartPakMigration, packageName:p, bundleName:b", IMPL "START_PAK_MIGRATION",
        CALL(StartPakMigration("p", "b", "x", out.error)), {"p", "b", "x"}},
    {27, IMPL "GetPakMigrationTaskStatus start, bundleName:b", IMPL "GetPakMigrationTaskStatus",
        CALL(GetPakMigrationTaskStatus("b", out.reserve, out.error)), {"b"}, {R"({"errorInfo":{"code":4}})", ERROR},
        "before -1 0 0  4 7m"},
    {28, IMPL "GetMigrationDataSize", IMPL "GetMigrationDataSize", CALL(GetMigrationDataSize(out.size, out.error)), {},
        {int64_t{1} << 40, ERROR}, "before 1099511627776 0 0  0 7m"},
    {31, IMPL "SetBackupFileOwn", nullptr, CALL(SetBackupFileOwn(iface_cast<ISetBackupFileOwnInterface>(A_PROXY))),
        {AN_OBJECT}, {}, UNTOUCHED},
};

const LinesOf CLIENT{"migrate_server_kits_impl.cpp"};

class KitsRequestsTest : public KitsTest {
protected:
    void RunCase(const OperationCase& operation, int32_t result, const Lines& lines)
    {
        Outputs outputs;
        RecordingLogSink log;
        EXPECT_EQ(operation.call(kits_, outputs), result);
        EXPECT_EQ(Show(outputs), result == 0 ? operation.shown : UNTOUCHED);
        EXPECT_EQ(log.Messages(), CLIENT.Info({operation.startLine}) + lines);
    }

    MigrateServerKitsImpl kits_;
};

TEST_F(KitsRequestsTest, EveryOperationSendsBindsMapsAndLogs)
{
    std::set<uint32_t> tested(RESERVE_CODES.begin(), RESERVE_CODES.end());
    std::ranges::transform(OPERATION_CASES, std::inserter(tested, tested.end()), &OperationCase::code);
    EXPECT_EQ(tested, VEXA::test::REQUEST_CODES);
    RunCase({31, IMPL "SetBackupFileOwn", nullptr, CALL(SetBackupFileOwn(nullptr)), {}}, 104,
        CLIENT.Error({"SetBackupFileOwn callback is null"}));
    EXPECT_TRUE(manager_->Calls().empty());  // it is refused before any lookup
    const Lines entry = CLIENT.Info({"GetService entry"});
    for (const OperationCase& operation : OPERATION_CASES) {
        SCOPED_TRACE(operation.startLine);
        RunCase(operation, 104,
            entry + CLIENT.Info({"GetService recreate service instance"}) +
                CLIENT.Error({"Get remote object from samgr failed", "Service is null"}));
    }
    const sptr<ScriptedRemoteObject> service = RunService();
    kits_.GetService();
    for (const OperationCase& operation : OPERATION_CASES) {
        for (const auto& [transport, result] : OUTCOMES) {
            SCOPED_TRACE(operation.startLine + std::to_string(transport));
            service->SetHandler(Answer(operation.code, operation.request, operation.reply, transport));
            Lines lines = entry + ProxyLines(transport);
            if (result != 0 && operation.resultName != nullptr) {
                lines = lines + CLIENT.Error({operation.resultName + (" result is " + std::to_string(result))});
            }
            RunCase(operation, result, lines);
        }
        const RefusingParcels refusing;
        RunCase(operation, 104, entry + CLIENT.Error({"MigrateServerKitsImpl WriteInterfaceToken fail"}));
    }
    EXPECT_EQ(service->Requests().size(), std::size(OPERATION_CASES) * std::size(OUTCOMES));
}

}  // namespace
}  // namespace VEXA::UpdateEngine
