// SPDX-License-Identifier: Apache-2.0
// Shows the progress of a migration: by bars that move on a terminal, by lines elsewhere.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "migratectl_output.h"

namespace migratectl {

// Shows percentages that never go back, even when events come late or a task begins anew; only the whole falls when
// packages are added. Belongs to one thread.
class ProgressView {
public:
    explicit ProgressView(ScreenWidth width) : width_(width) {}

    // Takes over the name and the state of every task.
    void Refresh(const MigrateInfo& info);
    // False when the event is of a task that Refresh has not named yet.
    bool Update(const EventInfo& event);
    // Takes the bars away; later output is on lines of its own.
    void Erase();

private:
    struct Row {
        std::string name;
        int32_t status = 0;
        int32_t percent = 0;
        int64_t left = 0;
        // The status and the tenth of the way in the line that was printed last.
        int32_t shownStatus = 0;
        int32_t shownTenth = -1;
    };

    void Apply(uint32_t id, int32_t status, int32_t percent, int64_t left);
    void ApplyWhole(const MigrateProgress& progress, bool hasGrown);
    bool IsTerminal() const { return width_() > 0; }
    void PrintCut(const std::string& text) const;
    void PrintLine(Row& row) const;
    void Draw();

    const ScreenWidth width_;
    int barsDrawn_ = 0;
    MigrateProgress progress_;
    std::map<uint32_t, Row> rows_;
};

}  // namespace migratectl
