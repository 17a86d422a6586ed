// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace VEXA::samgr
