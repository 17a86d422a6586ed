// SPDX-License-Identifier: Apache-2.0
// The migration client while its service is killed.
#include <atomic>
#include <set>

#include "native_migrate/load_sa_service.h"
#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_server_kits.h"
#include "samgr_world.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/samgr/system_ability_manager_client.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

// The process that has answered; -1 on failure.
pid_t StartedBy()
{
    BusinessError error;
    return MigrateServerKits::GetKitsInstance().StartMigrate(error) == 0 ? error.errorNum : -1;
}

sptr<ISystemAbilityManager> Manager()
{
    return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
}

class CallAtDeath : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        const sptr<IRemoteObject> service = Manager()->LoadSystemAbility(MIGRATE_SERVICE_ID, 5);
        pid_t pid = -1;
        // The library's own recipient may have begun a moment ago only.
        next = service && !service->IsObjectDead() && Eventually([&] { return (pid = StartedBy()) > 0; }) ? pid : -1;
    }
    std::atomic<pid_t> next{0};
};

TEST(ClientDeath, ALookupInTheInstantOfADeathGivesTheNextInstance)
{
    SamgrWorld world;
    world.AddProfile(MIGRATE_SERVICE_ID, SAMGR_PEER, R"(, "arguments": ["migrate", "65792"])");
    world.StartManager();
    ASSERT_TRUE(Eventually([] { return Manager() != nullptr; }));
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
    // A load in a callback does not wait for the callback's own thread, which is the only one.
    IPCSkeleton::SetMaxWorkThreads(1);
    bool isLoaded = false;
    const auto load = [&](auto&&...) { isLoaded = LoadSaService::GetInstance()->TryLoadSa(MIGRATE_SERVICE_ID); };
    EXPECT_EQ(MigrateServerKits::GetKitsInstance().On({load}), 0);
    EXPECT_GT(StartedBy(), 0);
    EXPECT_TRUE(isLoaded);
    EXPECT_EQ(world.EndManager(SIGTERM), 0);
}

}  // namespace
