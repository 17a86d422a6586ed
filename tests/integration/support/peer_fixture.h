// SPDX-License-Identifier: Apache-2.0
// A test with a hub process and as many more as it asks for.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/processes.h"
#include "support/test_object.h"

namespace VEXA::test {

class PeerTest : public testing::Test {
protected:
    void SetUp() override
    {
        static const TestRuntime runtime;
        hubProcess_ = ChildProcess({BesideMe("ipc_peer"), "hub"});
        ASSERT_TRUE(Eventually([this] {
            hub_ = GetContextObject();
            return hub_ != nullptr && Call(hub_, ADD_ONE).Int(1).Answer() == 2;
        }));
    }

    // The object of another process, which is started for it.
    sptr<IRemoteObject> Start(const std::string& name, ChildProcess& process)
    {
        process = ChildProcess({BesideMe("ipc_peer"), name});
        sptr<IRemoteObject> object;
        EXPECT_TRUE(Eventually([&] {
            object = Fetch(name);
            return object != nullptr && !object->IsObjectDead();
        }));
        return object;
    }
    sptr<IRemoteObject> Fetch(const std::string& name) { return Call(hub_, FETCH).Text(name).AnswerObject(); }
    static bool TableSettlesAt(const sptr<IRemoteObject>& object, int32_t size)
    {
        return Eventually([&] { return Call(object, TABLE_SIZE).Answer() == size; });
    }
    static int64_t ResidentBytes(pid_t pid)
    {
        int64_t all = 0;
        int64_t resident = 0;
        std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> all >> resident;
        return resident * sysconf(_SC_PAGESIZE);
    }

    ChildProcess hubProcess_;
    sptr<IRemoteObject> hub_;
};

}  // namespace VEXA::test
