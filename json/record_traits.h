// SPDX-License-Identifier: Apache-2.0
// What kinds of fields and targets the JSON binding tells apart.
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
inline constexpr auto MEMBERS = T::Members();

template <Record T>
using MemberIndices = std::make_index_sequence<std::tuple_size_v<decltype(T::Members())>>;

}  // namespace VEXA::UpdateEngine
