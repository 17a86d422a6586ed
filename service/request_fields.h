// SPDX-License-Identifier: Apache-2.0
// The fields of requests and replies.
#pragma once

#include <string>

#include "json_text.h"
#include "native_migrate/migrate_results.h"
#include "native_migrate/migrate_stage.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::UpdateEngine {

inline bool ReadField(MessageParcel& data, std::string& value)
{
    return data.ReadString(value);
}
inline bool ReadField(MessageParcel& data, bool& value)
{
    return data.ReadBool(value);
}
inline bool ReadField(MessageParcel& data, int32_t& value)
{
    return data.ReadInt32(value);
}
// One of the stages that have a name.
inline bool ReadField(MessageParcel& data, MigrateStage& value)
{
    uint32_t number = 0;
    const bool isRead = data.ReadUint32(number) && number <= static_cast<uint32_t>(MigrateStage::FINISH);
    value = static_cast<MigrateStage>(number);
    return isRead;
}

// False when one of the fields, in their order, is not there.
template <typename... Fields>
bool ReadFields(MessageParcel& data, Fields&... fields)
{
    return (ReadField(data, fields) && ...);
}

// A text that must say something.
struct Name {
    std::string text;
};
inline bool ReadField(MessageParcel& data, Name& name)
{
    return data.ReadString(name.text) && !name.text.empty();
}

inline bool WriteField(MessageParcel& reply, const std::string& text)
{
    return reply.WriteString(text);
}
inline bool WriteField(MessageParcel& reply, int64_t number)
{
    return reply.WriteInt64(number);
}
template <typename T>
bool WriteField(MessageParcel& reply, const T& record)
{
    return reply.WriteString(ToJson(record));
}

// 0, or MIGRATE_INTERNAL when the reply is too large.
template <typename... Fields>
int32_t WriteReply(MessageParcel& reply, const Fields&... fields)
{
    return (WriteField(reply, fields) && ...) ? 0 : MIGRATE_INTERNAL;
}

}  // namespace VEXA::UpdateEngine
