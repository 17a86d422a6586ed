// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <limits>

#include "record_traits.h"

namespace VEXA::UpdateEngine {

// The largest integer below which a double holds every one.
inline constexpr double kMaxSafeNumber = 9007199254740991.0;

// Stores `number`, truncated toward zero. False, with `target` left alone, when that does not fit.
template <Number T>
bool StoreNumber(double number, T& target)
{
    using Limits = std::numeric_limits<T>;
    // Both are powers of two, or 0, and so exact; the limit is one more than the maximum, which might not be.
    constexpr double lowest = static_cast<double>(Limits::min());
    constexpr double limit = static_cast<double>((Limits::max() >> 1) + 1) * 2.0;
    const double whole = std::trunc(number);
    if (!(whole >= lowest && whole < limit)) {
        return false;
    }
    target = static_cast<T>(whole);
    return true;
}

}  // namespace VEXA::UpdateEngine
