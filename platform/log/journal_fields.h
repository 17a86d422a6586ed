// SPDX-License-Identifier: Apache-2.0
// A record as the journal takes it: a list of "NAME=value".
#pragma once

#include <sys/uio.h>

#include <array>
#include <string>

#include "vexa/log/log_sink.h"

namespace VEXA {

class JournalFields {
public:
    explicit JournalFields(const LogRecord& record);
    JournalFields(const JournalFields&) = delete;
    JournalFields& operator=(const JournalFields&) = delete;

    const iovec* Data() const { return pieces_.data(); }
    int Count() const { return static_cast<int>(pieces_.size()); }

private:
    std::array<std::string, 8> texts_;
    std::array<iovec, 8> pieces_;
};

}  // namespace VEXA
