// SPDX-License-Identifier: Apache-2.0
#include "json_string.h"

#include <cjson/cJSON.h>

#include <memory>

namespace VEXA::UpdateEngine {

bool WriteJsonString(std::ostream& stream, const std::string& text)
{
    const std::unique_ptr<cJSON, void (*)(cJSON*)> node(cJSON_CreateString(text.c_str()), cJSON_Delete);
    if (node == nullptr) {
        return false;
    }
    const std::unique_ptr<char, void (*)(void*)> printed(cJSON_PrintUnformatted(node.get()), cJSON_free);
    if (printed == nullptr) {
        return false;
    }
    stream << printed.get();
    return true;
}

}  // namespace VEXA::UpdateEngine
