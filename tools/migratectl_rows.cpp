// SPDX-License-Identifier: Apache-2.0
// Every command: its name, its line of help, its arguments, what it asks for, and how the reply is shown.
#include <CLI/CLI.hpp>

#include "migratectl_request.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace VEXA::UpdateEngine {

// "TYPE:ID"; found by the parser.
inline bool lexical_cast(const std::string& text, ModuleInfo& module)
{
    const size_t colon = std::min(text.find(':'), text.size());
    module.id = text.substr(std::min(colon + 1, text.size()));
    return colon < text.size() && CLI::detail::lexical_cast(text.substr(0, colon), module.type);
}

}  // namespace VEXA::UpdateEngine

namespace migratectl {

namespace {

using Line = CommandLine;
using Kits = MigrateServerKits;
using Reserve = ReserveMigrateKits;

// A name that is left out stands for all in many requests, so an empty one, perhaps a script's unset variable, is
// wrong.
const CLI::Validator kIsName(
    [](const std::string& text) { return text.empty() ? "a name must not be empty" : ""; }, "", "name");
const CLI::Validator kIsStage = CLI::CheckedTransformer(std::map<std::string, MigrateStage>{{"all", MigrateStage::NONE},
    {"prepare", MigrateStage::PREPARE}, {"download", MigrateStage::DOWNLOAD}, {"install", MigrateStage::INSTALL},
    {"restore", MigrateStage::RESTORE}, {"finish", MigrateStage::FINISH}});

// The value of an option, or of a word without dashes, goes to that field; a boolean is set by the option alone.
template <typename T>
Argument Value(
    const char* option, T CommandLine::*field, const char* help = "", const CLI::Validator& check = CLI::Validator(""))
{
    return [=](CLI::App& app, CommandLine& line) {
        if constexpr (std::is_same_v<T, bool>) {
            return app.add_flag(option, line.*field, help);
        } else {
            return app.add_option(option, line.*field, help)->transform(check);
        }
    };
}

Argument Required(const Argument& argument)
{
    return [=](CLI::App& app, CommandLine& line) { return argument(app, line)->required(); };
}

Argument OnlyWith(const char* other, const Argument& argument)
{
    return [=](CLI::App& app, CommandLine& line) { return argument(app, line)->needs(app.get_option(other)); };
}

Argument NotWith(const char* other, const Argument& argument)
{
    return [=](CLI::App& app, CommandLine& line) { return argument(app, line)->excludes(app.get_option(other)); };
}

int32_t Stop(const Line& line, BusinessError& error)
{
    auto& kits = Client<Kits>();
    return line.name.empty() ? kits.RemoveMigrate(line.user, error) : kits.RemovePakMigrate(line.name, error);
}

int32_t Pause(const Line&, BusinessError& error)
{
    AAFwk::Want want;
    want.SetAction(MIGRATE_EVENT_PAUSE);
    return Client<Kits>().NotifyEmporionCoreEvent(want, error);
}

int32_t SetPolicy(const Line& line, BusinessError& error)
{
    MigratePolicy chosen;
    chosen.policy = line.text == "stop" ? MIGRATE_POLICY_STOP : MIGRATE_POLICY_GO_ON;
    return Client<Kits>().SetMigratePolicy(chosen, error);
}

int32_t SetPriority(const Line& line, std::string& reply)
{
    return Client<Reserve>().AdjustAppPriority(line.name, std::to_string(line.number), reply);
}

int32_t ListServices(const Line&, std::string& services)
{
    const auto manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const bool isListed = manager != nullptr && manager->ListSystemAbilities(services) == SAMGR_OK;
    return isListed ? MIGRATE_SUCCESS : MIGRATE_UNREACHABLE;
}

const Argument kStage = Value("--stage", &Line::stage, "all, prepare, download, install, restore or finish", kIsStage);
const Argument kApp = Required(Value("name", &Line::name, "", kIsName));

const Command kCommands[] = {
    {"", "status", "The state of the migration", {kStage}, Request(&Kits::GetMigrateStatus, &Line::stage)},
    {"", "info", "Progress and tasks", {kStage}, Request(ShowInfo, &Kits::GetMigrateInfo, &Line::stage)},
    {"", "packages", "The packages of the source", {}, Request(&Kits::GetPakMigrateInfo)},
    {"", "apk", "The applications of the source", {}, Request(&Kits::GetApkInfo)},
    {"", "users", "The users of the source, and where they go", {}, Request(&Kits::GetMigrationUsers)},
    {"", "size", "The bytes that are to be migrated", {}, Request(&Kits::GetMigrationDataSize)},
    {"", "modules", "What becomes of modules",
        {Value("--placed", &Line::isPlaced, "Only what is in the target already"),
            Value("modules", &Line::modules, "TYPE:ID; all when none is given")},
        Request(&Kits::GetModuleMigrationPolicy, &Line::isPlaced, &Line::modules)},
    {"", "start", "Migrates everything, or one package",
        {Value("package", &Line::name, "Only this package", kIsName),
            OnlyWith("package", Value("--as", &Line::target, "Its name in the target", kIsName)),
            OnlyWith("package", Value("--priority", &Line::priority, "Higher goes first")),
            Value("--watch", &Line::waits, "Show the progress until the end")},
        StartMigration},
    {"", "stop", "Drops the tasks of the migration",
        {Value("package", &Line::name, "Only that of this package", kIsName),
            NotWith("package", Value("--user", &Line::user, "Only those of this user"))},
        Request(kAnError, Stop)},
    {"", "pause", "Suspends the migration", {}, Request(kAnError, Pause)},
    {"", "resume", "Goes on with a suspended migration", {}, Request(&Kits::ResumeMigration)},
    {"", "policy", "What happens when a package has failed",
        {Required(Value("policy", &Line::text, "go-on or stop", CLI::IsMember({"go-on", "stop"})))},
        Request(kAnError, SetPolicy)},
    {"", "preset", "Choices for the starts that follow",
        {Required(
            Value("choices", &Line::text, "A JSON object with the lists \"exclude\" and \"users\"; \"\" for none"))},
        Request(&Kits::PresetData, &Line::text)},
    {"", "result", "What has become of the migration", {}, Request(ShowResult, &Kits::GetMigrateResult)},
    {"", "task", "The state of one package", {Required(Value("package", &Line::name, "", kIsName))},
        Request(&Kits::GetPakMigrationTaskStatus, &Line::name)},
    {"", "own", "Makes what was migrated the caller's backup files", {}, OwnBackups},
    {"", "list", "The services of the system, and how they stand", {}, Request(ShowReply, ListServices)},
    {"", "load", "Starts any system service by its number", {Required(Value("id", &Line::number, ""))}, LoadService},
    {"reserve", "list", "The applications that are set aside, first those of priority",
        {Value("name", &Line::name, "Only this one", kIsName), Value("--most", &Line::number, "At most so many")},
        Request(ShowApps, &Reserve::GetRestoreAppInfos, &Line::name, &Line::number)},
    {"reserve", "status", "How their restorations stand",
        {Value("name", &Line::name, "Only this one", kIsName),
            Value("--scene", &Line::scene, "Only those of this scene")},
        Request(ShowEvents, &Reserve::GetRestoreAppStatus, &Line::name, &Line::scene)},
    {"reserve", "check", "Whether one can be restored", {kApp},
        Request(ShowCheck, &Kits::CheckAppRestore, &Line::name)},
    {"reserve", "restore", "Restores one to the target",
        {kApp, Value("--scene", &Line::scene, "What it is restored for"),
            Value("--wait", &Line::waits, "Until it is restored")},
        RestoreApp},
    {"reserve", "clear", "Takes away what was restored of one",
        {kApp, Value("--scene", &Line::scene, "Only if it is of this scene")},
        Request(kAnError, &Reserve::ClearApp, &Line::name, &Line::scene)},
    {"reserve", "clear-all", "Takes away everything that was restored",
        {Value("--scene", &Line::scene, "Only what is of this scene")},
        Request(kAnError, &Reserve::ClearAllVirtualData, &Line::scene)},
    {"reserve", "priority", "Which are restored first",
        {kApp, Required(Value("priority", &Line::number, "Higher goes first; 0 unless set"))},
        Request(kAnError, SetPriority)},
    {"reserve", "watch", "Shows every change of their status",
        {Value("--seconds", &Line::number, "For so long; else until interrupted", CLI::Range(0, INT32_MAX))},
        WatchRestorations},
};

}  // namespace

std::span<const Command> Commands()
{
    return kCommands;
}

}  // namespace migratectl
