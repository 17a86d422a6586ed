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
    // Why it can't be opened, without the file's name.
    std::string Refusal()
    {
        EXPECT_EQ(Open(), nullptr);
        return error_.substr(error_.rfind(": ") + 2);
    }
    // In a file that need not be the service's.
    void Execute(const char* sql)
    {
        std::ofstream(File(), std::ios::app).flush();
        bool isDamaged = false;
        ASSERT_TRUE(Database::Open(File(), error_, isDamaged)->Execute(sql));
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
    task.staged = {INT64_MAX, 3};
    uint32_t id = 0;
    {
        auto store = Open();
        ASSERT_NE(store, nullptr) << error_;
        store->Begin(IfNotWritten::KEEP);
        id = store->Add(task)->id;
        store->Erase(store->Add(task)->id);
        const Placed placed{"s", {2, 3}, 77, true};
        store->SavePlaced("t", &placed);
        store->Set(StateValue::START_TIME, 5);
        store->SetPriority("s", 9);
        store->SetPreset("{}");
        EXPECT_TRUE(store->Commit());
        store->Begin(IfNotWritten::TAKE_BACK);
        store->Add(task);
        store->Set(StateValue::START_TIME, 6);
    }
    auto store = Open();
    ASSERT_NE(store, nullptr) << error_;
    ASSERT_EQ(store->Tasks().ById().size(), 1U);
    const auto fields = [](const Task& one) {
        return std::tuple(one.source, one.app.packageName, one.user, one.status, one.error.reason, one.error.canRetry,
            one.totalBytes, one.priority, one.staged);
    };
    EXPECT_EQ(fields(*store->Tasks().Find(id)), fields(task));
    ASSERT_EQ(store->AllPlaced().size(), 1U);
    EXPECT_EQ(store->FindPlaced("t")->owner, 77);
    EXPECT_EQ(store->FindPlaced("t")->id, (FileId{2, 3}));
    EXPECT_TRUE(store->FindPlaced("t")->isLeaving);
    EXPECT_EQ(
        std::tuple(store->Get(StateValue::START_TIME), store->Priority("s"), store->Preset()), std::tuple(5, 9, "{}"));
    EXPECT_GT(store->Add(task)->id, id + 1);  // the erased task's number stays its own
}

TEST_F(ServiceStore, OneServiceAtATimeAndNoFileThatAnotherHasPutThere)
{
    auto first = Open();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(Refusal(), "database is locked");
    first.reset();
    Execute("PRAGMA user_version = 99");
    EXPECT_EQ(Refusal(), "is the state of a newer service, of version 99");
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
    for (size_t at = 0; at < whole.size(); at += kPage) {
        for (const char filling : {'\0', 'x'}) {
            std::string damaged = whole;
            damaged.replace(at, kPage, std::string(kPage, filling));
            Folders::Write(File(), damaged);
            const auto store = Open();
            ASSERT_NE(store, nullptr) << error_;
            EXPECT_TRUE(store->Tasks().ById().empty()) << "page " << at / kPage;
            fs::path aside;
            for (const auto& entry : fs::directory_iterator(folders_.Root())) {
                aside = entry.path().string().find(".damaged-") != std::string::npos ? entry.path() : aside;
            }
            EXPECT_EQ(FileText(aside), damaged) << "page " << at / kPage;
            fs::remove(aside);
        }
    }
}

TEST_F(ServiceStore, NoNameOfTheStateLeadsElsewhereAndAnOlderOneIsTakenOver)
{
    Execute(
        "CREATE TABLE task (id INTEGER PRIMARY KEY, kind, source, target, app, user, status, sub_status, error_code,"
        " error_reason, can_retry, total_bytes, done_bytes, files, priority, device, inode, birth);"
        "CREATE TABLE placed (target PRIMARY KEY, source, bundle_name, device, inode, birth, owner);"
        "CREATE TABLE value (key INTEGER PRIMARY KEY, value);"
        "CREATE TABLE priority (source PRIMARY KEY, value);"
        "CREATE TABLE preset (id INTEGER PRIMARY KEY, text);"
        "INSERT INTO task VALUES (1, 0, 'a', '../b', '{}', 0, 1, 2, 0, '', 0, -1, 0, 0, 0, 9, 2, 3),"
        " (2, 0, '/etc', 'b', '{}', 0, 0, 0, 0, '', 0, -1, 0, 0, 0, 9, 2, 3),"
        " (3, 0, 'a', 'b', '{}', 0, 77, 0, 0, '', 0, -1, 0, 0, 0, 9, 2, 3),"
        " (4, 1, 'a', 'b', '{}', 0, 2, 0, 0, '', 0, -1, 0, 0, 0, 9, 2, 3);"
        "INSERT INTO placed VALUES ('x/..', 'a', 'b', 9, 2, 3, 5), ('b', '..', 'b', 9, 2, 3, 5),"
        " ('c', 'a', 'b', 9, 2, 3, 5); PRAGMA user_version = 1");
    const auto store = Open();
    ASSERT_NE(store, nullptr) << error_;
    std::string statuses;
    for (const auto& [id, task] : store->Tasks().ById()) {
        statuses += std::to_string(static_cast<int>(task->status)) + "/" + std::to_string(task->error.code) + " ";
    }
    EXPECT_EQ(statuses, "4/21 4/21 4/21 2/0 ");
    ASSERT_EQ(store->AllPlaced().size(), 1U);
    EXPECT_EQ(store->FindPlaced("c")->id, (FileId{2, 3}));
    EXPECT_FALSE(store->FindPlaced("c")->isLeaving);
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
