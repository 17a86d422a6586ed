// SPDX-License-Identifier: Apache-2.0
// The kinds of fields and targets that the JSON binding tells apart.
#pragma once

#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "vexa/json/json_context.h"

namespace VEXA::UpdateEngine {

template <typename T>
concept Record = requires
{
    T::Members();
};

// A record that is read by an operation of its own.
template <typename T>
concept SelfReading = Record<T> && requires(T record, const JsonContext& json)
{
    record.FromJson(json, record);
};

template <typename T>
inline constexpr bool IsVector = false;
template <typename T>
inline constexpr bool IsVector<std::vector<T>> = true;

template <typename T>
concept Enumeration = std::is_enum_v<T>;

template <typename T>
concept Number = std::is_integral_v<T> && !std::is_same_v<T, bool> && sizeof(T) >= sizeof(int);

template <Record T>
using MemberIndices = std::make_index_sequence<std::tuple_size_v<decltype(T::Members())>>;

// Stands for the initial value of any field of T. It is not one of a base, so that the fields of a base count singly.
template <typename T>
struct AnyField {
    template <typename Field>
    requires(!std::is_base_of_v<Field, T>) operator Field() const;
};

// True when T can be initialised by as many values as there are indices.
template <typename T, size_t... Indices>
constexpr bool HasRoomFor(std::index_sequence<Indices...> /*indices*/)
{
    return requires
    {
        T{(void(Indices), AnyField<T>())...};
    };
}

// The member list of T. Does not compile for a list that is shorter than the record.
template <Record T>
consteval auto CountedMembers()
{
    static_assert(std::is_aggregate_v<T>, "a record is an aggregate, else its fields can't be counted");
    static_assert(HasRoomFor<T>(MemberIndices<T>()), "the list names a field twice, or the record has an empty base");
    static_assert(!HasRoomFor<T>(std::make_index_sequence<MemberIndices<T>::size() + 1>()),
        "a field, or a base's, is not in the list");
    return T::Members();
}

template <Record T>
inline constexpr auto kMembers = CountedMembers<T>();

}  // namespace VEXA::UpdateEngine
