// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "native_migrate/load_sa_service.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/testing/in_process_manager.h"
#include "vexa/testing/recording_log_sink.h"
#include "vexa/testing/unreachable_manager.h"

namespace VEXA::UpdateEngine {
namespace {

using testing::ElementsAre;

// Counts its waits instead of waiting; the manager's word comes during the wait that is asked for.
class TestLoader : public LoadSaService {
public:
    void Pause() override
    {
        if (++pauses == reportAt) {
            OnLoadSystemAbilitySuccess(9, report);  // counts, whichever service it names
        }
    }

    sptr<IRemoteObject> report;
    int reportAt = 0;
    int pauses = 0;
};

class LoadSaServiceTest : public testing::Test {
protected:
    LoadSaServiceTest() { manager_->HoldCallbacks(true); }
    ~LoadSaServiceTest() override { manager_->TakeHeld(); }

    InProcessManager manager_;
    const sptr<TestLoader> loader_{new TestLoader};
    RecordingLogSink log_;
};

RecordedMessage Line(uint32_t level, const char* text)
{
    return {level, "load_sa_service.cpp", text};
}

const RecordedMessage WAITING = Line(4, "Waiting for CheckSaLoaded");
const RecordedMessage CHECK_FAILED = Line(6, "systemAbilityId: 7, CheckSaLoaded failed");

TEST_F(LoadSaServiceTest, WaitsForTheWordOfTheManager)
{
    loader_->reportAt = 101;
    loader_->report = new IPCObjectStub;
    EXPECT_TRUE(loader_->TryLoadSa(7));
    EXPECT_THAT(log_.Messages(),
        ElementsAre(WAITING, Line(4, "SystemAbility load Success systemAbilityId: 9, IRemoteObject result: succeed"),
            Line(4, "found OnLoad result: succeed"), Line(4, "systemAbilityId: 7, load succeed")));

    log_.Clear();
    loader_->pauses = 0;
    loader_->reportAt = 1;
    loader_->report = nullptr;
    EXPECT_FALSE(loader_->TryLoadSa(7));
    EXPECT_EQ(loader_->pauses, 1);
    EXPECT_THAT(log_.Messages(),
        ElementsAre(WAITING, Line(4, "SystemAbility load Success systemAbilityId: 9, IRemoteObject result: failed"),
            Line(4, "found OnLoad result: failed"), CHECK_FAILED));

    // The outcomes before don't count.
    manager_->TakeHeld();
    log_.Clear();
    EXPECT_FALSE(loader_->TryLoadSa(7));
    EXPECT_EQ(loader_->pauses, 102);
    EXPECT_THAT(log_.Messages(), ElementsAre(WAITING, Line(6, "CheckSaLoaded didn't get OnLoad result"), CHECK_FAILED));

    log_.Clear();
    manager_->TakeHeld().at(0).callback->OnLoadSystemAbilityFail(9);
    manager_->SetAsyncResult(SAMGR_NO_PROFILE);
    EXPECT_FALSE(loader_->TryLoadSa(7));
    EXPECT_THAT(log_.Messages(), ElementsAre(Line(6, "SystemAbility Load fail the systemAbilityId is: 9"),
                                     Line(6, "systemAbilityId: 7, load failed, result code: 2")));

    log_.Clear();
    const UnreachableManager none;
    EXPECT_FALSE(loader_->TryLoadSa(7));
    EXPECT_THAT(log_.Messages(), ElementsAre(Line(6, "samgr object null!")));
}

TEST_F(LoadSaServiceTest, SilentManagerCostsTheSharedInstanceFiveSeconds)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(LoadSaService::GetInstance()->TryLoadSa(7));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken.count(), 5.05);
    EXPECT_LT(taken.count(), 8.0);
}

}  // namespace
}  // namespace VEXA::UpdateEngine
