// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>
#include <initializer_list>

namespace VEXA {

inline sigset_t SignalSet(std::initializer_list<int> numbers)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) {
        sigaddset(&set, number);
    }
    return set;
}

}  // namespace VEXA
