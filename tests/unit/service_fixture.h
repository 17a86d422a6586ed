// SPDX-License-Identifier: Apache-2.0
// A source and a target directory, and an engine between them.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "migration_engine.h"
#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine::test {

namespace fs = std::filesystem;

inline bool Eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

class Folders {
public:
    Folders()
    {
        std::string name = (fs::temp_directory_path() / "migrate-test-XXXXXX").string();
        root_ = mkdtemp(name.data());
        fs::create_directories(Source());
        fs::create_directories(Target());
    }
    ~Folders()
    {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    Folders(const Folders&) = delete;
    Folders& operator=(const Folders&) = delete;

    fs::path Source() const { return root_ / "source"; }
    fs::path Target() const { return root_ / "target"; }
    fs::path Root() const { return root_; }

    static void Write(const fs::path& file, const std::string& text)
    {
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
    }
    static std::string Read(const fs::path& file)
    {
        std::ostringstream text;
        text << std::ifstream(file, std::ios::binary).rdbuf();
        return text.str();
    }
    // A package with one file of so many bytes.
    void AddPackage(const std::string& name, size_t bytes, const std::string& manifest = "") const
    {
        Write(Source() / name / "data" / "file", std::string(bytes, 'x'));
        if (!manifest.empty()) {
            Write(Source() / name / "manifest.json", manifest);
        }
    }
    // What no tree may hold for us.
    void AddUnsupported(const std::string& package) const
    {
        fs::create_directories(Source() / package);
        ASSERT_EQ(mkfifo((Source() / package / "pipe").c_str(), 0600), 0);
    }
    // The names in the target, those of the service's own state left out.
    std::vector<std::string> TargetNames() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(Target())) {
            const std::string name = entry.path().filename();
            if (name.rfind(".migrate-state", 0) != 0) {
                names.push_back(name);
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    fs::path root_;
};

class RecordingListener : public EngineListener {
public:
    void OnTask(const TaskProgress& task) override
    {
        MutexLock lock(mutex_);
        tasks_.push_back(task);
    }
    void OnRestore(const RestoreEventInfo& event) override
    {
        MutexLock lock(mutex_);
        restores_.push_back(event);
    }
    std::vector<TaskProgress> Tasks() const
    {
        MutexLock lock(mutex_);
        return tasks_;
    }
    // "r1:0 r1:1 r1:3", the status of every event.
    std::string Restores() const
    {
        MutexLock lock(mutex_);
        std::string text;
        for (const RestoreEventInfo& event : restores_) {
            text += event.restoreAppInfo.scanSourceDir + ":" + std::to_string(event.status) + " ";
        }
        return text;
    }

private:
    mutable Mutex mutex_;
    std::vector<TaskProgress> tasks_ VEXA_GUARDED_BY(mutex_);
    std::vector<RestoreEventInfo> restores_ VEXA_GUARDED_BY(mutex_);
};

class EngineTest : public testing::Test {
protected:
    static constexpr size_t kLarge = 2000000;
    static constexpr uint64_t kSlow = 4000000;  // half a second for the above

    // Ends the engine before, if there is one, as a restart of the service does.
    void Open(uint64_t bytesPerSecond = 0)
    {
        engine.reset();
        std::string error;
        engine = MigrationEngine::Open({folders.Source(), folders.Target(), "", bytesPerSecond}, listener, error);
        ASSERT_NE(engine, nullptr) << error;
    }
    void Run(uint64_t bytesPerSecond = 0)
    {
        Open(bytesPerSecond);
        engine->Start();
    }
    TaskStatus State() const { return static_cast<TaskStatus>(engine->GetStatus(MigrateStage::NONE).status); }
    bool Ends() const
    {
        return Eventually([this] { return State() == TaskStatus::FINISHED || State() == TaskStatus::FAILED; });
    }
    bool IsCopying() const { return engine->GetStatus(MigrateStage::DOWNLOAD).isTaskExist; }
    // "a:3/0 b:4/24", status and error of every package in the result.
    std::string Results() const
    {
        std::string text;
        for (const PackageResult& package : engine->GetResult().packages) {
            text +=
                package.source + ":" + std::to_string(package.status) + "/" + std::to_string(package.errorCode) + " ";
        }
        return text;
    }

    Folders folders;
    RecordingListener listener;
    std::shared_ptr<MigrationEngine> engine;
};

}  // namespace VEXA::UpdateEngine::test
