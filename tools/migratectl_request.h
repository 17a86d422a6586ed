// SPDX-License-Identifier: Apache-2.0
// Makes the action of a command from the client's operation: the fields of the command line are its arguments, the rest
// of its parameters are what it replies.
#pragma once

#include <tuple>
#include <utility>

#include "json_to_struct.h"
#include "migratectl_command.h"
#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_server_kits.h"
#include "native_migrate/reserve_migrate_kits.h"

namespace migratectl {

template <typename Kits>
Kits& Client()
{
    if constexpr (std::is_same_v<Kits, MigrateServerKits>) {
        return MigrateServerKits::GetKitsInstance();
    } else {
        // The object is never destroyed, because its threads may outlive main.
        static auto* const kits = new Kits;
        return *kits;
    }
}

// Shows a reply to people: a number as a size, names as lines, a record as its fields, and a list of records as a
// table.
void ShowReply(const Options& options, const JsonContext& reply);
void ShowInfo(const Options& options, const JsonContext& info);
void ShowResult(const Options& options, const JsonContext& result);
void ShowApps(const Options& options, const JsonContext& apps);
void ShowEvents(const Options& options, const JsonContext& events);
void ShowCheck(const Options& options, const JsonContext& check);
using Show = void (*)(const Options&, const JsonContext&);
// Stands in the place of a Show: the reply is the text of a BusinessError.
constexpr Show kAnError = nullptr;

// End a request: what it replied is shown, or printed as JSON.
inline int Conclude(const CommandLine& line, Show /*show*/, int32_t result, const BusinessError& error)
{
    return Finish(line.options, line.command, result, error);
}

template <typename Reply>
int Conclude(const CommandLine& line, Show show, int32_t result, const Reply& reply, const BusinessError& error = {})
{
    const std::string json = ToJson(reply);
    if (show == kAnError) {
        BusinessError replied;
        JsonToStruct().AccessMember(JsonContext(json), replied, "");
        return Finish(line.options, line.command, result, replied);
    }
    if (!line.options.json && result == MIGRATE_SUCCESS) {
        show(line.options, JsonContext(json));
    }
    return Finish(line.options, line.command, result, error, json);
}

template <typename Kits, typename... Parameters, typename... Fields, size_t... Replies>
Action MakeRequest(Show show, int32_t (Kits::*operation)(Parameters...), std::index_sequence<Replies...> /*replies*/,
    Fields CommandLine::*... fields)
{
    using All = std::tuple<std::decay_t<Parameters>...>;
    return [=]([[maybe_unused]] const CommandLine& line) {
        std::tuple<std::tuple_element_t<sizeof...(Fields) + Replies, All>...> replies;
        const int32_t result = (Client<Kits>().*operation)(line.*fields..., std::get<Replies>(replies)...);
        return Conclude(line, show, result, std::get<Replies>(replies)...);
    };
}

template <typename Kits, typename... Parameters, typename... Fields>
Action Request(Show show, int32_t (Kits::*operation)(Parameters...), Fields CommandLine::*... fields)
{
    using Replies = std::make_index_sequence<sizeof...(Parameters) - sizeof...(Fields)>;
    return MakeRequest(show, operation, Replies(), fields...);
}

template <typename Kits, typename... Parameters, typename... Fields>
Action Request(int32_t (Kits::*operation)(Parameters...), Fields CommandLine::*... fields)
{
    return Request(ShowReply, operation, fields...);
}

// Makes the action of an operation whose arguments are not the command line's fields.
template <typename Reply>
Action Request(Show show, int32_t (*ask)(const CommandLine& line, Reply& reply))
{
    return [=](const CommandLine& line) {
        Reply reply;
        const int32_t result = ask(line, reply);
        return Conclude(line, show, result, reply);
    };
}

// Commands that are more than a request.
int StartMigration(const CommandLine& line);
int OwnBackups(const CommandLine& line);
int LoadService(const CommandLine& line);
int RestoreApp(const CommandLine& line);
int WatchRestorations(const CommandLine& line);

}  // namespace migratectl
