// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include "journal_fields.h"
#include "vexa/log/kolog.h"

namespace VEXA {
namespace {

int JournalPriority(uint32_t level)
{
    constexpr int priorities[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR, LOG_CRIT};
    return level >= KOLOG_DEBUG && level <= KOLOG_FATAL ? priorities[level - KOLOG_DEBUG] : LOG_DEBUG;
}

// libsystemd's send waits while the journal's queue is full, so ask the queue first. A socket of its own each time
// finds a journal that was restarted, too.
bool JournalTakesMore()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, "/run/systemd/journal/socket", sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return false;
    }
    bool writable = false;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        pollfd state{fd, POLLOUT, 0};
        writable = poll(&state, 1, 0) == 1 && state.revents == POLLOUT;
    }
    close(fd);
    return writable;
}

class JournalLogSink : public LogSink {
public:
    bool Write(const LogRecord& record) override
    {
        if (!JournalTakesMore()) {
            return false;
        }
        const JournalFields fields(record);
        return sd_journal_sendv(fields.Data(), fields.Count()) == 0;
    }
};

}  // namespace

JournalFields::JournalFields(const LogRecord& record)
    : texts_{
          "MESSAGE=" + std::string(record.message),
          "PRIORITY=" + std::to_string(JournalPriority(record.level)),
          "SYSLOG_IDENTIFIER=" + std::string(record.tag),
          "TID=" + std::to_string(record.tid),
          "KOLOG_TYPE=" + std::to_string(record.type),
          "KOLOG_LEVEL=" + std::to_string(record.level),
          "KOLOG_DOMAIN=",
          "KOLOG_FORMAT=" + std::string(record.format),
      }
{
    char domain[16];
    std::snprintf(domain, sizeof domain, "0x%X", record.domain);
    texts_[6] += domain;
    for (size_t index = 0; index < texts_.size(); ++index) {
        pieces_[index] = {texts_[index].data(), texts_[index].size()};
    }
}

std::unique_ptr<LogSink> MakeJournalLogSink()
{
    if (access("/run/systemd/journal/socket", W_OK) != 0) {
        return nullptr;
    }
    return std::make_unique<JournalLogSink>();
}

}  // namespace VEXA
