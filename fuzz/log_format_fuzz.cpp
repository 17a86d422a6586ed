// SPDX-License-Identifier: Apache-2.0
// Any format at all, with arguments that are good for every conversion: pointers to one text. As each byte of a format
// takes at most one argument's place, a format of FORMAT_MAX bytes never runs out of them.
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "log_formatter.h"

namespace {

constexpr size_t FORMAT_MAX = 32;

void Format(bool showPrivate, const char* format, ...)
{
    VEXA::MessageBuffer out;
    va_list arguments;
    va_start(arguments, format);
    const bool usable = VEXA::FormatMessage(out, format, arguments, showPrivate);
    va_end(arguments);
    const std::string_view text = out.View();
    constexpr std::string_view bad = "<bad format>";
    const bool endsBad = text.size() >= bad.size() && text.substr(text.size() - bad.size()) == bad;
    if (text.size() > VEXA::kLogMessageBytes || (!usable && !out.IsTruncated() && !endsBad)) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0 || size - 1 > FORMAT_MAX) {
        return 0;
    }
    const std::string format(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* t = "a text";
    Format((data[0] & 1) != 0, format.c_str(), t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t,
        t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t);
    return 0;
}
