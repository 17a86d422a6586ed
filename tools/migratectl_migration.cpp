// SPDX-License-Identifier: Apache-2.0
// The commands of the migration client.
#include "migratectl_migration.h"

#include <chrono>
#include <functional>
#include <map>

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

void Print(int64_t number)
{
    printf("%lld\n", static_cast<long long>(number));
}

void Print(const std::vector<std::string>& names)
{
    for (const std::string& name : names) {
        printf("%s\n", Printable(name).c_str());
    }
}

template <typename Record>
void Print(const Record& record)
{
    PrintFields(ToFields(record));
}

template <typename Record>
void Print(const std::vector<Record>& list)
{
    std::vector<Fields> rows;
    rows.reserve(list.size());
    for (const Record& record : list) {
        rows.push_back(ToFields(record));
    }
    PrintTable(rows);
}

void Print(const MigrateInfo& info)
{
    Print(info.migrateProgress);
    std::vector<Fields> rows;
    for (const TaskInfo& task : info.taskInfos) {
        rows.push_back({{"id", std::to_string(task.id)}, {"status", StatusName(static_cast<int64_t>(task.status))},
            {"done", std::to_string(task.progress) + "%"}, {"left", ShowBytes(task.requiredTraffic)},
            {"user", std::to_string(task.userId)}, {"source", task.source}, {"target", task.target}});
    }
    PrintTable(rows);
}

// A request that is answered with a value and an error.
template <typename Reply, typename Ask>
int Request(const Options& options, const char* name, const Ask& ask)
{
    Reply reply{};
    BusinessError error;
    const int32_t result = std::invoke(ask, Kits(), reply, error);
    if (!options.json && result == MIGRATE_SUCCESS) {
        Print(reply);
    }
    return Finish(options, name, result, error, reply);
}

