// SPDX-License-Identifier: Apache-2.0
#include "migratectl_progress_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "migratectl_output.h"

namespace migratectl {

using namespace VEXA::UpdateEngine;

namespace {

constexpr int32_t kRunning = static_cast<int32_t>(TaskStatus::RUNNING);
constexpr int32_t kPaused = static_cast<int32_t>(TaskStatus::PAUSED);

size_t TerminalWidth()
{
    constexpr size_t kUsual = 80;
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

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
    constexpr size_t kWidth = 4;
    return std::string(kWidth - std::min(kWidth, text.size()), ' ') + text;
}

// One line of the screen, never two: the bars are redrawn by their number.
void PrintCut(const std::string& text)
{
    printf("%s\x1b[K\n", text.substr(0, TerminalWidth() - 1).c_str());
}

}  // namespace

ProgressView::ProgressView() : isTerminal_(isatty(STDOUT_FILENO) == 1) {}

void ProgressView::Refresh(const MigrateInfo& info)
{
    progress_ = info.migrateProgress;
    std::set<uint32_t> known;
    Erase();
    for (const TaskInfo& task : info.taskInfos) {
        known.insert(task.id);
        rows_[task.id].name = Printable(task.source);
        Apply(task.id, static_cast<int32_t>(task.status), task.progress, task.requiredTraffic);
    }
    std::erase_if(rows_, [&known](const auto& row) { return !known.contains(row.first); });
    Draw();
}

bool ProgressView::Update(const EventInfo& event)
{
    progress_ = event.progress;
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
    row.percent = percent;
    row.left = left;
    PrintLine(row);
}

void ProgressView::PrintLine(Row& row) const
{
    constexpr int32_t kTenth = 10;
    const bool isWorthALine = isTerminal_ ? HasEnded(row.status) : row.status != 0;
    const bool isFurther = row.status == kRunning && row.percent / kTenth > row.shownTenth;
    if (!isWorthALine || (row.status == row.shownStatus && !isFurther)) {
        return;
    }
    row.shownStatus = row.status;
    row.shownTenth = row.percent / kTenth;
    printf("%s %-8s %s\n", Percent(row.percent).c_str(), StatusName(row.status), row.name.c_str());
    fflush(stdout);
}

void ProgressView::Draw()
{
    if (!isTerminal_) {
        return;
    }
    for (const auto& [id, row] : rows_) {
        if (row.status == kRunning || row.status == kPaused) {
            const std::string suffix = row.status == kPaused ? " paused" : "";
            PrintCut(Percent(row.percent) + " " + Bar(row.percent) + " " + ShowBytes(row.left) + " left  " + row.name +
                     suffix);
            barsDrawn_++;
        }
    }
    PrintCut(Percent(progress_.percent) + " in all, " + ShowBytes(progress_.requiredTraffic) + " and " +
             std::to_string(progress_.remainingTime) + " s left");
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

void ProgressView::Finish()
{
    Erase();
    fflush(stdout);
}

}  // namespace migratectl
