// SPDX-License-Identifier: Apache-2.0
// A manager for the length of the test program.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>

#include "native_migrate/migrate_protocol.h"
#include "samgr_world.h"
#include "vexa/samgr/system_ability_manager_client.h"
#include "vexa/testing/recording_log_sink.h"

namespace VEXA::test {

inline sptr<ISystemAbilityManager> Manager()
{
    return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
}

// Ends the manager in order at the end of the program, so that it ends the services.
class ClientWorld : public testing::Environment {
public:
    using AddProfiles = void (*)(const SamgrWorld& world);

    explicit ClientWorld(AddProfiles addProfiles) : addProfiles_(addProfiles) {}
    void SetUp() override
    {
        world_ = new SamgrWorld;
        addProfiles_(*world_);
        world_->StartManager();
        ASSERT_TRUE(Eventually([] { return Manager() != nullptr; }));
    }
    void TearDown() override
    {
        if (testing::UnitTest::GetInstance()->Failed()) {
            fputs(FileText(world_->LogFile()).c_str(), stderr);
        }
        EXPECT_EQ(world_->EndManager(SIGTERM), 0);
        delete world_;
    }
    static const SamgrWorld& Get() { return *world_; }

private:
    const AddProfiles addProfiles_;
    static inline SamgrWorld* world_ = nullptr;
};

inline int64_t CountLines(const RecordingLogSink& sink, const std::string& text)
{
    const auto lines = sink.Messages();
    return std::count_if(lines.begin(), lines.end(), [&](const RecordedMessage& line) { return line.text == text; });
}

}  // namespace VEXA::test
