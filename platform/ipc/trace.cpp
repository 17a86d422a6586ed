// SPDX-License-Identifier: Apache-2.0
#include "trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>

#include "ipc_log.h"
#include "parcel_access.h"
#include "vexa/ipc/trace_operation.h"

namespace VEXA {

static constinit std::atomic<const TraceOperation*> g_lastOperation{nullptr};

TraceOperation::TraceOperation(
    std::u16string_view itsInterface, uint32_t itsCode, const char* itsName, const char* itsFields)
    : interface(itsInterface), code(itsCode), name(itsName), fields(itsFields), previous(g_lastOperation)
{
    while (!g_lastOperation.compare_exchange_weak(previous, this)) {
    }
}

namespace ipc {
namespace {

// Returns the text without what could end a line or a quoted text, or steer a terminal. A long one is cut.
template <typename Text>
std::string Clean(const Text& text)
{
    constexpr size_t kMost = 200;
    std::string clean;
    for (const auto c : text.substr(0, kMost)) {
        clean.append(Traced().isJson && (c == '"' || c == '\\') ? 1 : 0, '\\');
        clean += c >= ' ' && c <= '~' ? static_cast<char>(c) : '?';
    }
    return clean + (text.size() > kMost ? "..." : "");
}

std::string NameOf(pid_t process)
{
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
    return Clean(name) + '[' + (process > 0 ? std::to_string(process) : "?") + ']';
}

void AddField(std::string& fields, const std::string& name, const std::string& value)
{
    fields += (fields.empty() ? "" : ", ") + (Traced().isJson ? '"' + name + "\":" : name + '=') + value;
}

// `fields` and `end` are made by AddField.
void Print(const TracePoint& point, const char* event, const std::string& operation, const std::string& fields,
    const std::string& end = "")
{
    const bool isJson = Traced().isJson;
    const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
    std::string line = (isJson ? "{\"time\":" : "") + std::to_string(now.count());
    const auto add = [&line, isJson](const char* key, const std::string& value) {
        line += isJson ? std::string(", \"") + key + "\":\"" + value + '"' : ' ' + value;
    };
    add("process", NameOf(getpid()));
    add("direction", point.isOut ? "to" : "from");
    add("peer", NameOf(point.peer));
    add("event", event);
    if (point.number != 0) {
        add("request", std::to_string(point.isOwnRequest ? getpid() : point.peer) + '#' + std::to_string(point.number));
        add("operation", operation);
        line += (isJson ? ", \"fields\":{" : "(") + fields + (isJson ? '}' : ')');
    }
    line += (end.empty() ? "" : isJson ? ", " : " ") + end + (isJson ? "}\n" : "\n");
    (void)!write(Traced().fd, line.data(), line.size());
}

// Reads from where the parcel is read next, up to the first field that is not there.
std::string ReadFields(Parcel& parcel, std::string_view wanted)
{
    const char* const quote = Traced().isJson ? "\"" : "'";
    std::string fields;
    std::istringstream words{std::string(wanted)};
    bool isRead = true;
    for (std::string type, name; isRead && words >> type >> name;) {
        int64_t number = 0;
        int32_t word = 0;
        std::string text = "?";
        const bool isWord = type == "int32" || type == "uint32" || type == "bool" || type == "object";
        isRead = isWord ? parcel.ReadInt32(word) : type == "int64" ? parcel.ReadInt64(number) : parcel.ReadString(text);
        const bool isNumber = isRead && (isWord || type == "int64");
        number += type == "uint32" ? int64_t{static_cast<uint32_t>(word)} : word;
        AddField(fields, name.substr(0, name.find(',')),
            isNumber ? std::to_string(number) : std::string(quote).append(Clean(text)).append(quote));
    }
    return fields;
}

template <typename Tell>
void Try(const Tell& tell) noexcept
{
    try {
        tell();
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

const TraceOutput& Traced()
{
    static const TraceOutput output = [] {
        const char* const variable = secure_getenv("VEXA_TRACE");
        const std::string_view wanted = variable != nullptr ? variable : "";
        if (wanted.empty() || wanted == "0") {
            return TraceOutput();
        }
        const bool isHere = wanted == "1" || wanted == "json";
        const int fd =
            isHere ? STDERR_FILENO : open(variable, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
        if (fd < 0) {
            IPC_LOGE("the trace can't be written to %{public}s: %{public}s", variable, strerror(errno));
        }
        return TraceOutput{fd, wanted.ends_with("json")};
    }();
    return output;
}

RequestTrace::RequestTrace(const TracePoint& point, uint32_t code, bool isOneWay, MessageParcel& data) noexcept
    : point_(point), isOneWay_(isOneWay)
{
    if (!IsTraced()) {
        return;
    }
    start_ = std::chrono::steady_clock::now();
    const size_t position = data.GetReadPosition();
    data.RewindRead();
    Try([&] {
        const std::u16string token = data.ReadInterfaceToken();
        const TraceOperation* known = g_lastOperation;
        while (known != nullptr && (known->code != code || known->interface != token)) {
            known = known->previous;
        }
        operation_ = Clean(token) + '.' + (known != nullptr ? known->name : std::to_string(code));
        const std::string_view both = known != nullptr ? known->fields : "";
        const size_t arrow = std::min(both.find("->"), both.size());
        replyFields_ = both.substr(std::min(arrow + 2, both.size()));
        Print(point_, isOneWay_ ? "one-way" : "request", operation_, ReadFields(data, both.substr(0, arrow)));
    });
    ParcelAccess::SetReadPosition(data, position);
}

int32_t RequestTrace::End(int32_t result, MessageParcel& reply) noexcept
{
    if (!IsTraced() || (isOneWay_ && point_.isOut && result == IPC_OK)) {
        return result;
    }
    const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start_;
    const size_t position = reply.GetReadPosition();
    reply.RewindRead();
    point_.isOut = !point_.isOut;
    Try([&] {
        std::string end;
        AddField(end, "result", std::to_string(result));
        AddField(end, "ms", std::to_string(taken.count()));
        Print(point_, isOneWay_ ? "done" : "reply", operation_,
            reply.GetDataSize() > 0 ? ReadFields(reply, replyFields_) : "", end);
    });
    ParcelAccess::SetReadPosition(reply, position);
    return result;
}

void TraceObject(const TracePoint& point, const IRemoteObject& object, pid_t owner, uint64_t id) noexcept
{
    Try([&] {
        std::string fields;
        AddField(fields, "owner", std::to_string(owner));
        AddField(fields, "id", std::to_string(id));
        Print(point, "object", Clean(object.GetObjectDescriptor()), fields);
    });
}

void TraceDeath(pid_t peer) noexcept
{
    Try([&] { Print({false, false, peer, 0}, "death", "", ""); });
}

}  // namespace ipc
}  // namespace VEXA
