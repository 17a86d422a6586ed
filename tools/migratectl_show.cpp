// SPDX-License-Identifier: Apache-2.0
#include "migratectl_request.h"

namespace migratectl {

namespace {

// The members of an object, those of nested ones with both names. A list within it, where wanted, is shown as
// "1:one, 2:two", of elements with two members.
Fields ToFields(const JsonContext& object, bool hasLists, const std::string& prefix = "")
{
    Fields fields;
    for (const JsonContext& member : object) {
        const std::string name = prefix + std::string(member.Key());
        if (member.Type() == JsonContext::OBJECT) {
            const Fields inner = ToFields(member, hasLists, name + ".");
            fields.insert(fields.end(), inner.begin(), inner.end());
        } else if (member.Type() != JsonContext::ARRAY) {
            fields.emplace_back(name, ShowJson(member));
        } else if (hasLists) {
            std::string text;
            for (const JsonContext& element : member) {
                std::string separator = text.empty() ? "" : ", ";
                for (const auto& [key, value] : ToFields(element, hasLists)) {
                    text += std::exchange(separator, ":") + value;
                }
            }
            fields.emplace_back(name, text);
        }
    }
    return fields;
}

// Names become lines of their own.
void ShowList(const Options& options, const JsonContext& list)
{
    std::vector<Fields> rows;
    for (const JsonContext& element : list) {
        if (element.Type() == JsonContext::STRING) {
            Print(Clean(ShowJson(element)) + "\n");
        } else {
            rows.push_back(ToFields(element, true));
        }
    }
    Print(FormatTable(rows, options.width()));
}

// A column of a table: its title, and the member that it shows, which may be one of a member.
struct Column {
    const char* title;
    const char* outer;
    const char* key;
};

void ShowColumns(const Options& options, const JsonContext& list, std::initializer_list<Column> columns)
{
    std::vector<Fields> rows;
    for (const JsonContext& element : list) {
        Fields& row = rows.emplace_back();
        for (const auto& [title, outer, key] : columns) {
            row.emplace_back(title, ShowJson((*outer != '\0' ? element[outer] : element)[key]));
        }
    }
    Print(FormatTable(rows, options.width()));
}

}  // namespace

void ShowReply(const Options& options, const JsonContext& reply)
{
    if (reply.Type() == JsonContext::ARRAY) {
        ShowList(options, reply);
    } else if (reply.Type() == JsonContext::OBJECT) {
        Print(FormatFields(ToFields(reply, true)));
    } else {
        Print(ShowBytes(NumberOf(reply)) + "\n");
    }
}

void ShowInfo(const Options& options, const JsonContext& info)
{
    ShowReply(options, info["migrateProgress"]);
    ShowColumns(options, info["taskInfos"],
        {{"id", "", "id"}, {"status", "", "status"}, {"done", "", "progress"}, {"left", "", "requiredTraffic"},
            {"user", "", "userId"}, {"source", "", "source"}, {"target", "", "target"}});
}

void ShowResult(const Options& options, const JsonContext& result)
{
    Print(FormatFields(ToFields(result, false)));
    ShowList(options, result["packages"]);
}

void ShowApps(const Options& options, const JsonContext& apps)
{
    ShowColumns(options, apps,
        {{"package", "", "packageName"}, {"version", "", "versionName"}, {"code", "", "versionCode"},
            {"scene", "", "restoreScene"}, {"directory", "", "scanSourceDir"}});
}

void ShowEvents(const Options& options, const JsonContext& events)
{
    constexpr auto kApp = "restoreAppInfo";
    ShowColumns(options, events,
        {{"status", "", "status"}, {"package", kApp, "packageName"}, {"version", kApp, "versionName"},
            {"scene", kApp, "restoreScene"}, {"error", "errorInfo", "reason"}});
}

void ShowCheck(const Options& /*options*/, const JsonContext& check)
{
    const std::string reason = ShowJson(check["reason"]);
    Print(ShowJson(check["canRestore"]) + (reason.empty() ? "" : " " + Clean(reason)) + "\n");
}

}  // namespace migratectl
