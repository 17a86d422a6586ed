// SPDX-License-Identifier: Apache-2.0
// Draws the steps of three simulated processes from arbitrary bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "support/processes.h"
#include "transport_world.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    using namespace VEXA;
    static const test::TestRuntime runtime;
    if (!ipc::CreateRuntimeDirectory()) {
        return 0;
    }
    const uint8_t* const end = bytes + size;
    const auto next = [&] { return bytes < end ? *bytes++ : uint8_t{0}; };
    test::World world([&](size_t bound) { return (bound > 256 ? next() * size_t{256} + next() : next()) % bound; });
    while (bytes < end && world.Failure().empty()) {
        world.Step();
    }
    world.End();
    if (!world.Failure().empty()) {
        std::fprintf(stderr, "%s\n", world.Failure().c_str());
        std::abort();
    }
    return 0;
}
