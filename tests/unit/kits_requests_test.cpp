// SPDX-License-Identifier: Apache-2.0
#include <map>
#include <set>
#include <sstream>

#include "kits_fixture.h"
#include "migrate_server_kits_impl.h"
#include "migrate_server_stub.h"
#include "native_migrate/iset_backup_file_own_interface.h"
#include "native_migrate/reserve_migrate_kits.h"

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

const Fields TEXT{"no { json"};
const char* const ONLY_TEXT = "no { json -1 0 0  0 0";

struct Clients {
    std::unique_ptr<MigrateServerKitsImpl> kits = MigrateServerKitsImpl::Make();
    ReserveMigrateKits reserve;
};

struct OperationCase {
    uint32_t code;
    Who who;
    const char* startLine;
    const char* failed;  // of the line of a failed request; null: there is none. The reserve client's has a " call "
    int32_t (*call)(Clients&, Outputs&);
    Fields request;
    Fields reply = {ERROR};
    const char* shown = ONLY_ERROR;
    const char* noToken = " InterfaceToken write error";  // of the reserve client
};

#define CALL(...) [](Clients& both, [[maybe_unused]] Outputs& out) { return both.kits->__VA_ARGS__; }
#define RESERVE(...) [](Clients& both, Outputs& out) { return both.reserve.__VA_ARGS__; }
#define IMPL "MigrateServerKitsImpl::"
const char* const MIGRATION_FILE = "migrate_server_kits_impl.cpp";
const sptr<IReserveMigrateStatusObserver> AN_OBSERVER(new Observer);
const sptr<IRemoteObject> A_PROXY(new ScriptedRemoteObject);
using enum Who;
constexpr MigrateStage STAGE = static_cast<MigrateStage>(3);

