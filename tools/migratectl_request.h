// SPDX-License-Identifier: Apache-2.0
// Makes the action of a command from the client's operation: the fields of the command line are its arguments, the rest
// of its parameters are what it replies.
#pragma once

#include <tuple>

#include "json_to_struct.h"
#include "migratectl_command.h"
#include "native_migrate/migrate_protocol.h"
#include "native_migrate/migrate_server_kits.h"
#include "native_migrate/reserve_migrate_kits.h"

namespace migratectl {

template <typename Kits>
Kits& Client();
template <>
inline MigrateServerKits& Client()
{
    return MigrateServerKits::GetKitsInstance();
}
// Not destroyed: its threads may outlive main.
template <>
inline ReserveMigrateKits& Client()
{
    static auto* const kits = new ReserveMigrateKits;
    return *kits;
}

// How a reply is shown to people.
struct ShowReply {
    void operator()(const Options& options, int64_t bytes) const;
    void operator()(const Options& options, const std::vector<std::string>& names) const;
    void operator()(const Options& options, const MigrateInfo& info) const;
    template <Record T>
    void operator()(const Options&, const T& record) const
    {
        Print(FormatFields(ToFields(record)));
    }
    template <Record T>
    void operator()(const Options& options, const std::vector<T>& list) const
    {
        std::vector<Fields> rows;
        for (const T& record : list) {
            rows.push_back(ToFields(record));
        }
        PrintRows(options, rows);
    }
};
void ShowResult(const Options& options, const std::string& text);
void ShowApps(const Options& options, const std::string& text);
void ShowEvents(const Options& options, const std::string& text);
void ShowCheck(const Options& options, const std::string& text);
// Of a reply that is the text of a BusinessError.
struct ShowError {};

// End a request: what it replied is shown, or printed as JSON.
inline int Conclude(const CommandLine& line, const ShowReply&, int32_t result, const BusinessError& error)
{
    return Finish(line.options, line.command, result, error);
}

inline int Conclude(const CommandLine& line, const ShowError&, int32_t result, const std::string& reply)
{
    BusinessError error;
    JsonToStruct().AccessMember(JsonContext(reply), error, "");
    return Finish(line.options, line.command, result, error);
}

template <typename Show, typename Reply>
int Conclude(
    const CommandLine& line, const Show& show, int32_t result, const Reply& reply, const BusinessError& error = {})
{
    if (!line.options.json && result == MIGRATE_SUCCESS) {
        show(line.options, reply);
    }
    return Finish(line.options, line.command, result, error, ToJson(reply));
}

// The action that asks with `ask`, which fills what it replies, and shows that.
template <typename... Replies, typename Show, typename Ask>
Action MakeAction(std::type_identity<std::tuple<Replies...>> /*replies*/, const Show& show, const Ask& ask)
{
    return [=](const CommandLine& line) {
        std::tuple<Replies...> replies;
        const int32_t result = std::apply([&](Replies&... reply) { return ask(line, reply...); }, replies);
        return std::apply([&](Replies&... reply) { return Conclude(line, show, result, reply...); }, replies);
    };
}

template <size_t Fields, typename Parameters, size_t... Indices>
auto RepliesBehind(std::index_sequence<Indices...> /*indices*/)
    -> std::tuple<std::decay_t<std::tuple_element_t<Fields + Indices, Parameters>>...>;

template <typename Show, typename Kits, typename... Parameters, typename... Fields>
Action Request(const Show& show, int32_t (Kits::*operation)(Parameters...), Fields CommandLine::*... fields)
{
    constexpr size_t kFields = sizeof...(Fields);
    using Replies = decltype(RepliesBehind<kFields, std::tuple<Parameters...>>(
        std::make_index_sequence<sizeof...(Parameters) - kFields>()));
    return MakeAction(std::type_identity<Replies>(), show, [=](const CommandLine& line, auto&... replies) {
        return (Client<Kits>().*operation)(line.*fields..., replies...);
    });
}

template <typename Kits, typename... Parameters, typename... Fields>
Action Request(int32_t (Kits::*operation)(Parameters...), Fields CommandLine::*... fields)
{
    return Request(ShowReply(), operation, fields...);
}

// Commands that are more than a request.
int StartMigration(const CommandLine& line);
int OwnBackups(const CommandLine& line);
int LoadService(const CommandLine& line);
int RestoreApp(const CommandLine& line);
int WatchRestorations(const CommandLine& line);

}  // namespace migratectl
