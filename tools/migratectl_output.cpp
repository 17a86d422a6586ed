// SPDX-License-Identifier: Apache-2.0
#include "migratectl_output.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "held_value.h"
#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_results.h"
#include "vexa/ipc/context_object.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace migratectl {

namespace {

const char* ResultText(int32_t result)
{
    static const std::map<int32_t, const char*> texts{
        {MIGRATE_BAD_ARGUMENT, "the service does not take these arguments"},
        {MIGRATE_NO_SUCH_APP, "no application of that name is set aside"},
        {MIGRATE_TOO_MANY, "the service has too many callbacks"}, {MIGRATE_INTERNAL, "the service could not do it"},
        {MIGRATE_NOT_ALLOWED, "only root, the service's user and its control group may change anything"}};
    const auto found = texts.find(result);
    return found != texts.end() ? found->second : "the service refused";
}

// Says, behind a colon, why there is no manager, or why the migration service has failed last if it does not run.
std::string UnreachableReason()
{
    std::string reason = ContextObjectFailure();
    std::string list;
    const auto manager = reason.empty() ? SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager() : nullptr;
    if (manager != nullptr && manager->ListSystemAbilities(list) == SAMGR_OK) {
        const JsonContext services(list);
        for (const JsonContext& service : services) {
            const bool isIt = NumberOf(service["id"]) == MIGRATE_SERVICE_ID && ShowJson(service["state"]) != "running";
            reason = isIt ? ShowJson(service["lastFailure"]) : reason;
        }
    }
    return reason.empty() ? "" : ": " + reason;
}

}  // namespace

bool HasEnded(int64_t status)
{
    return status == static_cast<int64_t>(TaskStatus::FINISHED) || status == static_cast<int64_t>(TaskStatus::FAILED);
}

void Print(const std::string& text)
{
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

void PrintJson(const std::string& json)
{
    Print(EscapeOdd(json) + "\n");
}

std::string ToJson(const std::string& text)
{
    const JsonContext json(text);
    return json.IsDiscarded() ? ToJson<std::string>(text) : ToJson(json);
}

std::string ShowJson(const JsonContext& value)
{
    if (const auto text = HeldValue<std::string_view>(value)) {
        return std::string(*text);
    }
    if (const auto truth = HeldValue<bool>(value)) {
        return *truth ? "yes" : "no";
    }
    return value.Type() == JsonContext::NUMBER ? ShowNumber(value.Key(), NumberOf(value)) : "";
}

int64_t NumberOf(const JsonContext& value)
{
    constexpr double kLargest = 9223372036854774784.0;  // that an int64_t holds
    return static_cast<int64_t>(std::clamp(HeldValue<double>(value).value_or(0), -kLargest, kLargest));
}

int Judge(const Options& options, const std::string& command, int32_t result, const BusinessError& error)
{
    const std::string what = "migratectl: " + command + ": ";
    if (result == MIGRATE_UNREACHABLE) {
        fprintf(stderr, "%sthe service can't be reached%s\n", what.c_str(), Clean(UnreachableReason()).c_str());
        return EXIT_UNREACHABLE;
    }
    if (result != MIGRATE_SUCCESS) {
        fprintf(stderr, "%s%s (result %d)\n", what.c_str(), ResultText(result), result);
        return EXIT_REFUSED;
    }
    if (error.errorNum == 0) {
        return EXIT_DONE;
    }
    if (!options.json) {
        fprintf(stderr, "%s%s (error %d)\n", what.c_str(), Clean(error.message).c_str(), error.errorNum);
        for (const ErrorMessage& message : error.data) {
            fprintf(stderr, "  %s (error %d)\n", Clean(message.errorMessage).c_str(), message.errorCode);
        }
    }
    return EXIT_REFUSED;
}

int Finish(const Options& options, const std::string& command, int32_t result, const BusinessError& error,
    const std::string& reply)
{
    if (options.json) {
        PrintJson("{\"result\":" + ToJson(result) + ",\"error\":" + ToJson(error) + ",\"reply\":" + reply + "}");
    }
    return Judge(options, command, result, error);
}

}  // namespace migratectl
