// SPDX-License-Identifier: Apache-2.0
// The fields of requests.
#pragma once

#include <charconv>
#include <memory>
#include <string>

#include "json_parse.h"
#include "native_migrate/migrate_results.h"
#include "native_migrate/migrate_stage.h"
#include "operation_fields.h"
#include "service_limits.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

// Reads the fields of a request in their order. False when one is missing, or has a value that its type does not allow.
struct FieldReader {
    bool Read(bool& value) const { return data.ReadBool(value); }
    bool Read(std::string& text) const { return data.ReadString(text); }
    bool Read(int32_t& number) const { return data.ReadInt32(number); }
    bool Read(Name& name) const { return data.ReadString(name) && !name.empty(); }
    bool Read(ObserverName& name) const { return Read(static_cast<Name&>(name)) && name.size() <= kLongestCaller; }
    bool Read(User& user) const { return data.ReadInt32(user.value) && user >= MIGRATE_ALL_USERS; }
    bool Read(Policy& policy) const
    {
        return data.ReadInt32(policy.value) && (policy == MIGRATE_POLICY_GO_ON || policy == MIGRATE_POLICY_STOP);
    }
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
        event = want == nullptr ? event : MigrationEvent{want->GetAction(), want->GetParam("reason", event.reason)};
        return want != nullptr;
    }
    template <typename Interface>
    bool Read(sptr<Interface>& remote) const
    {
        return (remote = iface_cast<Interface>(data.ReadRemoteObject())) != nullptr;
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

}  // namespace VEXA::UpdateEngine
