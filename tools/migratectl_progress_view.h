// SPDX-License-Identifier: Apache-2.0
// How the progress of a migration is shown: bars that move on a terminal, lines elsewhere.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "native_migrate/migrate_records.h"

namespace migratectl {

// Belongs to one thread.
class ProgressView {
public:
    ProgressView();

    // What every task is called and how it stands.
    void Refresh(const VEXA::UpdateEngine::MigrateInfo& info);
    // False when the event is of a task that Refresh has not named yet.
    bool Update(const VEXA::UpdateEngine::EventInfo& event);
    // Takes the bars away; what comes after is on lines of its own.
    void Finish();

private:
    struct Row {
        std::string name;
        int32_t status = 0;
        int32_t percent = 0;
        int64_t left = 0;
        // What the last line printed said: an event may be older than what was asked for.
        int32_t shownStatus = 0;
        int32_t shownTenth = -1;
    };

    void Apply(uint32_t id, int32_t status, int32_t percent, int64_t left);
    void PrintLine(Row& row) const;
    void Draw();
    void Erase();

    const bool isTerminal_;
    int barsDrawn_ = 0;
    VEXA::UpdateEngine::MigrateProgress progress_;
    std::map<uint32_t, Row> rows_;
};

}  // namespace migratectl
