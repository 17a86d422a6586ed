// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string_view>

#include "vexa/base/export.h"

namespace VEXA {

// Has the trace print the names of an operation and its fields, where it prints the code otherwise. A static object of
// a library that stays mapped: it is never taken back, and its texts are static too.
struct VEXA_EXPORT TraceOperation {
    TraceOperation(std::u16string_view itsInterface, uint32_t itsCode, const char* itsName, const char* itsFields);

    const std::u16string_view interface;
    const uint32_t code;
    const char* const name;
    // Type and name of each field behind the token and, behind "->", of the reply's: "int32 id, text action -> object
    // service". A type that is none of int32, uint32, int64, bool and object is a text.
    const std::string_view fields;
    const TraceOperation* previous;
};

}  // namespace VEXA
