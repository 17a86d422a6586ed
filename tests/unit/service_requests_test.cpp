// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <atomic>

#include "native_migrate/set_backup_file_own_stub.h"
#include "service_requests_fixture.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::UpdateEngine::test {
namespace {

using ServiceRequests = RequestsTest;

class OwnNotice : public SetBackupFileOwnStub {
public:
    void OnSetBackupFileOwnFinished(int32_t errorCode) override
    {
        code = errorCode;
        Eventually([this] { return !isHeld; });
    }
    std::atomic<int32_t> code{-1};
    std::atomic<bool> isHeld{false};
};

const int32_t BAD = MIGRATE_RESULT_OFFSET + MIGRATE_BAD_ARGUMENT;

TEST_F(ServiceRequests, WhatChangesSomethingIsForRootTheOwnUserAndTheControlGroup)
{
    Run();
    const std::set<uint32_t> withFields{
        1, 2, 6, 7, 8, 9, 11, 12, 13, 16, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 29, 31};
    const bool isRoot = geteuid() == 0;
    ASSERT_TRUE(!isRoot || seteuid(4711) == 0);
    const std::tuple<uid_t, std::vector<gid_t>, bool> callers[] = {{12345, {1}, false}, {uid_t(-1), {}, false},
        {0, {}, true}, {geteuid(), {}, true}, {12345, {1, CONTROL_GROUP}, true}};
    pid_t process = 77;
    for (const auto& [who, groups, mayChange] : callers) {
        uid_t user = who;
        for (const RequestRow& row : MigrateServerStub::Rows()) {
            const bool isControl = row.who == Who::CONTROL;
            const bool isRefused = isControl && !mayChange;
            if (user == uid_t(-1) && !isControl) {
                continue;  // of one user only so many lines are written
            }
            user += who == 12345 ? 1 : 0;
            caller = {{++process, user, 1}, 1, groups};
            const RecordedMessage line{isRefused ? KOLOG_WARN : KOLOG_INFO, "migrate_server_stub.cpp",
                row.name +
                    (" of process " + std::to_string(process) + ", user " +
                        std::to_string(static_cast<int32_t>(user))) +
                    (isRefused ? ": refused" : "")};
            RecordingLogSink log;
            const int32_t result = Ask(row.code);  // nothing behind the token
            const bool isMissing = withFields.contains(static_cast<uint32_t>(row.code));
            EXPECT_TRUE(isRefused ? result == MIGRATE_RESULT_OFFSET + MIGRATE_NOT_ALLOWED
                                  : result == BAD || (result == 0 && !isMissing))
                << line << result;
            EXPECT_EQ(std::ranges::count(log.Messages(), line), isControl) << line;
            EXPECT_TRUE(!isRefused || (log.Messages().size() == 1 && State() == TaskStatus::IDLE)) << line;
        }
    }
    ASSERT_TRUE(!isRoot || seteuid(0) == 0);
    for (uint32_t code = 0; code <= 256; ++code) {
        const bool isUnknown = Ask(static_cast<Code>(code - 1)) == IPC_UNKNOWN_REQUEST;
        EXPECT_NE(isUnknown, VEXA::test::REQUEST_CODES.contains(code - 1)) << code - 1;
    }
}

TEST_F(ServiceRequests, WrongTokensAndBadFieldsAreAnswered)
{
    Run();
    token.back() = u's';
    EXPECT_EQ(Ask(Code::START_MIGRATE), MIGRATE_UNREACHABLE);
    token = MIGRATE_SERVER_DESCRIPTOR;
    EXPECT_EQ(State(), TaskStatus::IDLE);  // nothing was started
    const sptr<IRemoteObject> noObject;
    EXPECT_THAT((std::vector{Ask(Code::GET_MIGRATE_STATUS, 6U), Ask(Code::START_PAK_MIGRATE, ""),
                    Ask(Code::REMOVE_MIGRATE, -2), Ask(Code::SET_MIGRATE_POLICY, 2), Ask(Code::PRESET_DATA, "[]"),
                    Ask(Code::PRESET_DATA, R"({"exclude":"b"})"), Ask(Code::GET_MODULE_MIGRATION_POLICY, true, "{"),
                    Ask(Code::START_PAK_MIGRATION, "p", "b", "{\"priority\":\"high\"}"),
                    Ask(Code::GET_RESTORE_APP_INFOS, "only the name"), Ask(Code::ADJUST_APP_PRIORITY, "r", "7x"),
                    Ask(Code::ADJUST_APP_PRIORITY, "r", "9999999999"), Ask(Code::REGISTER_PROGRESS_CALLBACK, noObject),
                    Ask(Code::REGISTER_RESERVE_OBSERVER, "caller", noObject)}),
        testing::Each(BAD));
    EXPECT_THAT((std::vector{Ask(Code::RESTORE_APP, "r", ""), Ask(Code::GET_RESTORE_APP_STATUS, "r", ""),
                    Ask(Code::GET_RESTORE_APP_INFOS, "r", -1)}),
        testing::Each(MIGRATE_RESULT_OFFSET + MIGRATE_NO_SUCH_APP));
}

TEST_F(ServiceRequests, EveryRequestOfTheMigrationIsAnsweredWithItsFields)
{
    folders.AddPackage("a", 1000, R"({"bundleName":"com.a","user":3,"modules":[{"type":1,"id":"m"}]})");
    Run();
    EXPECT_EQ(TextOf(Code::GET_MIGRATE_STATUS, 0U), R"({"isTaskExist":false,"status":0})");
    EXPECT_EQ(TextOf(Code::GET_PAK_MIGRATE_INFO), R"([{"source":"a","target":"a","status":0}])");
    EXPECT_EQ(replies.size(), 2U);
    EXPECT_EQ(TextOf(Code::GET_APK_INFO), R"(["com.a"])");
    EXPECT_EQ(TextOf(Code::GET_MIGRATION_USERS), R"([{"sourceUser":3,"targetUser":3}])");
    EXPECT_EQ(TextOf(Code::GET_MODULE_MIGRATION_POLICY, false, R"([{"type":1,"id":"m"}])"),
        R"([{"sourceModuleInfo":{"type":1,"id":"m"},"targetModuleInfos":[{"type":1,"id":"m"}]}])");
    EXPECT_EQ(ErrorOf(Code::GET_MIGRATION_DATA_SIZE), 0);
    EXPECT_EQ(number, 1000 + static_cast<int64_t>(fs::file_size(folders.Source() / "a" / "manifest.json")));
    EXPECT_EQ(TextOf(Code::CHECK_APP_RESTORE, "com.a").rfind(R"({"bundleName":"com.a","canRestore":false,)", 0), 0U);
    EXPECT_TRUE(Ask(Code::SET_MIGRATE_POLICY, MIGRATE_POLICY_GO_ON) == 0 && Ask(Code::PRESET_DATA, "") == 0);
    for (const char* action : {"pause", "resume", "stop"}) {
        EXPECT_EQ(ErrorOf(Code::NOTIFY_EMPORION_CORE_EVENT, AAFwk::Want().SetAction(action)), MIGRATE_ERROR_NOTHING)
            << action;
    }
    EXPECT_EQ(ErrorOf(Code::NOTIFY_EMPORION_CORE_EVENT, AAFwk::Want().SetAction("dance")), MIGRATE_ERROR_EVENT);
    EXPECT_EQ(ErrorOf(Code::RESUME_MIGRATION), MIGRATE_ERROR_NOTHING);

    EXPECT_EQ(ErrorOf(Code::START_MIGRATE), 0);
    EXPECT_EQ(replies.size(), 1U);
    ASSERT_TRUE(Ends());
    const auto info = RecordOf<MigrateInfo>(Code::GET_MIGRATE_INFO, 5U);
    ASSERT_EQ(info.taskInfos.size(), 1U);
    const TaskInfo& task = info.taskInfos[0];
    EXPECT_EQ(std::tuple(task.userId, task.displayPolicy.displayBundleName, task.configStage),
        std::tuple(3, "com.a", TaskConfigStage::DEFAULT));
    EXPECT_EQ(info.migrateProgress.percent, 100U);
    EXPECT_EQ(RecordOf<MigrationResult>(Code::GET_MIGRATE_RESULT).succeeded, 1U);
    EXPECT_EQ(TextOf(Code::GET_PAK_MIGRATION_TASK_STATUS, "com.a"),
        R"({"status":3,"errorInfo":{"code":0,"reason":"","canRetry":false}})");
    EXPECT_TRUE(ErrorOf(Code::REMOVE_PAK_MIGRATE, "com.a") == 0 && ErrorOf(Code::START_PAK_MIGRATE, "com.a") == 0);
    ASSERT_TRUE(Ends());
    EXPECT_EQ(ErrorOf(Code::START_PAK_MIGRATION, "a", "", R"({"priority":3})"), 0);
    ASSERT_TRUE(Ends());
    EXPECT_TRUE(ErrorOf(Code::REMOVE_MIGRATE, 3) == 0 && State() == TaskStatus::IDLE);
}

TEST_F(ServiceRequests, ReservedApplicationsAreAnsweredWithOneText)
{
    folders.AddPackage("r1", 10, R"({"reserved":true,"bundleName":"com.r1"})");
    folders.AddPackage("r2", 10, R"({"reserved":true,"bundleName":"com.r2"})");
    Run();
    const auto appsOf = [this](const char* name, int32_t count) {
        std::string names;
        for (const auto& app : RecordOf<std::vector<RestoreAppInfo>>(Code::GET_RESTORE_APP_INFOS, name, count)) {
            names += app.packageName + " ";
        }
        return names;
    };
    EXPECT_EQ(Ask(Code::ADJUST_APP_PRIORITY, "com.r2", "-0"), 0);
    EXPECT_EQ(Ask(Code::ADJUST_APP_PRIORITY, "com.r2", "5"), 0);
    EXPECT_EQ(TextOf(Code::GET_APK_INFO), "[]");  // they are set aside
    EXPECT_EQ(appsOf("", -1) + appsOf("", 1) + appsOf("com.r1", 9), "com.r2 com.r1 com.r2 com.r1 ");

    EXPECT_EQ(ErrorOf(Code::RESTORE_APP, "com.r1", "day"), 0);
    EXPECT_EQ(replies.size(), 1U);
    EXPECT_TRUE(Eventually([this] {
        return Statuses(RecordOf<std::vector<RestoreEventInfo>>(Code::GET_RESTORE_APP_STATUS, "com.r1", "day")) ==
               "r1:3 ";
    }));
    EXPECT_EQ(ErrorOf(Code::CLEAR_APP, "com.r1", ""), 0);
    EXPECT_EQ(ErrorOf(Code::CLEAR_APP, "com.r1", ""), MIGRATE_ERROR_NOTHING);
    EXPECT_EQ(ErrorOf(Code::CLEAR_ALL_VIRTUAL_DATA, ""), 0);
    EXPECT_EQ(ErrorOf(Code::UNREGISTER_RESERVE_OBSERVER, "nobody"), MIGRATE_ERROR_NOTHING);
}

TEST_F(ServiceRequests, TheOwnerOfBackupFilesIsToldTheOutcome)
{
    folders.AddPackage("a", 10);
    Run();
    caller.groups = {CONTROL_GROUP};
    const sptr<OwnNotice> notice(new OwnNotice);
    for (const auto& [user, expected] : {std::pair(5U, MIGRATE_ERROR_NOTHING), {5U, 0}, {6U, MIGRATE_ERROR_OWNER}}) {
        caller.uid = user;
        notice->code = -1;
        EXPECT_EQ(Ask(Code::SET_BACKUP_FILE_OWN, notice->AsObject()), 0);
        EXPECT_TRUE(replies.empty());
        EXPECT_TRUE(Eventually([&, outcome = expected] { return notice->code == outcome; })) << notice->code;
        Ask(Code::START_MIGRATE);
        ASSERT_TRUE(Ends());
    }
    // While one is under way, 64 more have room.
    notice->code = -1;
    notice->isHeld = true;
    for (int waiting = 0; waiting <= 65; ++waiting) {
        const int32_t expected = waiting <= 64 ? 0 : MIGRATE_RESULT_OFFSET + MIGRATE_TOO_MANY;
        EXPECT_EQ(Ask(Code::SET_BACKUP_FILE_OWN, notice->AsObject()), expected) << waiting;
        ASSERT_TRUE(Eventually([&] { return notice->code == MIGRATE_ERROR_OWNER; }));
    }
    notice->isHeld = false;
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
