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
                row.name + (" of process " + std::to_string(process) + ", user " + std::to_string(user)) +
                    (isRefused ? ": refused" : "")};
            log.Clear();
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
    caller = {{7, 5151, 1}, 1, {CONTROL_GROUP}};  // of one user only so many lines are written
    token.back() = u's';
    EXPECT_EQ(Ask(Code::START_MIGRATE), MIGRATE_UNREACHABLE);
    const auto isLogged = [this](const char* line) { return Lines().find(line) != std::string::npos; };
    EXPECT_TRUE(isLogged("a request with another interface's token, from process 7; "));
    token = MIGRATE_SERVER_DESCRIPTOR;
    EXPECT_EQ(State(), TaskStatus::IDLE);  // nothing was started
    const sptr<IRemoteObject> noObject;
    EXPECT_THAT((std::vector{Ask(Code::REGISTER_PROGRESS_CALLBACK, noObject), Ask(Code::SET_BACKUP_FILE_OWN, noObject),
                    Ask(Code::NOTIFY_EMPORION_CORE_EVENT), Ask(Code::REGISTER_RESERVE_OBSERVER, "caller", noObject)}),
        testing::Each(BAD));
    EXPECT_TRUE(isLogged("request 9 of process 7: result 1; "));
}

TEST_F(ServiceRequests, WaitForTheStartOfTheServiceButNotForLong)
{
    Open();
    hub->Attach(engine);
    std::promise<RequestParts> parts;
    stub = sptr<MigrateServerStub>(new MigrateServerStub(parts.get_future()));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Ask(Code::GET_PAK_MIGRATE_INFO), MIGRATE_RESULT_OFFSET + MIGRATE_INTERNAL);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    const auto later = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        parts.set_value({engine, engine, engine, hub});
    });
    EXPECT_EQ(Ask(Code::GET_PAK_MIGRATE_INFO), 0);
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
