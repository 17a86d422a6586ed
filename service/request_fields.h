// SPDX-License-Identifier: Apache-2.0
// The fields of requests and replies.
#pragma once

#include <memory>
#include <string>

#include "json_parse.h"
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

// A text that must say something.
struct Name {
    std::string text;
};
inline bool ReadField(MessageParcel& data, Name& name)
{
    return data.ReadString(name.text) && !name.text.empty();
}

// A text that is empty or the JSON of a record or a list.
template <typename T>
struct JsonText {
    T value;
};
template <typename T>
bool ReadField(MessageParcel& data, JsonText<T>& field)
{
    std::string text;
    return data.ReadString(text) &&
           (text.empty() || JsonParse::JsonStrToStruct(text, field.value) == JsonError::SUCCESS);
}

inline bool ReadField(MessageParcel& data, sptr<IRemoteObject>& object)
{
    object = data.ReadRemoteObject();
    return object != nullptr;
}
template <typename T>
bool ReadField(MessageParcel& data, std::unique_ptr<T>& parcelable)
{
    parcelable = data.ReadParcelable<T>();
    return parcelable != nullptr;
}

// False when one of the fields, in their order, is not there.
template <typename... Fields>
bool ReadFields(MessageParcel& data, Fields&... fields)
{
    return (ReadField(data, fields) && ...);
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
