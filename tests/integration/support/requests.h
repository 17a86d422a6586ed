// SPDX-License-Identifier: Apache-2.0
// The fields of requests, and the codes of those to the migration service.
#pragma once

#include <cctype>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "native_migrate/migrate_protocol.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::test {

struct PutField {
    MessageParcel& parcel;
    void operator()(bool value) const { parcel.WriteBool(value); }
    void operator()(int32_t value) const { parcel.WriteInt32(value); }
    void operator()(uint32_t value) const { parcel.WriteUint32(value); }
    void operator()(int64_t value) const { parcel.WriteInt64(value); }
    void operator()(const char* value) const { parcel.WriteString(value); }
    void operator()(const std::string& value) const { parcel.WriteString(value); }
    void operator()(const sptr<IRemoteObject>& value) const { parcel.WriteRemoteObject(value); }
    void operator()(const Parcelable& value) const { parcel.WriteParcelable(&value); }
};

// The compiler shows a value by its enumerator's name, or as a number when it has none.
template <auto kCode>
bool HasName()
{
    const std::string_view shown = __PRETTY_FUNCTION__;
    return std::isdigit(static_cast<unsigned char>(shown[shown.size() - 2])) == 0;
}
template <uint32_t... kNumbers>
std::set<uint32_t> NamedCodes(std::integer_sequence<uint32_t, kNumbers...> /*numbers*/)
{
    std::set<uint32_t> codes;
    (void(HasName<UpdateEngine::MigrateRequestCode{kNumbers}>() && codes.insert(kNumbers).second), ...);
    return codes;
}
// All, so that a request without a row in a test's table is noticed.
inline const std::set<uint32_t> REQUEST_CODES = NamedCodes(std::make_integer_sequence<uint32_t, 256>());

}  // namespace VEXA::test
