// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <array>
#include <chrono>

#include "own_services.h"
#include "samgr_protocol.h"
#include "vexa/ipc/ipc_object_stub.h"

namespace VEXA::samgr {
namespace {

// Otherwise a new manager would keep what the service has just withdrawn from it.
TEST(OwnServicesTest, WhatChangesWhileAManagerIsToldIsToldAgain)
{
    const sptr<IRemoteObject> first(new IPCObjectStub);
    const sptr<IRemoteObject> second(new IPCObjectStub);
    std::vector<std::pair<int32_t, sptr<IRemoteObject>>> told;
    OwnServices* own = nullptr;
    OwnServices services([&](int32_t id, const sptr<IRemoteObject>& object) {
        told.emplace_back(id, object);
        if (object == first) {
            own->Replace(id, id == 1 ? nullptr : second);
        }
        return SAMGR_OK;
    });
    own = &services;
    EXPECT_EQ(services.Replace(1, first), nullptr);
    services.Replace(2, first);
    services.Replace(3, second);
    services.TellAll();
    const decltype(told) expected{{1, first}, {1, nullptr}, {2, first}, {2, second}, {3, second}};
    EXPECT_EQ(told, expected);
    EXPECT_EQ(services.Replace(1, nullptr), nullptr) << "it was withdrawn for good";
}

// The first attempts may reach the old manager, whose end is not known yet.
TEST(OwnServicesTest, AManagerThatCanNotBeReachedIsToldAgainButNotForEver)
{
    const std::array<int32_t, 3> cases[] = {// error, how often, attempts
        {IPC_DEAD_OBJECT, 10, 11}, {IPC_CONNECTION_LOST, 10, 11}, {IPC_DEAD_OBJECT, 99, 20}, {SAMGR_BUSY, 99, 1}};
    for (const auto& [error, failures, expected] : cases) {
        int told = 0;
        OwnServices services([&told, error = error, failures = failures](int32_t, const sptr<IRemoteObject>&) {
            return ++told <= failures ? error : int32_t{SAMGR_OK};
        });
        services.Replace(1, sptr<IRemoteObject>(new IPCObjectStub));
        const auto start = std::chrono::steady_clock::now();
        services.TellAll();
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(told, expected) << error;
        EXPECT_TRUE(took >= (expected - 1) * std::chrono::milliseconds(10) && took < std::chrono::seconds(1));
    }
}

}  // namespace
}  // namespace VEXA::samgr
