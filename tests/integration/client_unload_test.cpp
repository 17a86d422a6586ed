// SPDX-License-Identifier: Apache-2.0
// The library loaded and unloaded by a program that is not linked with it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>

#include "native_migrate/migrate_server_kits.h"
#include "samgr_world.h"

using namespace VEXA::test;
using namespace VEXA::UpdateEngine;

namespace {

class LoadedLibrary {
public:
    LoadedLibrary() : handle_(dlopen(NATIVE_MIGRATE, RTLD_NOW | RTLD_LOCAL)) {}
    ~LoadedLibrary() { EXPECT_EQ(dlclose(handle_), 0) << dlerror(); }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    MigrateServerKits& Kits() const
    {
        using Getter = MigrateServerKits& (*)();
        constexpr char kGetter[] = "_ZN4VEXA12UpdateEngine17MigrateServerKits15GetKitsInstanceEv";
        return reinterpret_cast<Getter>(dlsym(handle_, kGetter))();
    }
    // The process that has answered; -1 on failure.
    pid_t StartedBy() const
    {
        BusinessError error;
        return Kits().StartMigrate(error) == 0 ? error.errorNum : -1;
    }

private:
    void* const handle_;
};

TEST(ClientUnload, TheServicesDeathAfterTheLastUnloadHarmsNobody)
{
    SamgrWorld world;
    world.AddProfile(65792, SAMGR_PEER, R"(, "arguments": ["migrate", "65792"])");
    world.StartManager();
    pid_t service = -1;
    ASSERT_TRUE(Eventually([&] { return (service = LoadedLibrary().StartedBy()) > 0; }));
    static std::atomic<int> events{0};
    for (int round = 0; round < 20; ++round) {
        const LoadedLibrary library;
        ASSERT_EQ(library.Kits().On({[](const MigrateStage&, const EventInfo&) { ++events; }}), 0) << round;
        ASSERT_EQ(library.StartedBy(), service) << round;
    }
    EXPECT_EQ(events, 20);

    // The unloaded library starts the next instance for its callback, and is the same when it is loaded again.
    kill(service, SIGKILL);
    pid_t next = -1;
    EXPECT_TRUE(Eventually([&] {
        next = PidOfProgram(world, "samgr_peer");
        return next > 0 && next != service;
    }));
    const LoadedLibrary library;
    EXPECT_TRUE(Eventually([&] { return library.StartedBy() == next && events > 20; }));
    EXPECT_EQ(library.Kits().Off(), 0);
    EXPECT_EQ(world.EndManager(SIGTERM), 0);
}

}  // namespace
