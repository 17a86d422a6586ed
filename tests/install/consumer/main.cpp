// SPDX-License-Identifier: Apache-2.0
// A user's program, built against the installed package alone.
#include "native_migrate/load_sa_service.h"
#include "native_migrate/migrate_server_kits.h"
#include "native_migrate/reserve_migrate_kits.h"
#include "vexa/testing/recording_log_sink.h"

int main()
{
    using namespace VEXA::UpdateEngine;
    // No manager can be reached in this environment, so the answer is the one for an unreachable service.
    BusinessError error;
    return MigrateServerKits::GetKitsInstance().StartMigrate(error) == 104 ? 0 : 1;
}
