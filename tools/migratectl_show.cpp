// SPDX-License-Identifier: Apache-2.0
#include "migratectl_request.h"

namespace migratectl {

namespace {

// The members of an object, without its lists.
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

// A column of a table: its title, and the member that it shows, which may be one of a member.
struct Column {
    const char* title;
    const char* outer;
    const char* key;
};

void ShowColumns(const Options& options, const std::string& text, std::initializer_list<Column> columns)
{
    const JsonContext list(text);
    std::vector<Fields> rows;
    for (const JsonContext& element : list) {
        Fields& row = rows.emplace_back();
        for (const auto& [title, outer, key] : columns) {
            row.emplace_back(title, ShowJson((*outer != '\0' ? element[outer] : element)[key]));
        }
    }
    PrintRows(options, rows);
}

}  // namespace

void ShowReply::operator()(const Options& /*options*/, int64_t bytes) const
{
    Print(ShowBytes(bytes) + "\n");
}

void ShowReply::operator()(const Options& /*options*/, const std::vector<std::string>& names) const
{
    for (const std::string& name : names) {
        Print(Clean(name) + "\n");
    }
}

void ShowReply::operator()(const Options& options, const MigrateInfo& info) const
{
    (*this)(options, info.migrateProgress);
    std::vector<Fields> rows;
    for (const TaskInfo& task : info.taskInfos) {
        rows.push_back({{"id", std::to_string(task.id)}, {"status", StatusName(static_cast<int64_t>(task.status))},
            {"done", ShowNumber("percent", task.progress)}, {"left", ShowBytes(task.requiredTraffic)},
            {"user", std::to_string(task.userId)}, {"source", task.source}, {"target", task.target}});
    }
    PrintRows(options, rows);
}

void ShowResult(const Options& options, const std::string& text)
{
    const JsonContext result(text);
    Print(FormatFields(FieldsOf(result)));
    std::vector<Fields> packages;
    for (const JsonContext& package : result["packages"]) {
        packages.push_back(FieldsOf(package));
    }
    PrintRows(options, packages);
}

void ShowApps(const Options& options, const std::string& text)
{
    ShowColumns(options, text,
        {{"package", "", "packageName"}, {"version", "", "versionName"}, {"code", "", "versionCode"},
            {"scene", "", "restoreScene"}, {"directory", "", "scanSourceDir"}});
}

void ShowEvents(const Options& options, const std::string& text)
{
    constexpr auto kApp = "restoreAppInfo";
    ShowColumns(options, text,
        {{"status", "", "status"}, {"package", kApp, "packageName"}, {"version", kApp, "versionName"},
            {"scene", kApp, "restoreScene"}, {"error", "errorInfo", "reason"}});
}

void ShowCheck(const Options& /*options*/, const std::string& text)
{
    const JsonContext check(text);
    const std::string reason = ShowJson(check["reason"]);
    Print(ShowJson(check["canRestore"]) + (reason.empty() ? "" : " " + Clean(reason)) + "\n");
}

}  // namespace migratectl
