// SPDX-License-Identifier: Apache-2.0
// Reads the service's JSON texts into records.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "native_migrate/export.h"
#include "native_migrate/reserve_records.h"

namespace VEXA {
class JsonContext;
}

namespace VEXA::UpdateEngine {

enum class JsonError : int32_t {
    SUCCESS = 0,
    DATA_ERROR = 1,         // an empty text, or a member that does not fit
    MISSING_PROP = 2,       // the key is absent, or its value of another kind
    TYPE_ERROR = 3,         // not JSON, or a value that does not hold what its kind says
    NUMBER_EXTRA_LONG = 4,  // a number that a double can't hold exactly, or that does not fit the target
};

// Static members only. They use nothing but their arguments, so they may be called from any thread, and never block.
class JsonParse {
public:
    // Reads a list, as an IReserveMigrateStatusObserver gets it, and as ReserveMigrateKits replies with it. The records
    // are appended to `out`. A missing key leaves its field at the default, an unknown one is passed over.
    //     SUCCESS       the whole list was read
    //     DATA_ERROR    the text is empty or not a list, or a member does not fit; the elements before it are in `out`
    //     TYPE_ERROR    the text is not JSON; `out` is untouched
    NATIVE_MIGRATE_EXPORT static JsonError JsonStrToStruct(const std::string& text, std::vector<RestoreEventInfo>& out);
    NATIVE_MIGRATE_EXPORT static JsonError JsonStrToStruct(const std::string& text, std::vector<RestoreAppInfo>& out);

    // The library's own, defined in its json/json_parse.h: any record or list, and one key of an object.
    template <typename T>
    static JsonError JsonStrToStruct(const std::string& text, T& out);
    template <typename T>
    static JsonError GetValueAndSetTo(const JsonContext& json, std::string_view key, T& target);
};

}  // namespace VEXA::UpdateEngine
