// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/task_info.h"

#include "json_parse.h"

namespace VEXA::UpdateEngine {
namespace {

template <typename Field>
void Read(const JsonContext& json, TaskInfo& task, const Member<TaskInfo, Field>& member)
{
    JsonParse::GetValueAndSetTo(json, member.key, task.*member.field);
}

// Unlike the other fields, an enumeration that can't be read falls back to its default.
template <Enumeration Field>
void Read(const JsonContext& json, TaskInfo& task, const Member<TaskInfo, Field>& member)
{
    auto value = static_cast<int32_t>(TaskInfo().*member.field);
    JsonParse::GetValueAndSetTo(json, member.key, value);
    task.*member.field = static_cast<Field>(value);
}

}  // namespace

void TaskInfo::FromJson(const JsonContext& json, TaskInfo& task)
{
    std::apply([&](const auto&... member) { (Read(json, task, member), ...); }, kMembers<TaskInfo>);
}

}  // namespace VEXA::UpdateEngine
