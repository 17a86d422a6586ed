// SPDX-License-Identifier: Apache-2.0
#include "json_from_struct.h"
#include "service_fixture.h"
#include "task_store.h"

namespace VEXA::UpdateEngine::test {
namespace {

class ServiceStore : public testing::Test {
protected:
    std::unique_ptr<TaskStore> Open()
    {
        error_.clear();
        return TaskStore::Open(File(), error_);
    }
    // Why it can't be opened, without the file's name.
    std::string Refusal()
    {
        EXPECT_EQ(Open(), nullptr);
        return error_.substr(error_.rfind(": ") + 2);
    }
    std::string File() const { return folders_.Root() / "state.db"; }

    Folders folders_;
    std::string error_;
};

// Also when the disk has had no room, and gets everything with the next transaction.
TEST_F(ServiceStore, EverythingThatIsCommittedIsThereAfterAReopen)
{
    Task task;
    task.kind = TaskKind::RESTORE;
    task.source = "odd \n\xff'name";
    task.target = "t";
    task.app.packageName = "com.\"x\"";
    task.user = -5;
    task.status = TaskStatus::FAILED;
    task.subStatus = 8;
    task.error = {7, "why", true};
    task.totalBytes = int64_t{1} << 60;
    task.doneBytes = 11;
    task.files = 12;
    task.priority = -3;
    task.staged = {INT64_MAX, 3};
    const Placed placed{"s", {2, 3}, 77, true};
    const auto fields = [](const TaskStore& store) {
        const Task& one = *store.Tasks().Find(1);
        const Placed& there = *store.FindPlaced("t");
        return std::tuple(one.source, one.target, one.user, one.subStatus, ToJson(one.AsRestoreEvent()), one.totalBytes,
            one.doneBytes, one.files, one.priority, one.staged, there.source, there.id, there.owner, there.isLeaving,
            store.Tasks().ById().size(), store.AllPlaced().size(), store.Get(StateValue::START_TIME),
            store.Priority("s"), store.Preset());
    };
    const std::tuple expected(task.source, task.target, task.user, task.subStatus, ToJson(task.AsRestoreEvent()),
        task.totalBytes, task.doneBytes, task.files, task.priority, task.staged, placed.source, placed.id, placed.owner,
        placed.isLeaving, size_t{1}, size_t{1}, int64_t{5}, 9, std::string("{}"));
    for (const bool isLate : {false, true}) {
        fs::remove(File());
        auto store = Open();
        ASSERT_NE(store, nullptr) << error_;
        g_isStateFull = isLate;
        store->Begin(IfNotWritten::KEEP);
        store->Add(task);
        store->Erase(store->Add(task)->id);
        store->SavePlaced("t", &placed);
        store->SetPriority("s", 9);
        store->SetPreset("{}");
        EXPECT_EQ(store->Commit(), !isLate);
        if (isLate) {
            store->TakeBack();
        }
        g_isStateFull = false;
        store->Begin(IfNotWritten::TAKE_BACK);
        store->Set(StateValue::START_TIME, 6);
        store->Add(task);
        store->SavePlaced("t", nullptr);
        store->SetPriority("s", 1);
        store->ClearPriorities();
        store->SetPreset("[]");
        store->TakeBack();
        store->Begin(IfNotWritten::TAKE_BACK);
        store->Set(StateValue::START_TIME, 5);
        EXPECT_TRUE(store->Commit());
        EXPECT_EQ(fields(*store), expected);
        store.reset();
        store = Open();
        ASSERT_NE(store, nullptr) << error_;
        EXPECT_EQ(fields(*store), expected);
        store->Begin(IfNotWritten::KEEP);
        EXPECT_EQ(store->Add(task)->id, 3U);  // the erased task's number stays its own
    }
}

TEST_F(ServiceStore, OneServiceAtATimeAndNoFileThatAnotherHasPutThere)
{
    auto first = Open();
    ASSERT_NE(first, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Refusal(), "database is locked");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    first.reset();
    const char* const kForeign = "is not a plain file of the service's user, with one name";
    for (const std::string suffix : {"", "-wal", "-journal"}) {
        fs::remove(File());
        Folders::Write(folders_.Root() / "other", "");
        fs::create_symlink("other", File() + suffix);
        EXPECT_EQ(Refusal(), kForeign) << suffix;
        fs::remove(File() + suffix);
        fs::create_hard_link(folders_.Root() / "other", File() + suffix);
        EXPECT_EQ(Refusal(), kForeign) << suffix;
        fs::remove(folders_.Root() / "other");
        if (chown((File() + suffix).c_str(), 12345, 12345) == 0) {
            EXPECT_EQ(Refusal(), kForeign) << suffix;
        }
        fs::remove(File() + suffix);
    }
}

// Every page in turn is zeros, or something else.
TEST_F(ServiceStore, ADamagedStateIsNoticedAndSetAside)
{
    constexpr size_t kPage = 4096;
    Task task;
    task.app.appName = std::string(200, 'n');
    {
        const auto store = Open();
        store->Begin(IfNotWritten::KEEP);
        for (int i = 0; i < 100; ++i) {
            task.source = task.target = std::to_string(i);
            store->Add(task);
            const Placed placed{task.source, {i, i}};
            store->SavePlaced(task.target, &placed);
        }
        EXPECT_TRUE(store->Commit());
    }
    const std::string whole = FileText(File());
    ASSERT_GT(whole.size(), 10 * kPage);
    const RecordingLogSink log;
    size_t count = 0;
    for (size_t at = 0; at < whole.size(); at += kPage) {
        for (const char filling : {'\0', 'x'}) {
            std::string damaged = whole;
            damaged.replace(at, kPage, std::string(kPage, filling));
            Folders::Write(File(), damaged);
            const auto store = Open();
            ASSERT_NE(store, nullptr) << error_;
            EXPECT_TRUE(store->Tasks().ById().empty()) << "page " << at / kPage;
            std::multiset<std::string> aside;
            for (const auto& entry : fs::directory_iterator(folders_.Root())) {
                if (entry.path().string().find(".damaged-") != std::string::npos) {
                    aside.insert(FileText(entry.path()));
                }
            }
            EXPECT_TRUE(aside.size() == ++count && aside.contains(damaged)) << "page " << at / kPage;
            EXPECT_NE(log.Messages().back().text.find("the state is damaged and is set aside: "), std::string::npos);
        }
    }
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
