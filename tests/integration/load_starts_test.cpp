// SPDX-License-Identifier: Apache-2.0
// The loader and the manager: concurrent loads, and failed ones.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "client_world.h"
#include "native_migrate/load_sa_service.h"

using namespace std::chrono_literals;
using namespace VEXA;
using namespace VEXA::test;
using namespace VEXA::UpdateEngine;
using std::chrono::steady_clock;

namespace {

constexpr int32_t kFirst = 101;
constexpr int32_t kServices = 10;
constexpr int32_t kShared = kFirst + kServices;
constexpr int32_t kFails = 300;
constexpr int32_t kMissing = 301;
constexpr int32_t kHangs = 302;

void AddProfiles(const SamgrWorld& world)
{
    for (int32_t id = kFirst; id <= kShared; ++id) {
        // Appends its number to the file when it starts.
        world.AddProfile(
            id, CLIENT_PEER, ", \"arguments\": [\"" + std::to_string(id) + "\", \"" + world.Folder() + "/starts\"]");
    }
    world.AddProfile(kFails, "/bin/false", "");
    world.AddProfile(kMissing, "/no/such/program", "");
    world.AddProfile(kHangs, "/bin/sleep", R"(, "arguments": ["60"], "startTimeout": 1)");
}

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new ClientWorld(&AddProfiles));

// The loader has one outcome for the whole process, so after it each thread asks the manager for its own service.
TEST(LoadStarts, TenThreadsStartEachProgramOnce)
{
    std::vector<pid_t> shared(kServices);
    std::vector<std::thread> threads;
    for (int32_t index = 0; index < kServices; ++index) {
        threads.emplace_back([&shared, index] {
            const int32_t own = kFirst + index;
            EXPECT_TRUE(LoadSaService::GetInstance()->TryLoadSa(kShared)) << index;
            EXPECT_TRUE(LoadSaService::GetInstance()->TryLoadSa(own)) << index;
            EXPECT_GT(Peer(Manager()->LoadSystemAbility(own, 5)).Ask(PEER_PID), 0) << index;
            shared[static_cast<size_t>(index)] = Peer(Manager()->LoadSystemAbility(kShared, 5)).Ask(PEER_PID);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(shared[0], 0);
    EXPECT_EQ(std::count(shared.begin(), shared.end(), shared[0]), kServices);

    std::multiset<int32_t> starts;
    std::ifstream file(ClientWorld::Get().Folder() + "/starts");
    for (int32_t id = 0; file >> id;) {
        starts.insert(id);
    }
    EXPECT_EQ(starts.size(), size_t{kServices} + 1);
    EXPECT_TRUE(std::adjacent_find(starts.begin(), starts.end()) == starts.end()) << "one was started twice";
}

TEST(LoadStarts, AFailedLoadIsFalseSoonAndLeavesItsLines)
{
    for (const int32_t id : {kFails, kMissing, kHangs}) {
        RecordingLogSink lines(KOLOG_INFO);
        const auto start = steady_clock::now();
        EXPECT_FALSE(LoadSaService::GetInstance()->TryLoadSa(id)) << id;
        EXPECT_LT(steady_clock::now() - start, 3s) << id;
        std::vector<std::string> texts;
        for (const auto& message : lines.Messages()) {
            if (message.file == "load_sa_service.cpp") {
                texts.push_back(message.text);
            }
        }
        // The callback's line may come before the one that opens the wait.
        const std::string number = std::to_string(id);
        EXPECT_THAT(texts, testing::UnorderedElementsAre("SystemAbility Load fail the systemAbilityId is: " + number,
                               "Waiting for CheckSaLoaded", "found OnLoad result: failed",
                               "systemAbilityId: " + number + ", CheckSaLoaded failed"));
    }
    RecordingLogSink lines(KOLOG_INFO);
    EXPECT_FALSE(LoadSaService::GetInstance()->TryLoadSa(400));
    EXPECT_EQ(CountLines(lines, "systemAbilityId: 400, load failed, result code: 2"), 1);
    EXPECT_TRUE(LoadSaService::GetInstance()->TryLoadSa(kShared));
}

}  // namespace