const OperationCase OPERATION_CASES[] = {
    {1, ANYBODY, "GetMigrateStatus start", IMPL "GetMigrateStatus",
        CALL(GetMigrateStatus(STAGE, out.status, out.error)), {3U}, {R"({"status":2})", ERROR}, "before -1 2 0  0 7m"},
    {2, ANYBODY, IMPL "getMigrateInfo start", IMPL "getMigrateInfo", CALL(GetMigrateInfo(STAGE, out.info, out.error)),
        {3U}, {R"({"migrateProgress":{"percent":40}})", ERROR}, "before -1 0 40  0 7m"},
    {3, ANYBODY, IMPL "getPakMigrateInfo start", IMPL "getPakMigrateInfo", CALL(GetPakMigrateInfo(out.paks, out.error)),
        {}, {R"([{"source":"p"}])", ERROR}, "before -1 0 0 p 0 7m"},
    {4, ANYBODY, IMPL "GetApkInfo start", IMPL "GetApkInfo", CALL(GetApkInfo(out.apks, out.error)), {},
        {R"(["x"])", ERROR}, "before -1 0 0 x 0 7m"},
    {5, CONTROL, IMPL "startMigrate start", IMPL "StartMigrate", CALL(StartMigrate(out.error)), {}},
    {6, CONTROL, IMPL "startPakMigrate", IMPL "StartPakMigrate", CALL(StartPakMigrate("p", out.error)), {"p"}},
    {7, CONTROL, IMPL "RemoveMigrate start", IMPL "RemoveMigrate", CALL(RemoveMigrate(-9, out.error)), {-9}},
    {8, CONTROL, IMPL "RemovePakMigrate start", IMPL "RemovePakMigrate", CALL(RemovePakMigrate("", out.error)), {""}},
    {9, ANYBODY, "RegisterProgressCallBack Start", "RegisterProgressCallBack", CALL(On({})), {AN_OBJECT}, {},
        UNTOUCHED},
    {10, ANYBODY, "UnRegisterAllProgressCallBack", "UnRegisterProgressCallBack", CALL(Off()), {}, {}, UNTOUCHED},
    {11, CONTROL, "SetMigratePolicy", "SetMigratePolicy", CALL(SetMigratePolicy({1, 2}, out.error)), {2}},
    {12, ANYBODY, "CheckAppRestore, bundleName b", "CheckAppRestore", CALL(CheckAppRestore("b", out.text, out.error)),
        {"b"}, {"no { json", ERROR}, "no { json -1 0 0  0 7m"},
    {13, CONTROL, "PresetData", "PresetData", CALL(PresetData("d", out.error)), {"d"}},
    {14, ANYBODY, "GetMigrateResult", "GetMigrateResult", CALL(GetMigrateResult(out.text, out.error)), {}, {"", ERROR},
        " -1 0 0  0 7m"},
    {15, ANYBODY, "GetMigrationUsers", "GetMigrationUsers", CALL(GetMigrationUsers(out.users, out.error)), {},
        {R"([{"targetUser":5},{}])", ERROR}, "before -1 0 0 -1 0 7m"},
    {16, ANYBODY, "GetModuleMigrationPolicy", "GetModuleMigrationPolicy",
        CALL(GetModuleMigrationPolicy(true, {{1, "a"}, {2, "\""}}, out.policies, out.error)),
        {true, R"([{"type":1,"id":"a"},{"type":2,"id":"\""}])"}, {R"([{"sourceModuleInfo":{"id":"s"}}])", ERROR},
        "before -1 0 0 s 0 7m"},
    {16, ANYBODY, "GetModuleMigrationPolicy", "GetModuleMigrationPolicy",
        CALL(GetModuleMigrationPolicy(false, {}, out.policies, out.error)), {false, "[]"}, {"no json", ERROR}},
    {17, CONTROL, IMPL "resumeMigration start", IMPL "ResumeMigration", CALL(ResumeMigration(out.error)), {},
        {"no json"}, UNTOUCHED},
    {25, CONTROL, IMPL "notifyEmporionCoreEvent start", IMPL "NotifyEmporionCoreEvent",
        CALL(NotifyEmporionCoreEvent(AAFwk::Want().SetAction("event"), out.error)), {AAFwk::Want().SetAction("event")}},
    {26, CONTROL, "StartPakMigration, packageName:p, bundleName:b", IMPL "START_PAK_MIGRATION",
        CALL(StartPakMigration("p", "b", "x", out.error)), {"p", "b", "x"}},
    {27, ANYBODY, IMPL "GetPakMigrationTaskStatus start, bundleName:b", IMPL "GetPakMigrationTaskStatus",
        CALL(GetPakMigrationTaskStatus("b", out.reserve, out.error)), {"b"}, {R"({"errorInfo":{"code":4}})", ERROR},
        "before -1 0 0  4 7m"},
    {28, ANYBODY, IMPL "GetMigrationDataSize", IMPL "GetMigrationDataSize",
        CALL(GetMigrationDataSize(out.size, out.error)), {}, {int64_t{1} << 40, ERROR},
        "before 1099511627776 0 0  0 7m"},
    {31, CONTROL, IMPL "SetBackupFileOwn", nullptr,
        CALL(SetBackupFileOwn(iface_cast<ISetBackupFileOwnInterface>(A_PROXY))), {AN_OBJECT}, {}, UNTOUCHED},
    {18, ANYBODY, "GetRestoreAppInfos", "GetRestoreAppInfos call eroor", RESERVE(GetRestoreAppInfos("t", -1, out.text)),
        {"t", -1}, TEXT, ONLY_TEXT},
    {19, CONTROL, "RestoreApp", "RestoreApp call eroor", RESERVE(RestoreApp("a", "b", out.text)), {"a", "b"}, TEXT,
        ONLY_TEXT},
    {20, ANYBODY, "RegisterCallback", "RegisterCallback call eroor",
        RESERVE(RegisterCallback("c", AN_OBSERVER, out.text)), {"c", AN_OBJECT}, TEXT, ONLY_TEXT},
    {21, ANYBODY, "UnRegisterCallback", "RegisterCallback call eroor", RESERVE(UnRegisterCallback("c", out.text)),
        {"c"}, TEXT, ONLY_TEXT, " WriteInterfaceToken error"},
    {22, CONTROL, "ClearApp", "ClearApp call error", RESERVE(ClearApp("a", "b", out.text)), {"a", "b"}, TEXT,
        ONLY_TEXT},
    {23, CONTROL, "ClearAllVirtualData", "ClearAllVirtualData call error", RESERVE(ClearAllVirtualData("t", out.text)),
        {"t"}, TEXT, ONLY_TEXT},
    {24, ANYBODY, "GetRestoreAppStatus", "GetRestoreAppStatus call error",
        RESERVE(GetRestoreAppStatus("a", "", out.text)), {"a", ""}, TEXT, ONLY_TEXT},
    {29, CONTROL, "AdjustAppPriority", "AdjustAppPriority call eroor", RESERVE(AdjustAppPriority("a", "b", out.text)),
        {"a", "b"}, TEXT, ONLY_TEXT},
};

