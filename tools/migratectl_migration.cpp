// SPDX-License-Identifier: Apache-2.0
// The commands of the migration client.
#include "migratectl_migration.h"

#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include "migratectl_watch.h"
#include "native_migrate/load_sa_service.h"
#include "native_migrate/migrate_server_kits.h"
#include "native_migrate/set_backup_file_own_stub.h"
#include "vexa/base/mutex.h"
#include "vexa/json/json_context.h"

namespace migratectl {

using namespace VEXA;
using namespace VEXA::UpdateEngine;

namespace {

MigrateServerKits& Kits()
{
    return MigrateServerKits::GetKitsInstance();
}

// One request: asks, prints and judges.
template <typename Reply, typename Ask, typename Print>
int Request(const Options& options, const char* name, Reply reply, const Ask& ask, const Print& print)
{
    BusinessError error;
    const int32_t result = ask(reply, error);
    if (options.json) {
        PrintJson(result, error, reply);
    } else if (result == MIGRATE_SUCCESS) {
        print(reply);
    }
    return Judge(options, name, result, error);
}

// A request that is answered with an error record only.
template <typename Ask>
int Command(const Options& options, const char* name, const Ask& ask, BusinessError& error)
{
    const int32_t result = ask(error);
    if (options.json) {
        PrintJson(result, error, RawJson{"null"});
    }
    return Judge(options, name, result, error);
}

template <typename Ask>
int Command(const Options& options, const char* name, const Ask& ask)
{
    BusinessError error;
    return Command(options, name, ask, error);
}

template <typename Record>
void PrintList(const std::vector<Record>& list)
{
    std::vector<std::string> header;
    std::vector<std::vector<std::string>> rows;
    for (const Record& record : list) {
        header.clear();
        rows.emplace_back();
        for (auto& [name, value] : ToFields(record)) {
            header.push_back(name);
            rows.back().push_back(value);
        }
    }
    PrintTable(header, rows);
}

void PrintInfo(const MigrateInfo& info)
{
    PrintFields(ToFields(info.migrateProgress));
    std::vector<std::vector<std::string>> rows;
    for (const TaskInfo& task : info.taskInfos) {
        rows.push_back({std::to_string(task.id), StatusName(static_cast<int64_t>(task.status)),
            std::to_string(task.progress) + "%", ShowBytes(task.requiredTraffic), std::to_string(task.userId),
            task.source, task.target});
    }
    PrintTable({"id", "status", "done", "left", "user", "source", "target"}, rows);
}

// Waits for the notice of SetBackupFileOwn.
class OwnNotice : public SetBackupFileOwnStub {
public:
    void OnSetBackupFileOwnFinished(int32_t errorCode) override
    {
        MutexLock lock(mutex_);
        code_ = errorCode;
        hasCome_ = true;
        changed_.NotifyAll();
    }
    bool Wait(std::chrono::seconds limit, int32_t& code)
    {
        MutexLock lock(mutex_);
        changed_.WaitFor(mutex_, limit, [this]() VEXA_REQUIRES(mutex_) { return hasCome_; });
        code = code_;
        return hasCome_;
    }

private:
    Mutex mutex_{LockRank::Program};
    CondVar changed_;
    bool hasCome_ VEXA_GUARDED_BY(mutex_) = false;
    int32_t code_ VEXA_GUARDED_BY(mutex_) = 0;
};

int OwnBackups(const Options& options)
{
    constexpr std::chrono::seconds kPatience(60);
    const sptr<OwnNotice> notice(new OwnNotice);
    const int32_t result = Kits().SetBackupFileOwn(sptr<ISetBackupFileOwnInterface>(notice));
    BusinessError error;
    if (result == MIGRATE_SUCCESS && !notice->Wait(kPatience, error.errorNum)) {
        fprintf(stderr, "migratectl: own: the service did not say that it has finished\n");
        return EXIT_REFUSED;
    }
    error.message = error.errorNum != 0 ? "the backup files can't be owned" : "";
    if (options.json) {
        PrintJson(result, error, RawJson{"null"});
    }
    return Judge(options, "own", result, error);
}

// "TYPE:ID".
std::vector<ModuleInfo> ParseModules(const std::vector<std::string>& texts)
{
    std::vector<ModuleInfo> modules;
    for (const std::string& text : texts) {
        const size_t colon = text.find(':');
        ModuleInfo module;
        if (colon == std::string::npos || !CLI::detail::lexical_cast(text.substr(0, colon), module.type)) {
            throw CLI::ValidationError("modules", text + " is not TYPE:ID");
        }
        module.id = text.substr(colon + 1);
        modules.push_back(module);
    }
    return modules;
}

void AddStageCommands(CLI::App& app, const Options& options, Action& action)
{
    static const std::map<std::string, MigrateStage> stages{{"all", MigrateStage::NONE},
        {"prepare", MigrateStage::PREPARE}, {"download", MigrateStage::DOWNLOAD}, {"install", MigrateStage::INSTALL},
        {"restore", MigrateStage::RESTORE}, {"finish", MigrateStage::FINISH}};
    const auto stage = std::make_shared<MigrateStage>(MigrateStage::NONE);
    const auto addStage = [stage](CLI::App* command) {
        command->add_option("--stage", *stage, "all, prepare, download, install, restore or finish")
            ->transform(CLI::CheckedTransformer(stages));
        return command;
    };
    addStage(app.add_subcommand("status", "The state of the migration"))->callback([&options, &action, stage] {
        action = [&options, stage] {
            return Request(
                options, "status", MigrateStatus(),
                [&](MigrateStatus& reply, BusinessError& error) {
                    return Kits().GetMigrateStatus(*stage, reply, error);
                },
                [](const MigrateStatus& reply) { PrintFields(ToFields(reply)); });
        };
    });
    addStage(app.add_subcommand("info", "Progress and tasks"))->callback([&options, &action, stage] {
        action = [&options, stage] {
            return Request(
                options, "info", MigrateInfo(),
                [&](MigrateInfo& reply, BusinessError& error) { return Kits().GetMigrateInfo(*stage, reply, error); },
                PrintInfo);
        };
    });
}

void AddQueryCommands(CLI::App& app, const Options& options, Action& action)
{
    app.add_subcommand("packages", "The packages of the source")->callback([&] {
        action = [&options] {
            return Request(
                options, "packages", std::vector<PakMigrateInfo>(),
                [](auto& reply, BusinessError& error) { return Kits().GetPakMigrateInfo(reply, error); },
                [](const auto& reply) { PrintList(reply); });
        };
    });
    app.add_subcommand("apk", "The applications of the source")->callback([&] {
        action = [&options] {
            return Request(
                options, "apk", std::vector<std::string>(),
                [](auto& reply, BusinessError& error) { return Kits().GetApkInfo(reply, error); },
                [](const auto& reply) {
                    for (const std::string& name : reply) {
                        printf("%s\n", Printable(name).c_str());
                    }
                });
        };
    });
    app.add_subcommand("users", "The users of the source, and where they go")->callback([&] {
        action = [&options] {
            return Request(
                options, "users", std::vector<MigrationUser>(),
                [](auto& reply, BusinessError& error) { return Kits().GetMigrationUsers(reply, error); },
                [](const auto& reply) { PrintList(reply); });
        };
    });
    app.add_subcommand("size", "The bytes that are to be migrated")->callback([&] {
        action = [&options] {
            return Request(
                options, "size", int64_t{0},
                [](int64_t& reply, BusinessError& error) { return Kits().GetMigrationDataSize(reply, error); },
                [](int64_t reply) { printf("%lld\n", static_cast<long long>(reply)); });
        };
    });
    app.add_subcommand("result", "What has become of the migration")->callback([&] {
        action = [&options] { return PrintResult(options); };
    });
    auto* const modules = app.add_subcommand("modules", "What becomes of modules");
    const auto isPlaced = std::make_shared<bool>(false);
    const auto texts = std::make_shared<std::vector<std::string>>();
    modules->add_flag("--placed", *isPlaced, "Only what is in the target already");
    modules->add_option("modules", *texts, "TYPE:ID; all when none is given");
    modules->callback([&options, &action, isPlaced, texts] {
        action = [&options, isPlaced, asked = ParseModules(*texts)] {
            return Request(
                options, "modules", std::vector<ModuleMigrationPolicy>(),
                [&](auto& reply, BusinessError& error) {
                    return Kits().GetModuleMigrationPolicy(*isPlaced, asked, reply, error);
                },
                [](const auto& reply) { PrintList(reply); });
        };
    });
}

struct StartChoice {
    std::string package;
    std::string target;
    int32_t priority = 0;
    bool watch = false;
};

StartOutcome Start(const Options& options, const StartChoice& choice)
{
    BusinessError error;
    const auto ask = [&choice](BusinessError& answer) {
        if (choice.package.empty()) {
            return Kits().StartMigrate(answer);
        }
        if (choice.target.empty() && choice.priority == 0) {
            return Kits().StartPakMigrate(choice.package, answer);
        }
        const std::string parameters = "{\"priority\":" + std::to_string(choice.priority) + "}";
        return Kits().StartPakMigration(choice.package, choice.target, parameters, answer);
    };
    const int status = Command(options, "start", ask, error);
    const bool isBusy = error.errorNum == MIGRATE_ERROR_SOME_PACKAGES || error.errorNum == MIGRATE_ERROR_BUSY;
    return {status, status == EXIT_DONE || isBusy};
}

void AddStart(CLI::App& app, const Options& options, Action& action)
{
    const auto choice = std::make_shared<StartChoice>();
    auto* const start = app.add_subcommand("start", "Migrates everything, or one package");
    auto* const package = start->add_option("package", choice->package, "Only this package")->check(IS_NAME);
    start->add_option("--as", choice->target, "Its name in the target")->needs(package)->check(IS_NAME);
    start->add_option("--priority", choice->priority, "Higher goes first")->needs(package);
    start->add_flag("--watch", choice->watch, "Show the progress until the end");
    start->callback([&options, &action, choice] {
        action = [&options, choice] {
            const auto begin = [&] { return Start(options, *choice); };
            return choice->watch ? StartAndWatch(options, begin) : begin().exitStatus;
        };
    });
}

// Commands that are answered with an error record only.
void AddControlCommands(CLI::App& app, const Options& options, Action& action)
{
    const auto user = std::make_shared<int32_t>(MIGRATE_ALL_USERS);
    const auto text = std::make_shared<std::string>();
    auto* const stop = app.add_subcommand("stop", "Drops the tasks of the migration");
    auto* const package = stop->add_option("package", *text, "Only that of this package")->check(IS_NAME);
    stop->add_option("--user", *user, "Only those of this user")->excludes(package);
    stop->callback([&options, &action, user, text] {
        action = [&options, user, text] {
            return Command(options, "stop", [&](BusinessError& error) {
                return text->empty() ? Kits().RemoveMigrate(*user, error) : Kits().RemovePakMigrate(*text, error);
            });
        };
    });
    app.add_subcommand("pause", "Suspends the migration")->callback([&] {
        action = [&options] {
            return Command(options, "pause", [](BusinessError& error) {
                AAFwk::Want want;
                want.SetAction(MIGRATE_EVENT_PAUSE);
                return Kits().NotifyEmporionCoreEvent(want, error);
            });
        };
    });
    app.add_subcommand("resume", "Goes on with a suspended migration")->callback([&] {
        action = [&options] {
            return Command(options, "resume", [](BusinessError& error) { return Kits().ResumeMigration(error); });
        };
    });
    auto* const policy = app.add_subcommand("policy", "What happens when a package has failed");
    policy->add_option("policy", *text, "go-on or stop")->required()->check(CLI::IsMember({"go-on", "stop"}));
    policy->callback([&options, &action, text] {
        action = [&options, text] {
            return Command(options, "policy", [&](BusinessError& error) {
                MigratePolicy chosen;
                chosen.policy = *text == "stop" ? MIGRATE_POLICY_STOP : MIGRATE_POLICY_GO_ON;
                return Kits().SetMigratePolicy(chosen, error);
            });
        };
    });
    auto* const preset = app.add_subcommand("preset", "Choices for the starts that follow");
    preset->add_option("choices", *text, "A JSON object with the lists \"exclude\" and \"users\"; \"\" for none")
        ->required();
    preset->callback([&options, &action, text] {
        action = [&options, text] {
            return Command(options, "preset", [&](BusinessError& error) { return Kits().PresetData(*text, error); });
        };
    });
    app.add_subcommand("own", "Makes what was migrated the caller's backup files")->callback([&] {
        action = [&options] { return OwnBackups(options); };
    });
}

void AddTaskCommand(CLI::App& app, const Options& options, Action& action)
{
    const auto name = std::make_shared<std::string>();
    auto* const task = app.add_subcommand("task", "The state of one package");
    task->add_option("package", *name)->required()->check(IS_NAME);
    task->callback([&options, &action, name] {
        action = [&options, name] {
            return Request(
                options, "task", ReserveMigrationStatus(),
                [&](auto& reply, BusinessError& error) {
                    return Kits().GetPakMigrationTaskStatus(*name, reply, error);
                },
                [](const auto& reply) { PrintFields(ToFields(reply)); });
        };
    });
}

void AddLoad(CLI::App& app, Action& action)
{
    const auto id = std::make_shared<int32_t>(0);
    auto* const load = app.add_subcommand("load", "Starts any system service by its number");
    load->add_option("id", *id)->required();
    load->callback([&action, id] {
        action = [id] {
            const bool isLoaded = LoadSaService::GetInstance()->TryLoadSa(*id);
            if (!isLoaded) {
                fprintf(stderr, "migratectl: load: service %d does not run\n", *id);
            }
            return isLoaded ? EXIT_DONE : EXIT_REFUSED;
        };
    });
}

void PrintPackages(const JsonContext& packages)
{
    std::vector<std::string> header;
    std::vector<std::vector<std::string>> rows;
    for (const JsonContext& package : packages) {
        header.clear();
        rows.emplace_back();
        for (const JsonContext& field : package) {
            header.emplace_back(field.Key());
            rows.back().push_back(ShowJson(field));
        }
    }
    PrintTable(header, rows);
}

}  // namespace

int PrintResult(const Options& options)
{
    std::string text;
    BusinessError error;
    const int32_t result = Kits().GetMigrateResult(text, error);
    if (options.json) {
        PrintJson(result, error, AsRawJson(text));
    } else if (result == MIGRATE_SUCCESS) {
        const JsonContext root(text);
        Fields fields;
        for (const JsonContext& field : root) {
            if (field.Type() != JsonContext::ARRAY) {
                fields.emplace_back(field.Key(), ShowJson(field));
            }
        }
        PrintFields(fields);
        PrintPackages(root["packages"]);
    }
    return Judge(options, "result", result, error);
}

void AddMigrationCommands(CLI::App& app, const Options& options, Action& action)
{
    AddStageCommands(app, options, action);
    AddQueryCommands(app, options, action);
    AddStart(app, options, action);
    AddControlCommands(app, options, action);
    AddTaskCommand(app, options, action);
    AddLoad(app, action);
}

}  // namespace migratectl
