// SPDX-License-Identifier: Apache-2.0
#include "json_parse.h"

namespace VEXA::UpdateEngine {

JsonError JsonParse::JsonStrToStruct(const std::string& text, std::vector<RestoreEventInfo>& out)
{
    return JsonStrToStruct<std::vector<RestoreEventInfo>>(text, out);
}

JsonError JsonParse::JsonStrToStruct(const std::string& text, std::vector<RestoreAppInfo>& out)
{
    return JsonStrToStruct<std::vector<RestoreAppInfo>>(text, out);
}

}  // namespace VEXA::UpdateEngine
