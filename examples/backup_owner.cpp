// SPDX-License-Identifier: Apache-2.0
// Asks the service to make what was migrated this user's backup files, and waits for its word.
#include <chrono>
#include <cstdio>
#include <future>

#include "native_migrate/migrate_server_kits.h"
#include "native_migrate/set_backup_file_own_stub.h"

using namespace VEXA::UpdateEngine;

namespace {

class Owner : public SetBackupFileOwnStub {
public:
    // Runs on a thread of the library's pool, once for each notice.
    void OnSetBackupFileOwnFinished(int32_t errorCode) override
    {
        try {
            outcome_.set_value(errorCode);
        } catch (const std::future_error&) {
            // A second notice says nothing new.
        }
    }
    std::future<int32_t> Outcome() { return outcome_.get_future(); }

private:
    std::promise<int32_t> outcome_;
};

}  // namespace

int main(int argc, char** argv)
{
    if (argc > 1) {
        fprintf(stderr, "backup_owner: not expected: %s\n", argv[1]);
        return 2;
    }
    const VEXA::sptr<Owner> owner(new Owner);
    std::future<int32_t> outcome = owner->Outcome();
    const int32_t result =
        MigrateServerKits::GetKitsInstance().SetBackupFileOwn(VEXA::sptr<ISetBackupFileOwnInterface>(owner));
    if (result != 0) {
        fprintf(stderr, "the request was not taken: %d\n", result);
        return 1;
    }
    // The notice does not come when the service dies meanwhile: the wait has an end.
    if (outcome.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        fprintf(stderr, "the service did not say that it has finished\n");
        return 1;
    }
    const int32_t code = outcome.get();
    printf("finished with %d\n", code);
    return code == 0 ? 0 : 1;
}
