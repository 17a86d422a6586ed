// SPDX-License-Identifier: Apache-2.0
// The migration client while its service is killed.
#include <algorithm>
#include <atomic>
#include <optional>
#include <set>

#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_server_kits.h"
#include "samgr_world.h"
#include "vexa/samgr/system_ability_manager_client.h"
#include "vexa/testing/recording_log_sink.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

sptr<ISystemAbilityManager> Manager()
{
    return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
}

class ClientDeath : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        world_.emplace().AddProfile(MIGRATE_SERVICE_ID, SAMGR_PEER, R"(, "arguments": ["migrate", "65792"])");
        world_->StartManager();
        ASSERT_TRUE(Eventually([] { return Manager() != nullptr; }));
    }
    static void TearDownTestSuite()
    {
        EXPECT_EQ(world_->EndManager(SIGTERM), 0);
        world_.reset();
    }

private:
    static inline std::optional<SamgrWorld> world_;
};

MigrateServerKits& Kits()
{
    return MigrateServerKits::GetKitsInstance();
}

// The process that has answered; -1 on failure.
pid_t StartedBy()
{
    BusinessError error;
    return Kits().StartMigrate(error) == 0 ? error.errorNum : -1;
}

const RecordedMessage LOOKUP{KOLOG_INFO, "migrate_server_kits_impl.cpp", "GetService recreate service instance"};

// Its notice comes right after the library's own.
class CallAtDeath : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override { next = StartedBy(); }
    std::atomic<pid_t> next{0};
};

TEST_F(ClientDeath, ARequestInTheInstantOfADeathReachesTheNextInstance)
{
    pid_t pid = StartedBy();
    std::set<pid_t> instances{pid};
    for (int round = 0; round < INSTANT_DEATHS; ++round) {
        const sptr<IRemoteObject> service = Manager()->CheckSystemAbility(MIGRATE_SERVICE_ID);
        const sptr<CallAtDeath> watch(new CallAtDeath);
        ASSERT_TRUE(service != nullptr && service->AddDeathRecipient(watch)) << round;
        ASSERT_TRUE(pid > 0 && kill(pid, SIGKILL) == 0) << round;
        ASSERT_TRUE(Eventually([&] { return watch->next != 0; })) << round;
        pid = watch->next;
        ASSERT_TRUE(pid > 0 && instances.insert(pid).second) << round;
    }
}

TEST_F(ClientDeath, OnAndOffWhileTheServiceComesBackAreTheLastWord)
{
    pid_t pid = StartedBy();
    RecordingLogSink lines(KOLOG_INFO);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        std::atomic<int> earlier{0};
        std::atomic<int> later{0};
        ASSERT_EQ(Kits().On({[&](auto&&...) { ++earlier; }}), 0);
        const sptr<IRemoteObject> before = Manager()->CheckSystemAbility(MIGRATE_SERVICE_ID);
        lines.Clear();
        ASSERT_TRUE(pid > 0 && kill(pid, SIGKILL) == 0);
        ASSERT_TRUE(Eventually([&] { return std::ranges::count(lines.Messages(), LOOKUP) == 1; }));
        const bool isOn = round % 2 == 0;
        ASSERT_EQ(isOn ? Kits().On({[&](auto&&...) { ++later; }}) : Kits().Off(), 0);
        // Its notice comes when the library's handler has ended.
        const sptr<CallAtDeath> watch(new CallAtDeath);
        ASSERT_TRUE(before->AddDeathRecipient(watch));
        ASSERT_TRUE(Eventually([&] { return watch->next > 0; }));
        pid = watch->next;
        ASSERT_EQ(earlier, 0);
        ASSERT_EQ(later, isOn ? 1 : 0);
        ASSERT_EQ(Kits().Off(), 0);
    }
}

}  // namespace
