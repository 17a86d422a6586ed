// SPDX-License-Identifier: Apache-2.0
// The trial of placing: every call that changes the file system kills the service once, before and after it has done
// its work, and fails once for lack of space and once with an error of the disk; with and without exchanges of names.
// Then 500 kills come at random moments. After each, every package is the older or the newer one as a whole, is what
// its status says, and can be moved again.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "changing_calls.h"
#include "migration_engine.h"
#include "support/processes.h"

namespace {

using namespace VEXA;
using namespace VEXA::UpdateEngine;
namespace fs = std::filesystem;

class Deaf : public EngineListener {
    void OnTask(const TaskProgress&) override {}
    void OnRestore(const RestoreEventInfo&) override {}
};

constexpr const char* kNames[] = {"a", "b", "r", "s"};

// The service's directories. `a` and `r` are in the target at first, `b` is new, `r` and `s` are set aside.
class World {
public:
    World()
    {
        fs::create_directories(Target());
        Write("a", "older");
        Write("r", "newer", R"({"reserved":true})");
        const auto engine = Start();
        engine->StartAll();
        engine->Restore("r", "");
        Settles(*engine);
        Write("a", "newer");
        Write("b", "newer");
        Write("s", "newer", R"({"reserved":true})");
    }
    void Live() const
    {
        if (const auto engine = Start()) {
            engine->StartAll();
            engine->Pause(TaskPauseReason::USER);
            engine->Resume();
            Settles(*engine);
            engine->ClearReserved("r", "");
            engine->Restore("s", "");
            Settles(*engine);
        }
    }
    void Note(int calls) const { std::ofstream(Source().string() + ".calls") << calls; }
    int Noted() const { return atoi(test::FileText(Source().string() + ".calls").c_str()); }
    // Starts the service once more and returns what is wrong then; empty when nothing is.
    std::string Check() const
    {
        std::unique_ptr<MigrationEngine> engine = Start();
        if (engine != nullptr) {
            engine->Resume();
        }
        if (engine == nullptr || !Settles(*engine)) {
            return "the service doesn't go on";
        }
        std::map<std::string, int32_t> statuses;
        std::vector<PakMigrateInfo> packages;
        engine->GetPackages(packages);
        for (const PakMigrateInfo& package : packages) {
            statuses[package.source] = package.status;
        }
        const bool isSecondRun = engine->GetResult().packages.size() > 1;
        for (const std::string name : kNames) {
            const std::string has = WordOf(name);
            const bool isFinished = statuses[name] == static_cast<int32_t>(TaskStatus::FINISHED);
            const bool isIdle = statuses[name] == static_cast<int32_t>(TaskStatus::IDLE);
            const bool isWhole = has == "newer" || has == (name == "a" ? "older" : "");
            const bool isTrue = name == "a"      ? !isFinished || !isSecondRun || has == "newer"
                                : name == "b"    ? !isFinished || has == "newer"
                                : has == "newer" ? !isIdle
                                                 : !isFinished;
            if (!isWhole || !isTrue) {
                return name + " has status " + std::to_string(statuses[name]) + " and is " +
                       (has.empty() ? "gone" : has);
            }
        }
        const bool isStarted = engine->StartAll().errorNum == 0;
        engine->Restore("r", "");
        engine->Restore("s", "");
        Settles(*engine);
        for (const std::string name : kNames) {
            if (!isStarted || WordOf(name) != "newer") {
                return name + " can't be moved again";
            }
        }
        const auto isClean = [this] {
            for (const auto& entry : fs::directory_iterator(Target())) {
                if (entry.path().filename().string().rfind(".staging-", 0) == 0) {
                    return false;
                }
            }
            return true;
        };
        return test::Eventually(isClean) ? "" : "something is left in staging";
    }

private:
    fs::path Source() const { return fs::path(root_.Path()) / "source"; }
    fs::path Target() const { return fs::path(root_.Path()) / "target"; }
    void Write(const std::string& name, const std::string& word, const std::string& manifest = "{}") const
    {
        fs::create_directories(Source() / name / "data");
        for (const char* file : {"1", "data/2"}) {
            std::ofstream(Source() / name / file) << word;
        }
        std::ofstream(Source() / name / "manifest.json") << manifest;
    }
    std::string WordOf(const std::string& name) const
    {
        const fs::path place = Target() / name;
        const std::string word = test::FileText(place / "1");
        const bool isWhole = word == test::FileText(place / "data" / "2") && fs::exists(place / "manifest.json");
        return isWhole ? word : fs::exists(place) ? "half" : "";
    }
    std::unique_ptr<MigrationEngine> Start() const
    {
        static Deaf deaf;
        std::string error;
        auto engine = MigrationEngine::Open({Source(), Target(), "", 0, true}, deaf, error);
        if (engine != nullptr) {
            engine->Start();
        }
        return engine;
    }
    static bool Settles(const MigrationEngine& engine)
    {
        return test::Eventually([&engine] {
            const auto status = static_cast<TaskStatus>(engine.GetStatus(MigrateStage::NONE).status);
            bool isOpen = status == TaskStatus::RUNNING;
            engine.IntroduceRestores([&isOpen](const std::vector<RestoreEventInfo>& events) {
                for (const RestoreEventInfo& event : events) {
                    isOpen = isOpen || event.status < static_cast<int32_t>(TaskStatus::FINISHED);
                }
            });
            return !isOpen;
        });
    }

    const test::TempDir root_;
};

int g_wrong = 0;

// One trial: its service is killed by a call, or `microseconds` after its start. Returns the number of its calls.
int Try(int call, int mode, unsigned microseconds = 0)
{
    const World world;
    const pid_t service = fork();
    if (service == 0) {
        g_calls = 0;
        g_nth = call;
        g_mode = mode;
        world.Live();
        world.Note(g_calls);
        _exit(0);
    }
    if (microseconds != 0) {
        usleep(microseconds);
        kill(service, SIGKILL);
    }
    waitpid(service, nullptr, 0);
    const std::string fault = world.Check();
    if (!fault.empty()) {
        printf(
            "call %d, mode %d, exchange %d, after %u us: %s\n", call, mode, g_canExchange, microseconds, fault.c_str());
        ++g_wrong;
    }
    return world.Noted();
}

}  // namespace

int main()
{
    int trials = 0;
    std::mt19937 random(1);
    for (const bool canExchange : {true, false}) {
        g_canExchange = canExchange;
        const int all = Try(0, MODES);
        for (int call = 1; call <= all; ++call) {
            for (int mode = KILL_BEFORE; mode < MODES; ++mode, ++trials) {
                Try(call, mode);
            }
        }
        for (int i = 0; i < 250; ++i, ++trials) {
            Try(0, MODES, 1 + static_cast<unsigned>(random()) % 15000);
        }
    }
    printf("%d trials, %d of them wrong\n", trials, g_wrong);
    return g_wrong == 0 ? 0 : 1;
}
