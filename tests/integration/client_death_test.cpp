// SPDX-License-Identifier: Apache-2.0
// The migration client while its service is killed.
#include <atomic>
#include <set>

#include "client_world.h"
#include "vexa/samgr/system_ability_manager_client.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

class AskAtDeath : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
        const sptr<IRemoteObject> service = manager->LoadSystemAbility(MIGRATE_SERVICE_ID, 5);
        // The library's own recipient may have begun a moment ago only.
        const auto ask = [] { return IsAnswered(MigrateServerKits::GetKitsInstance()); };
        answers += service && !service->IsObjectDead() && Eventually(ask) ? 1 : -1;
    }
    std::atomic<int> answers{0};
};

TEST(ClientDeath, ALookupInTheInstantOfADeathGivesTheNextInstance)
{
    SamgrWorld world;
    world.AddProfile(MIGRATE_SERVICE_ID, SAMGR_PEER, R"(, "arguments": ["serve", "65792"])");
    world.StartManager();
    ASSERT_TRUE(Eventually([] { return IsAnswered(MigrateServerKits::GetKitsInstance()); }));
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    ASSERT_NE(manager, nullptr);
    const sptr<AskAtDeath> watch(new AskAtDeath);
    std::set<pid_t> instances;
    for (int round = 0; round < INSTANT_DEATHS && !HasFailure(); ++round) {
        pid_t pid = -1;  // the one before may still be ending
        const auto isNew = [&] {
            return (pid = PidOfProgram(world, "samgr_peer")) > 0 && instances.insert(pid).second;
        };
        ASSERT_TRUE(Eventually(isNew)) << round;
        const sptr<IRemoteObject> service = manager->CheckSystemAbility(MIGRATE_SERVICE_ID);
        EXPECT_TRUE(service != nullptr && service->AddDeathRecipient(watch) && kill(pid, SIGKILL) == 0) << round;
        EXPECT_TRUE(Eventually([&] { return watch->answers != round; })) << round;
        EXPECT_EQ(watch->answers, round + 1);
    }
    EXPECT_EQ(world.EndManager(SIGTERM), 0);
}

}  // namespace
