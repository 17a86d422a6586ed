// SPDX-License-Identifier: Apache-2.0
// A manager, which the test starts, with the reference service, which moves what is in one folder to another.
#pragma once

#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_server_kits.h"
#include "samgr_world.h"

namespace VEXA::test {

class ClientWorld : public SamgrWorld {
public:
    // `options`: further arguments of the service, as JSON.
    explicit ClientWorld(const std::string& options = "")
    {
        std::filesystem::create_directory(Source());
        std::filesystem::create_directory(Target());
        AddProfile(UpdateEngine::MIGRATE_SERVICE_ID, MIGRATE_SERVICED,
            R"(, "startTimeout": 20, "arguments": ["--source", ")" + Source() + R"(", "--target", ")" + Target() +
                R"(", "--state", ")" + Target() + R"(.state", "--no-sync")" + options + "]");
    }

    std::string Source() const { return Folder() + "/source"; }
    std::string Target() const { return Folder() + "/target"; }
    // The service's process; -1 while there is none.
    pid_t Service() const
    {
        const std::string manager = std::to_string(Manager().Pid());
        std::ifstream children("/proc/" + manager + "/task/" + manager + "/children");
        pid_t child = -1;
        // The kernel cuts the name.
        while (children >> child &&
               (FileText("/proc/" + std::to_string(child) + "/comm") != "migrate_service\n" || !IsRunning(child))) {
        }
        return children ? child : -1;
    }
};

inline bool IsAnswered(UpdateEngine::MigrateServerKits& kits)
{
    UpdateEngine::BusinessError error;
    return kits.StartMigrate(error) == 0;
}

}  // namespace VEXA::test
