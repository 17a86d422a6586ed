// SPDX-License-Identifier: Apache-2.0
// A request as one row of a table: how it is answered follows from the signature of the operation that answers it.
#pragma once

#include <tuple>
#include <type_traits>

#include "callback_hub.h"
#include "migration_engine.h"
#include "native_migrate/migrate_protocol.h"
#include "request_fields.h"

namespace VEXA::UpdateEngine {

// The objects whose operations answer requests.
using RequestParts = std::tuple<std::shared_ptr<MigrationQueries>, std::shared_ptr<MigrationCommands>,
    std::shared_ptr<Reservations>, std::shared_ptr<CallbackHub>>;

// ANYBODY: all who may look the service up may send the request. CONTROL: only root, the service's user and the control
// group may.
enum class Who { ANYBODY, CONTROL };

struct RequestRow {
    MigrateRequestCode code;
    const char* name;  // the client's operation
    // Answers a request behind its token; returns the service's result.
    int32_t (*answer)(const RequestParts& parts, MessageParcel& data, MessageParcel& reply);
    Who who;
};

// The reply of an operation that returns a BusinessError. BOTH: its value and the error. ONE_TEXT: the value, or the
// error of an operation without one; that nothing has the name, and that there is no value, are results of the request.
enum class Reply { BOTH, ONE_TEXT };

template <typename Owner, typename Outcome, typename... Arguments>
struct Signature {
    // Write a field of a reply; false when it is too large.
    static bool Write(MessageParcel& reply, int64_t value) { return reply.WriteInt64(value); }
    static bool Write(MessageParcel& reply, const auto& record) { return reply.WriteString(ToJson(record)); }
    // An argument by reference that is not const takes the reply, and is the last. The others are the fields.
    template <typename T>
    static constexpr bool kTakesReply = std::is_lvalue_reference_v<T> && !std::is_const_v<std::remove_reference_t<T>>;
    static constexpr bool kHasReply = (kTakesReply<Arguments> || ...);

    template <auto kOperation, Reply kReply>
    static int32_t Answer(const RequestParts& parts, MessageParcel& data, MessageParcel& reply)
    {
        std::tuple<std::remove_cvref_t<Arguments>...> values{};
        const FieldReader reader{data};
        const auto read = [&reader](auto&... value) { return ((kTakesReply<Arguments> || reader.Read(value)) && ...); };
        if (!std::apply(read, values)) {
            return MIGRATE_BAD_ARGUMENT;
        }
        const auto& owner = std::get<std::shared_ptr<Owner>>(parts);
        const Outcome outcome = std::apply([&](auto&... value) { return (*owner.*kOperation)(value...); }, values);
        const auto finish = [&](const auto&... last) {
            bool isWritten = true;
            if constexpr (kHasReply) {
                isWritten = Write(reply, std::get<sizeof...(Arguments) - 1>(values));
            }
            return (isWritten && ... && Write(reply, last)) ? MIGRATE_SUCCESS : MIGRATE_INTERNAL;
        };
        if constexpr (std::is_same_v<Outcome, int32_t>) {
            return outcome == MIGRATE_SUCCESS ? finish() : outcome;
        } else if constexpr (!std::is_same_v<Outcome, BusinessError>) {
            return finish(outcome, BusinessError());
        } else if (kReply == Reply::ONE_TEXT && outcome.errorNum == MIGRATE_ERROR_NOT_FOUND) {
            return MIGRATE_NO_SUCH_APP;
        } else if constexpr (kReply == Reply::ONE_TEXT && kHasReply) {
            return outcome.errorNum == 0 ? finish() : MIGRATE_INTERNAL;
        } else {
            return finish(outcome);
        }
    }
};
template <typename Owner, typename Outcome, typename... Arguments>
Signature<Owner, Outcome, Arguments...> SignatureOf(Outcome (Owner::*)(Arguments...));
template <typename Owner, typename Outcome, typename... Arguments>
Signature<Owner, Outcome, Arguments...> SignatureOf(Outcome (Owner::*)(Arguments...) const);

// An operation returns a BusinessError, the service's result, or a value that can always be had.
template <auto kOperation, Reply kReply = Reply::BOTH>
inline constexpr auto By = &decltype(SignatureOf(kOperation))::template Answer<kOperation, kReply>;

}  // namespace VEXA::UpdateEngine
