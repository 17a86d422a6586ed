// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "native_migrate/load_sa_service.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/testing/in_process_manager.h"
#include "vexa/testing/recording_log_sink.h"
#include "vexa/testing/unreachable_manager.h"

namespace VEXA::UpdateEngine {
namespace {

enum class Report { NONE, SUCCESS, NULL_OBJECT, FAILURE };

void Deliver(Report report, int32_t id, const sptr<ISystemAbilityLoadCallback>& callback)
{
    if (report == Report::FAILURE) {
        callback->OnLoadSystemAbilityFail(id);
    } else if (report != Report::NONE) {
        callback->OnLoadSystemAbilitySuccess(id, report == Report::SUCCESS ? new IPCObjectStub : nullptr);
    }
}

// Counts its waits instead of waiting; the manager's word comes during the wait that is asked for.
class TestLoader : public LoadSaService {
public:
    explicit TestLoader(InProcessManager& manager) : manager_(manager) {}
    void Pause() override
    {
        if (++pauses == reportAt) {
            Deliver(report, 9, manager_->TakeHeld().at(0).callback);  // counts, whichever service it names
        }
    }

    Report report = Report::NONE;
    int reportAt = 0;
    int pauses = 0;

private:
    InProcessManager& manager_;
};

class LoadSaServiceTest : public testing::Test {
protected:
    LoadSaServiceTest() { manager_->HoldCallbacks(true); }
    ~LoadSaServiceTest() override { manager_->TakeHeld(); }

    InProcessManager manager_;
};

RecordedMessage Line(uint32_t level, const char* text)
{
    return {level, "load_sa_service.cpp", text};
}

const RecordedMessage WAITING = Line(4, "Waiting for CheckSaLoaded");
const RecordedMessage FOUND_FAILED = Line(4, "found OnLoad result: failed");
const RecordedMessage CHECK_FAILED = Line(6, "systemAbilityId: 7, CheckSaLoaded failed");

const struct {
    int32_t answer;
    Report report;
    int reportAt;
    bool loaded;
    int pauses;
    std::vector<RecordedMessage> lines;
} LOAD_CASES[] = {
    {SAMGR_PROGRAM_MISSING, Report::NONE, 0, false, 0, {Line(6, "systemAbilityId: 7, load failed, result code: 4")}},
    {SAMGR_OK, Report::FAILURE, 3, false, 3,
        {WAITING, Line(6, "SystemAbility Load fail the systemAbilityId is: 9"), FOUND_FAILED, CHECK_FAILED}},
    {SAMGR_OK, Report::NULL_OBJECT, 1, false, 1,
        {WAITING, Line(4, "SystemAbility load Success systemAbilityId: 9, IRemoteObject result: failed"), FOUND_FAILED,
            CHECK_FAILED}},
    {SAMGR_OK, Report::SUCCESS, 101, true, 101,
        {WAITING, Line(4, "SystemAbility load Success systemAbilityId: 9, IRemoteObject result: succeed"),
            Line(4, "found OnLoad result: succeed"), Line(4, "systemAbilityId: 7, load succeed")}},
    {SAMGR_OK, Report::NONE, 0, false, 101, {WAITING, Line(6, "CheckSaLoaded didn't get OnLoad result"), CHECK_FAILED}},
};

TEST_F(LoadSaServiceTest, ReportsWhatTheManagerReports)
{
    for (const auto& expected : LOAD_CASES) {
        SCOPED_TRACE(&expected - LOAD_CASES);
        const sptr<TestLoader> loader(new TestLoader(manager_));
        loader->report = expected.report;
        loader->reportAt = expected.reportAt;
        manager_->SetAsyncResult(expected.answer);
        RecordingLogSink log;
        EXPECT_EQ(loader->TryLoadSa(7), expected.loaded);
        EXPECT_EQ(loader->pauses, expected.pauses);
        EXPECT_EQ(log.Messages(), expected.lines);
        manager_->TakeHeld();
        EXPECT_EQ(loader->GetSptrRefCount(), 1);
    }
    const UnreachableManager none;
    RecordingLogSink log;
    EXPECT_FALSE(LoadSaService::GetInstance()->TryLoadSa(7));
    EXPECT_EQ(log.Messages(), std::vector<RecordedMessage>{Line(6, "samgr object null!")});
}

TEST_F(LoadSaServiceTest, OutcomeStaysUntilItIsReset)
{
    const sptr<TestLoader> loader(new TestLoader(manager_));
    for (const Report report : {Report::SUCCESS, Report::FAILURE}) {
        Deliver(report, 7, loader);
        manager_->SetAsyncResult(IPC_DEAD_OBJECT);
        EXPECT_FALSE(loader->LoadSa(7));  // refused, and leaves it alone
        manager_->SetAsyncResult(SAMGR_OK);
        EXPECT_EQ(loader->LoadSa(7), report == Report::SUCCESS);
        EXPECT_EQ(std::exchange(loader->pauses, 0), 1);
    }
    EXPECT_FALSE(loader->TryLoadSa(7));
    EXPECT_EQ(loader->pauses, 101);
}

TEST_F(LoadSaServiceTest, SilentManagerCostsTheSharedInstanceFiveSeconds)
{
    sptr<LoadSaService> first;
    std::thread other([&] { first = LoadSaService::GetInstance(); });
    const sptr<LoadSaService> second = LoadSaService::GetInstance();
    other.join();
    EXPECT_EQ(first, second);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(second->TryLoadSa(7));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken.count(), 5.05);
    EXPECT_LT(taken.count(), 8.0);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