// The lines of the service's proxy about one exchange.
std::string ProxyLines(int32_t transport)
{
    const std::string proxy = "migrate_service_proxy.cpp: ";
    const std::string result = "MigrateServiceProxy::GetResult is " + std::to_string(transport) + '\n';
    const bool failed = transport != 0 && transport != 2000;
    return "I " + proxy + "MigrateServiceProxy::SendRemoteRequest\nI " + proxy + result +
           (failed ? "E " + proxy + "Transact error\n" : "");
}

using KitsRequestsTest = KitsTest;

TEST_F(KitsRequestsTest, EveryOperationSendsBindsMapsAndLogs)
{
    Clients clients;
    std::string client = MIGRATION_FILE;
    const auto line = [&](char level, const std::string& text) { return level + (' ' + client + ": " + text + '\n'); };
    const auto run = [&](const OperationCase& operation, int32_t result, const std::string& lines) {
        Outputs outputs;
        RecordingLogSink log;
        EXPECT_EQ(operation.call(clients, outputs), result);
        EXPECT_EQ(Show(outputs), result == 0 ? operation.shown : UNTOUCHED);
        EXPECT_EQ(Logged(log), line('I', operation.startLine) + lines);
    };
    run({31, CONTROL, IMPL "SetBackupFileOwn", nullptr, CALL(SetBackupFileOwn(nullptr)), {}}, 104,
        line('E', "SetBackupFileOwn callback is null"));
    EXPECT_TRUE(manager_->Calls().empty());  // it is refused before any lookup
    for (const bool isRunning : {false, true}) {
        const sptr<ScriptedRemoteObject> service = isRunning ? RunService() : nullptr;
        if (isRunning) {
            clients.kits->GetService();
            clients.reserve.GetService();
        }
        for (const OperationCase& operation : OPERATION_CASES) {
            SCOPED_TRACE(operation.startLine);
            const std::string failed = operation.failed != nullptr ? operation.failed : "";
            const size_t call = failed.find(" call ");
            const bool isReserve = call != std::string::npos;
            client = isReserve ? "reserve_migrate_kits.cpp" : MIGRATION_FILE;
            const std::string entry = line('I', "GetService entry");
            const auto refusal = [&](const char* reserve, const char* migration) {
                return isReserve ? line('I', failed.substr(0, call) + reserve) : line('E', migration);
            };
            if (!isRunning) {
                run(operation, 104,
                    entry + line('I', "GetService recreate service instance") +
                        line('E', "Get remote object from samgr failed") +
                        refusal(" error, remote server is null", "Service is null"));
                continue;
            }
            for (const auto& [transport, result] : OUTCOMES) {
                SCOPED_TRACE(transport);
                service->SetHandler(Answer(operation.code, operation.request, operation.reply, transport));
                const std::string end = failed + (isReserve ? ", ret=" : " result is ") + std::to_string(result);
                const bool hasLine = result != 0 && !failed.empty();
                run(operation, result, entry + ProxyLines(transport) + (hasLine ? line('E', end) : ""));
            }
            const RefusingParcels refusing;
            run(operation, 104, entry + refusal(operation.noToken, "MigrateServerKitsImpl WriteInterfaceToken fail"));
        }
        EXPECT_TRUE(!isRunning || service->Requests().size() == std::size(OPERATION_CASES) * std::size(OUTCOMES));
    }
}

TEST(RequestRowsTest, EveryRequestHasItsRowsAndTheServiceKnowsWhoMay)
{
    std::map<uint32_t, Who> tested;
    for (const OperationCase& operation : OPERATION_CASES) {
        tested[operation.code] = operation.who;
    }
    std::map<uint32_t, Who> served;
    std::set<uint32_t> codes;
    for (const RequestRow& row : MigrateServerStub::Rows()) {
        served.emplace(static_cast<uint32_t>(row.code), row.who);
        EXPECT_TRUE(codes.insert(static_cast<uint32_t>(row.code)).second) << row.name;
    }
    EXPECT_EQ(tested, served);
    EXPECT_EQ(codes, VEXA::test::REQUEST_CODES);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
