// SPDX-License-Identifier: Apache-2.0
#include "migratectl_progress_view.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace migratectl {

namespace {

constexpr int32_t kRunning = static_cast<int32_t>(TaskStatus::RUNNING);
constexpr int32_t kPaused = static_cast<int32_t>(TaskStatus::PAUSED);

std::string Bar(int32_t percent)
{
    constexpr int32_t kWidth = 24;
    constexpr int32_t kAll = 100;
    const auto filled = static_cast<size_t>(std::clamp(percent, 0, kAll) * kWidth / kAll);
    return "[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "]";
}

std::string Percent(int64_t percent)
{
    const std::string text = std::to_string(percent) + "%";
    return std::string(text.size() < 4 ? 4 - text.size() : 0, ' ') + text;
}

}  // namespace

void ProgressView::Refresh(const MigrateInfo& info)
{
    const auto before = rows_.size();
    std::set<uint32_t> known;
    Erase();
    for (const TaskInfo& task : info.taskInfos) {
        known.insert(task.id);
        rows_[task.id].name = Clean(task.source);
        Apply(task.id, static_cast<int32_t>(task.status), task.progress, task.requiredTraffic);
    }
    ApplyWhole(info.migrateProgress, rows_.size() > before);
    std::erase_if(rows_, [&known](const auto& row) { return !known.contains(row.first); });
    Draw();
}

bool ProgressView::Update(const EventInfo& event)
{
    ApplyWhole(event.progress, false);
    bool areKnown = true;
    Erase();
    for (const TaskProgress& task : event.taskProgresses) {
        if (rows_.count(task.id) != 0) {
            Apply(task.id, task.status, task.progress, task.requiredTraffic);
        } else {
            areKnown = false;
        }
    }
    Draw();
    return areKnown;
}

void ProgressView::Apply(uint32_t id, int32_t status, int32_t percent, int64_t left)
{
    Row& row = rows_[id];
    row.status = status;
    if (percent >= row.percent) {
        row.percent = percent;
        row.left = left;
    }
    PrintLine(row);
}

void ProgressView::ApplyWhole(const MigrateProgress& progress, bool hasGrown)
{
    if (hasGrown || progress.percent >= progress_.percent) {
        progress_ = progress;
    }
}

void ProgressView::PrintLine(Row& row) const
{
    constexpr int32_t kTenth = 10;
    const bool isWorthALine = !IsTerminal() || HasEnded(row.status);
    const bool isFurther = row.status == kRunning && row.percent / kTenth > row.shownTenth;
    if (!isWorthALine || (row.status == row.shownStatus && !isFurther)) {
        return;
    }
    row.shownStatus = row.status;
    row.shownTenth = row.percent / kTenth;
    printf("%s %-8s %s\n", Percent(row.percent).c_str(), StatusName(row.status), row.name.c_str());
    fflush(stdout);
}

// One line of the screen, never two: the bars are redrawn by their number.
void ProgressView::PrintCut(const std::string& text) const
{
    printf("%s\x1b[K\n", Fit(text, width_() - 1).c_str());
}

void ProgressView::Draw()
{
    if (!IsTerminal()) {
        return;
    }
    for (const auto& [id, row] : rows_) {
        if (row.status == kRunning || row.status == kPaused) {
            PrintCut(Percent(row.percent) + " " + Bar(row.percent) + " " + ShowBytes(row.left) +
                     (row.status == kPaused ? " left, paused  " : " left  ") + row.name);
            barsDrawn_++;
        }
    }
    const auto seconds = static_cast<int64_t>(progress_.remainingTime);
    PrintCut(Percent(progress_.percent) + " in all, " + ShowBytes(progress_.requiredTraffic) +
             (seconds > 0 ? " and " + ShowNumber("remainingTime", seconds) : "") + " left");
    barsDrawn_++;
    fflush(stdout);
}

void ProgressView::Erase()
{
    if (barsDrawn_ > 0) {
        printf("\x1b[%dA\x1b[J", barsDrawn_);
    }
    barsDrawn_ = 0;
}

}  // namespace migratectl
