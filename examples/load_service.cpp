// SPDX-License-Identifier: Apache-2.0
// Starts the system service whose number is given and says whether it runs.
#include <cstdio>
#include <cstdlib>

#include "native_migrate/load_sa_service.h"
#include "vexa/samgr/system_ability_manager_client.h"

using namespace VEXA::UpdateEngine;

int main(int argc, char** argv)
{
    const int32_t id = argc == 2 ? atoi(argv[1]) : 0;
    if (id <= 0) {
        fprintf(stderr, "usage: load_service NUMBER, not %s\n", argv[argc - 1]);
        return 2;
    }
    // Blocks for up to 5 seconds; why a load failed is in the log.
    if (!LoadSaService::GetInstance()->TryLoadSa(id)) {
        fprintf(stderr, "service %d does not run\n", id);
        return 1;
    }
    // Its object, to be called through a proxy of its interface.
    const auto manager = VEXA::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const bool isThere = manager != nullptr && manager->CheckSystemAbility(id) != nullptr;
    printf("service %d %s\n", id, isThere ? "runs" : "has ended again");
    return isThere ? 0 : 1;
}
