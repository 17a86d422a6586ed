// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <chrono>

#include "native_migrate/load_sa_service.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/testing/in_process_manager.h"
#include "vexa/testing/recording_log_sink.h"
#include "vexa/testing/unreachable_manager.h"

namespace VEXA::UpdateEngine {
namespace {

// Counts its waits instead of waiting; the manager's word comes during the wait that is asked for.
class TestLoader : public LoadSaService {
public:
    void Pause() override
    {
        if (++pauses == reportAt) {
            fails ? OnLoadSystemAbilityFail(9) : OnLoadSystemAbilitySuccess(9, report);  // whichever service it names
        }
    }

    sptr<IRemoteObject> report;
    bool fails = false;
    int reportAt = 0;
    int pauses = 0;
};

RecordedMessage Line(uint32_t level, const char* text)
{
    return {level, "load_sa_service.cpp", text};
}

class LoadSaServiceTest : public testing::Test {
protected:
    LoadSaServiceTest() { manager_->HoldCallbacks(true); }
    ~LoadSaServiceTest() override { manager_->TakeHeld(); }
    // `lines` are those since the load before.
    void ExpectLoad(bool result, int pauses, const std::vector<RecordedMessage>& lines)
    {
        loader_->pauses = 0;
        EXPECT_EQ(loader_->TryLoadSa(7), result);
        EXPECT_EQ(loader_->pauses, pauses);
        EXPECT_EQ(log_.Messages(), lines);
        log_.Clear();
    }

    InProcessManager manager_;
    const sptr<TestLoader> loader_{new TestLoader};
    RecordingLogSink log_;
};

TEST_F(LoadSaServiceTest, WaitsForTheWordOfTheManager)
{
    const RecordedMessage waiting = Line(4, "Waiting for CheckSaLoaded");
    const RecordedMessage checkFailed = Line(6, "systemAbilityId: 7, CheckSaLoaded failed");
    loader_->reportAt = 101;
    loader_->report = new IPCObjectStub;
    ExpectLoad(true, 101,
        {waiting, Line(4, "SystemAbility load Success systemAbilityId: 9, IRemoteObject result: succeed"),
            Line(4, "found OnLoad result: succeed"), Line(4, "systemAbilityId: 7, load succeed")});
    loader_->reportAt = 1;
    loader_->report = nullptr;
    ExpectLoad(false, 1,
        {waiting, Line(4, "SystemAbility load Success systemAbilityId: 9, IRemoteObject result: failed"),
            Line(4, "found OnLoad result: failed"), checkFailed});
    loader_->fails = true;
    ExpectLoad(false, 1,
        {waiting, Line(6, "SystemAbility Load fail the systemAbilityId is: 9"), Line(4, "found OnLoad result: failed"),
            checkFailed});
    // The outcomes before don't count.
    manager_->TakeHeld();
    loader_->reportAt = 0;
    ExpectLoad(false, 101, {waiting, Line(6, "CheckSaLoaded didn't get OnLoad result"), checkFailed});

    manager_->TakeHeld().at(0).callback->OnLoadSystemAbilityFail(9);
    manager_->SetAsyncResult(SAMGR_NO_PROFILE);
    ExpectLoad(false, 0,
        {Line(6, "SystemAbility Load fail the systemAbilityId is: 9"),
            Line(6, "systemAbilityId: 7, load failed, result code: 2")});
    const UnreachableManager none;
    ExpectLoad(false, 0, {Line(6, "samgr object null!")});
}

TEST_F(LoadSaServiceTest, SilentManagerCostsTheSharedInstanceFiveSeconds)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(LoadSaService::GetInstance()->TryLoadSa(7));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(taken.count() >= 5.05 && taken.count() < 8) << taken.count();
}

}  // namespace
}  // namespace VEXA::UpdateEngine
