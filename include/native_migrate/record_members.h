// SPDX-License-Identifier: Apache-2.0
// How a record declares its JSON form: beside its fields stands one static function,
//
//     static constexpr auto Members()
//     {
//         return MemberList(Member{"status", &Record::status}, ...);
//     }
//
// The order of the list is the order in which the members are read and written.
#pragma once

#include <string_view>
#include <tuple>

namespace VEXA::UpdateEngine {

template <typename Record, typename Field>
struct Member {
    std::string_view key;
    Field Record::*field;
};

template <typename Record, typename Field>
Member(const char*, Field Record::*) -> Member<Record, Field>;

template <typename... Listed>
constexpr std::tuple<Listed...> MemberList(Listed... members)
{
    return {members...};
}

}  // namespace VEXA::UpdateEngine
