// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "support/processes.h"
#include "transport_world.h"

namespace VEXA::test {
namespace {

uint64_t Setting(const char* name, uint64_t otherwise)
{
    const char* const given = getenv(name);
    return given != nullptr ? std::strtoull(given, nullptr, 10) : otherwise;
}

// SIMULATION_SEED brings a failure back, SIMULATION_STEPS sets how far to go.
TEST(Simulation, BooksAgreeWhateverHappensBetweenThreeProcesses)
{
    const TestRuntime runtime;
    ASSERT_TRUE(ipc::CreateRuntimeDirectory());
    const uint64_t seed = Setting("SIMULATION_SEED", 1);
    std::mt19937_64 random(seed);
    World world([&](size_t bound) { return random() % bound; });
    for (uint64_t left = Setting("SIMULATION_STEPS", STEPS); left > 0 && world.Failure().empty(); --left) {
        world.Step();
    }
    world.GoOnForLong();
    world.End();
    EXPECT_EQ(world.Failure(), "") << "SIMULATION_SEED=" << seed;
}

}  // namespace
}  // namespace VEXA::test
