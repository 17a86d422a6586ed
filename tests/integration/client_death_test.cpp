// SPDX-License-Identifier: Apache-2.0
// The migration client while its service is killed.
#include <atomic>
#include <set>

#include "client_world.h"
#include "native_migrate/migrate_server_kits.h"

using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

[[maybe_unused]] const auto* const environment =
    testing::AddGlobalTestEnvironment(new ClientWorld([](const SamgrWorld& world) {
        world.AddProfile(MIGRATE_SERVICE_ID, SAMGR_PEER, R"(, "arguments": ["migrate", "65792"])");
    }));

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

ProgressCallback CountInto(std::atomic<int>& count)
{
    return {[&count](const MigrateStage&, const EventInfo&) { ++count; }};
}

// Its notice comes right after the library's own.
class CallAtDeath : public IRemoteObject::DeathRecipient {
public:
    void OnRemoteDied(const wptr<IRemoteObject>&) override { next = StartedBy(); }
    std::atomic<pid_t> next{0};
};

TEST(ClientDeath, ARequestInTheInstantOfADeathReachesTheNextInstance)
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

TEST(ClientDeath, OnAndOffWhileTheServiceComesBackAreTheLastWord)
{
    pid_t pid = StartedBy();
    RecordingLogSink lines(KOLOG_INFO);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        std::atomic<int> earlier{0};
        std::atomic<int> later{0};
        ASSERT_EQ(Kits().On(CountInto(earlier)), 0);
        const sptr<IRemoteObject> before = Manager()->CheckSystemAbility(MIGRATE_SERVICE_ID);
        lines.Clear();
        ASSERT_TRUE(pid > 0 && kill(pid, SIGKILL) == 0);
        ASSERT_TRUE(Eventually([&] { return CountLines(lines, "GetService recreate service instance") == 1; }));
        const bool isOn = round % 2 == 0;
        ASSERT_EQ(isOn ? Kits().On(CountInto(later)) : Kits().Off(), 0);
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
