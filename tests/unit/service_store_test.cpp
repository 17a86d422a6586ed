// SPDX-License-Identifier: Apache-2.0
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
    std::string File() const { return folders_.Root() / "state.db"; }

    Folders folders_;
    std::string error_;
};

TEST_F(ServiceStore, EverythingThatIsCommittedIsThereAfterAReopen)
{
    Task task;
    task.kind = TaskKind::RESTORE;
    task.source = "odd \n\xff'name";
    task.app.packageName = "com.\"x\"";
    task.user = -5;
    task.status = TaskStatus::FAILED;
    task.error = {7, "why", true};
    task.totalBytes = int64_t{1} << 60;
    task.priority = -3;
    task.staged = {1, INT64_MAX, 3};
    uint32_t id = 0;
    {
        auto store = Open();
        ASSERT_NE(store, nullptr) << error_;
        id = store->Add(task).id;
        store->Erase(store->Add(task).id);
        EXPECT_TRUE(store->SavePlaced("t", {"s", "b", {1, 2, 3}, 77}));
        EXPECT_TRUE(store->Set(StateValue::START_TIME, 5) && store->SetPriority("s", 9) && store->SetPreset("{}"));
        const auto lost = store->Begin(IfNotWritten::TAKE_BACK);
        store->Add(task);
        store->Set(StateValue::START_TIME, 6);
    }
    auto store = Open();
    ASSERT_NE(store, nullptr) << error_;
    ASSERT_EQ(store->Tasks().size(), 1U);
    const auto fields = [](const Task& one) {
        return std::tuple(one.source, one.app.packageName, one.user, one.status, one.error.reason, one.error.canRetry,
            one.totalBytes, one.priority, one.staged);
    };
    EXPECT_EQ(fields(*store->Find(id)), fields(task));
    ASSERT_EQ(store->AllPlaced().size(), 1U);
    EXPECT_EQ(store->FindPlaced("t")->owner, 77);
    EXPECT_EQ(store->FindPlaced("t")->id, (FileId{1, 2, 3}));
    EXPECT_EQ(
        std::tuple(store->Get(StateValue::START_TIME), store->Priority("s"), store->Preset()), std::tuple(5, 9, "{}"));
    EXPECT_GT(store->Add(task).id, id + 1);  // the erased task's number stays its own
}

TEST_F(ServiceStore, OneServiceAtATimeAndOnlyItsOwnFiles)
{
    auto first = Open();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_NE(error_.find("locked"), std::string::npos) << error_;
    first.reset();
    ASSERT_TRUE(Database::Open(File(), error_)->Execute("PRAGMA user_version = 99"));
    EXPECT_EQ(Open(), nullptr);
    fs::remove(File());
    Folders::Write(File(), std::string(5000, 'n'));
    EXPECT_EQ(Open(), nullptr);
    EXPECT_FALSE(error_.empty());
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
