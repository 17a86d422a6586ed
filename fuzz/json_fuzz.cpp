// SPDX-License-Identifier: Apache-2.0
// Any text, bound to every kind of target. What a record was bound from completely and is written as must bind again,
// to a record that is written alike.
#include <cstdint>
#include <cstdlib>

#include "json_parse.h"
#include "native_migrate/migrate_records.h"

namespace {

using namespace VEXA::UpdateEngine;

template <typename T>
std::string Written(const T& data)
{
    std::string text;
    if (!JsonFromStruct().TraverseData(text, data)) {
        std::abort();
    }
    return text;
}

template <typename T>
void Bind(const std::string& text)
{
    T record;
    if (JsonParse::JsonStrToStruct(text, record) != JsonError::SUCCESS) {
        return;
    }
    const std::string written = Written(record);
    T again;
    if (JsonParse::JsonStrToStruct(written, again) != JsonError::SUCCESS || Written(again) != written) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = (VEXA::KoLogSetLevel(VEXA::KOLOG_FATAL), true);
    (void)quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);
    Bind<BusinessError>(text);
    Bind<MigrateInfo>(text);
    Bind<EventInfo>(text);
    Bind<std::vector<RestoreEventInfo>>(text);
    Bind<std::vector<ModuleMigrationPolicy>>(text);
    Bind<std::vector<std::string>>(text);
    return 0;
}
