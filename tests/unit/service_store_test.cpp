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

TEST_F(ServiceStore, OneServiceAtATime)
{
    const auto first = Open();
    ASSERT_NE(first, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(error_, File() + ": database is locked");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
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
            const std::string line = log.Messages().back().text;
            EXPECT_TRUE(line.starts_with("the state is damaged and is set aside: ") && !line.ends_with(": ")) << line;
        }
    }
}

}  // namespace
}  // namespace VEXA::UpdateEngine::test
