// SPDX-License-Identifier: Apache-2.0
// Cuts what a program writes into lines for the log.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "samgr_limits.h"

namespace VEXA::samgr {

class OutputLines {
public:
    explicit OutputLines(std::function<void(const std::string&)> onLine) : onLine_(std::move(onLine)) {}

    void Take(const char* bytes, size_t count)
    {
        for (const char* byte = bytes; byte != bytes + count; ++byte) {
            if (*byte == '\n') {
                Flush();
                continue;
            }
            // Control characters could forge lines of the log, or command a terminal.
            const auto value = static_cast<unsigned char>(*byte);
            line_ += (value < ' ' && value != '\t') || value == 0x7f ? '?' : *byte;
            if (line_.size() == kMaxOutputLine) {
                Flush();
            }
        }
    }
    // The last line may lack its end.
    void Flush()
    {
        if (!line_.empty()) {
            onLine_(line_);
            line_.clear();
        }
    }

private:
    const std::function<void(const std::string&)> onLine_;
    std::string line_;
};

}  // namespace VEXA::samgr