// A request that is answered with an error only.
template <typename Ask>
int Command(const Options& options, const char* name, const Ask& ask)
{
    BusinessError error;
    const int32_t result = std::invoke(ask, Kits(), error);
    return Finish(options, name, result, error, NO_REPLY);
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
    return Finish(options, "own", result, error, NO_REPLY);
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

void AddStageCommands(CLI::App& app, CommandLine& line)
{
    static const std::map<std::string, MigrateStage> stages{{"all", MigrateStage::NONE},
        {"prepare", MigrateStage::PREPARE}, {"download", MigrateStage::DOWNLOAD}, {"install", MigrateStage::INSTALL},
        {"restore", MigrateStage::RESTORE}, {"finish", MigrateStage::FINISH}};
    auto* const status = AddCommand(app, line, "status", "The state of the migration", [&line] {
        return Request<MigrateStatus>(line.options, "status",
            [&line](auto& kits, auto& reply, auto& error) { return kits.GetMigrateStatus(line.stage, reply, error); });
    });
    auto* const info = AddCommand(app, line, "info", "Progress and tasks", [&line] {
        return Request<MigrateInfo>(line.options, "info",
            [&line](auto& kits, auto& reply, auto& error) { return kits.GetMigrateInfo(line.stage, reply, error); });
    });
    for (CLI::App* const command : {status, info}) {
        command->add_option("--stage", line.stage, "all, prepare, download, install, restore or finish")
            ->transform(CLI::CheckedTransformer(stages));
    }
}

void AddQueryCommands(CLI::App& app, CommandLine& line)
{
    AddCommand(app, line, "packages", "The packages of the source", [&line] {
        return Request<std::vector<PakMigrateInfo>>(line.options, "packages", &MigrateServerKits::GetPakMigrateInfo);
    });
    AddCommand(app, line, "apk", "The applications of the source",
        [&line] { return Request<std::vector<std::string>>(line.options, "apk", &MigrateServerKits::GetApkInfo); });
    AddCommand(app, line, "users", "The users of the source, and where they go", [&line] {
        return Request<std::vector<MigrationUser>>(line.options, "users", &MigrateServerKits::GetMigrationUsers);
    });
    AddCommand(app, line, "size", "The bytes that are to be migrated",
        [&line] { return Request<int64_t>(line.options, "size", &MigrateServerKits::GetMigrationDataSize); });
    AddCommand(app, line, "result", "What has become of the migration", [&line] { return PrintResult(line.options); });
    auto* const modules = AddCommand(app, line, "modules", "What becomes of modules", [&line] {
        return Request<std::vector<ModuleMigrationPolicy>>(
            line.options, "modules", [&line](auto& kits, auto& reply, auto& error) {
                return kits.GetModuleMigrationPolicy(line.isPlaced, line.modules, reply, error);
            });
    });
    modules->add_flag("--placed", line.isPlaced, "Only what is in the target already");
    modules->add_option_function<std::vector<std::string>>(
        "modules", [&line](const auto& texts) { line.modules = ParseModules(texts); },
        "TYPE:ID; all when none is given");
}

int32_t AskToStart(const CommandLine& line, BusinessError& error)
{
    if (line.name.empty()) {
        return Kits().StartMigrate(error);
    }
    if (line.target.empty() && line.priority == 0) {
        return Kits().StartPakMigrate(line.name, error);
    }
    const std::string parameters = "{\"priority\":" + std::to_string(line.priority) + "}";
    return Kits().StartPakMigration(line.name, line.target, parameters, error);
}

StartOutcome Start(const CommandLine& line)
{
    BusinessError error;
    const int32_t result = AskToStart(line, error);
    const int status = Finish(line.options, "start", result, error, NO_REPLY);
    const bool isBusy = error.errorNum == MIGRATE_ERROR_SOME_PACKAGES || error.errorNum == MIGRATE_ERROR_BUSY;
    return {status, status == EXIT_DONE || isBusy};
}

void AddStart(CLI::App& app, CommandLine& line)
{
    auto* const start = AddCommand(app, line, "start", "Migrates everything, or one package", [&line] {
        const auto begin = [&line] { return Start(line); };
        return line.watch ? StartAndWatch(line.options, begin) : begin().exitStatus;
    });
    auto* const package = start->add_option("package", line.name, "Only this package")->check(IS_NAME);
    start->add_option("--as", line.target, "Its name in the target")->needs(package)->check(IS_NAME);
    start->add_option("--priority", line.priority, "Higher goes first")->needs(package);
    start->add_flag("--watch", line.watch, "Show the progress until the end");
}

// Commands that are answered with an error only.
void AddControlCommands(CLI::App& app, CommandLine& line)
{
    auto* const stop = AddCommand(app, line, "stop", "Drops the tasks of the migration", [&line] {
        return Command(line.options, "stop", [&line](auto& kits, auto& error) {
            return line.name.empty() ? kits.RemoveMigrate(line.user, error) : kits.RemovePakMigrate(line.name, error);
        });
    });
    auto* const package = stop->add_option("package", line.name, "Only that of this package")->check(IS_NAME);
    stop->add_option("--user", line.user, "Only those of this user")->excludes(package);
    AddCommand(app, line, "pause", "Suspends the migration", [&line] {
        return Command(line.options, "pause", [](auto& kits, auto& error) {
            AAFwk::Want want;
            want.SetAction(MIGRATE_EVENT_PAUSE);
            return kits.NotifyEmporionCoreEvent(want, error);
        });
    });
    AddCommand(app, line, "resume", "Goes on with a suspended migration",
        [&line] { return Command(line.options, "resume", &MigrateServerKits::ResumeMigration); });
    auto* const policy = AddCommand(app, line, "policy", "What happens when a package has failed", [&line] {
        return Command(line.options, "policy", [&line](auto& kits, auto& error) {
            MigratePolicy chosen;
            chosen.policy = line.text == "stop" ? MIGRATE_POLICY_STOP : MIGRATE_POLICY_GO_ON;
            return kits.SetMigratePolicy(chosen, error);
        });
    });
    policy->add_option("policy", line.text, "go-on or stop")->required()->check(CLI::IsMember({"go-on", "stop"}));
    auto* const preset = AddCommand(app, line, "preset", "Choices for the starts that follow", [&line] {
        return Command(
            line.options, "preset", [&line](auto& kits, auto& error) { return kits.PresetData(line.text, error); });
    });
    preset->add_option("choices", line.text, "A JSON object with the lists \"exclude\" and \"users\"; \"\" for none")
        ->required();
    AddCommand(app, line, "own", "Makes what was migrated the caller's backup files",
        [&line] { return OwnBackups(line.options); });
}

void AddTaskCommand(CLI::App& app, CommandLine& line)
{
    auto* const task = AddCommand(app, line, "task", "The state of one package", [&line] {
        return Request<ReserveMigrationStatus>(line.options, "task", [&line](auto& kits, auto& reply, auto& error) {
            return kits.GetPakMigrationTaskStatus(line.name, reply, error);
        });
    });
    task->add_option("package", line.name)->required()->check(IS_NAME);
}

void AddLoad(CLI::App& app, CommandLine& line)
{
    auto* const load = AddCommand(app, line, "load", "Starts any system service by its number", [&line] {
        const bool isLoaded = LoadSaService::GetInstance()->TryLoadSa(line.number);
        if (!isLoaded) {
            fprintf(stderr, "migratectl: load: service %d does not run\n", line.number);
        }
        return isLoaded ? EXIT_DONE : EXIT_REFUSED;
    });
    load->add_option("id", line.number)->required();
}

// The members of an object as rows, without its lists.
Fields FieldsOf(const JsonContext& object)
{
    Fields fields;
    for (const JsonContext& field : object) {
        if (field.Type() != JsonContext::ARRAY) {
            fields.emplace_back(field.Key(), ShowJson(field));
        }
    }
    return fields;
}

}  // namespace

CLI::App* AddCommand(
    CLI::App& app, CommandLine& line, const char* name, const char* description, const std::function<int()>& action)
{
    auto* const command = app.add_subcommand(name, description);
    command->callback([&line, action] { line.action = action; });
    return command;
}

int PrintResult(const Options& options)
{
    std::string text;
    BusinessError error;
    const int32_t result = Kits().GetMigrateResult(text, error);
    if (!options.json && result == MIGRATE_SUCCESS) {
        const JsonContext root(text);
        PrintFields(FieldsOf(root));
        std::vector<Fields> packages;
        for (const JsonContext& package : root["packages"]) {
            packages.push_back(FieldsOf(package));
        }
        PrintTable(packages);
    }
    return Finish(options, "result", result, error, AsRawJson(text));
}

void AddMigrationCommands(CLI::App& app, CommandLine& line)
{
    AddStageCommands(app, line);
    AddQueryCommands(app, line);
    AddStart(app, line);
    AddControlCommands(app, line);
    AddTaskCommand(app, line);
    AddLoad(app, line);
}

}  // namespace migratectl
