// SPDX-License-Identifier: Apache-2.0
// The fields of requests and replies.
#pragma once

#include <charconv>
#include <memory>
#include <string>
#include <vector>

#include "json_parse.h"
#include "json_text.h"
#include "operation_fields.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

// What an operation sets for the reply.
template <typename T>
struct ReplyValue {
    operator T&() { return value; }
    T value{};
};
template <typename T>
inline constexpr bool IsReplyValue = false;
template <typename T>
inline constexpr bool IsReplyValue<ReplyValue<T>> = true;

template <typename T>
concept Restricted = requires(const T& field)
{
    field.IsAllowed();
};

// Reads the fields of a request in their order. False when one is missing, or has a value that its type does not allow.
struct FieldReader {
    bool Read(bool& value) const { return data.ReadBool(value); }
    bool Read(std::string& text) const { return data.ReadString(text); }
    bool Read(int32_t& number) const { return data.ReadInt32(number); }
    bool Read(PlainNumber& number) const { return data.ReadInt32(number.value); }
    bool Read(sptr<IRemoteObject>& object) const { return (object = data.ReadRemoteObject()) != nullptr; }
    bool Read(MigrateStage& stage) const
    {
        uint32_t number = 0;
        const bool isRead = data.ReadUint32(number) && number <= static_cast<uint32_t>(MigrateStage::FINISH);
        stage = static_cast<MigrateStage>(number);
        return isRead;
    }
    bool Read(NumberText& number) const
    {
        const std::string text = data.ReadString();
        const char* const end = text.data() + text.size();
        const auto [last, error] = std::from_chars(text.data(), end, number.value);
        return error == std::errc() && last == end;
    }
    bool Read(MigrationEvent& event) const
    {
        const std::unique_ptr<AAFwk::Want> want = data.ReadParcelable<AAFwk::Want>();
        if (want == nullptr) {
            return false;
        }
        const auto reason = want->GetParam<int32_t>("reason", static_cast<int32_t>(event.reason));
        event = {want->GetAction(), static_cast<TaskPauseReason>(reason)};
        return true;
    }
    template <Restricted T>
    bool Read(T& field) const
    {
        return Read(static_cast<typename T::Plain&>(field)) && field.IsAllowed();
    }
    template <typename Interface>
    bool Read(sptr<Interface>& remote) const
    {
        remote = iface_cast<Interface>(data.ReadRemoteObject());
        return remote != nullptr;
    }
    template <typename T>
    bool Read(ReplyValue<T>& /*value*/) const
    {
        return true;
    }
    // A record or a list: its JSON, or an empty text.
    template <typename T>
    bool Read(T& value) const
    {
        std::string text;
        return data.ReadString(text) &&
               (text.empty() || ((IsVector<T> || JsonContext(text).Type() == JsonContext::OBJECT) &&
                                    JsonParse::JsonStrToStruct(text, value) == JsonError::SUCCESS));
    }

    MessageParcel& data;
};

// Writes the fields of a reply. False when they are too large.
struct FieldWriter {
    bool Write(const std::string& text) const { return reply.WriteString(text); }
    bool Write(int64_t number) const { return reply.WriteInt64(number); }
    template <typename T>
    bool Write(const T& record) const
    {
        return Write(ToJson(record));
    }
    // Of an operation's arguments.
    template <typename T>
    bool WriteReply(const ReplyValue<T>& argument) const
    {
        return Write(argument.value);
    }
    template <typename T>
    bool WriteReply(const T& /*field*/) const
    {
        return true;
    }

    MessageParcel& reply;
};

}  // namespace VEXA::UpdateEngine
