// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>

#include <atomic>

#include "client_world.h"

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

private:
    void* const handle_;
};

TEST(ClientUnload, TheServicesDeathAfterTheLastUnloadHarmsNobody)
{
    ClientWorld world;
    std::filesystem::create_directory(world.Source() + "/package");
    world.StartManager();
    ASSERT_TRUE(Eventually([] { return IsAnswered(LoadedLibrary().Kits()); }));
    const pid_t service = world.Service();
    ASSERT_GT(service, 0);
    static std::atomic<int> events{0};
    for (int round = 0; round < 20; ++round) {
        const LoadedLibrary library;
        events = 0;
        ASSERT_EQ(library.Kits().On({[](const MigrateStage&, const EventInfo&) { ++events; }}), 0) << round;
        ASSERT_TRUE(IsAnswered(library.Kits()) && Eventually([] { return events > 0; })) << round;
    }

    // The unloaded library starts the next instance for its callback, and is the same when it is loaded again.
    EXPECT_EQ(kill(service, SIGKILL), 0);
    EXPECT_TRUE(Eventually([&] { return world.Service() > 0 && world.Service() != service; }));
    const LoadedLibrary library;
    events = 0;
    EXPECT_TRUE(Eventually([&] { return IsAnswered(library.Kits()) && events > 0; }));
    EXPECT_EQ(library.Kits().Off(), 0);
    EXPECT_EQ(world.EndManager(SIGTERM), 0);
}

}  // namespace
