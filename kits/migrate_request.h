// SPDX-License-Identifier: Apache-2.0
// One request to the migration service, as both clients send it. The code of an operation holds only its request code,
// its arguments and its replies.
#pragma once

#include <string>
#include <utility>

#include "json_parse.h"
#include "log_line.h"
#include "native_migrate/imigrate_server.h"
#include "native_migrate/migrate_records.h"
#include "vexa/ipc/message_parcel.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

// Keeps the proxy until the request has ended, so that a death meanwhile doesn't take it away.
class MigrateRequest {
public:
    // The lines that a client logs when a request can't be begun, and their level.
    struct RefusalLines {
        uint32_t level;
        LogFormat<> noService;
        LogFormat<> noToken;
    };

    explicit MigrateRequest(sptr<IMigrateServer> service) : service_(std::move(service)) {}

    // True when there is a service and the request has its token; else the client's line is logged.
    bool Begin(const LogSite& site, const RefusalLines& lines);
    bool WriteToken() { return data_.WriteInterfaceToken(IMigrateServer::GetDescriptor()); }

    template <typename... Args>
    void Write(const Args&... args)
    {
        (Put(args), ...);
    }
    // Blocks for the answer, at most 8 seconds. The result is the caller's result.
    int32_t Send(MigrateRequestCode code);
    // A std::string takes a text as it is; everything else but numbers is bound from a JSON text, as far as it fits.
    template <typename... Replies>
    void Read(Replies&... replies)
    {
        (Take(replies), ...);
    }

    bool IsServiceDead() const;

private:
    void Put(bool value) { data_.WriteBool(value); }
    void Put(int32_t value) { data_.WriteInt32(value); }
    void Put(MigrateStage value) { data_.WriteUint32(static_cast<uint32_t>(value)); }
    void Put(const std::string& value) { data_.WriteString(value); }
    void Put(const AAFwk::Want& value) { data_.WriteParcelable(&value); }
    void Put(const sptr<IRemoteObject>& value) { data_.WriteRemoteObject(value); }

    void Take(std::string& text) { text = reply_.ReadString(); }
    void Take(int64_t& value) { value = reply_.ReadInt64(); }
    template <typename Record>
    void Take(Record& record)
    {
        JsonParse::JsonStrToStruct(reply_.ReadString(), record);
    }

    const sptr<IMigrateServer> service_;
    MessageParcel data_;
    MessageParcel reply_;
};

// The fields of a request and of its reply, in order, for ExchangeRequest.
template <typename... T>
auto Args(const T&... args)
{
    return [&args...](MigrateRequest& request) { request.Write(args...); };
}
template <typename... T>
auto Replies(T&... replies)
{
    return [&replies...](MigrateRequest& request) { request.Read(replies...); };
}

// Carries out one request and returns its result. `fill` writes the arguments, just before sending; `take` reads the
// reply of a successful request, and `failed` hears of the result of another.
template <typename Fill, typename Take, typename Failed>
int32_t ExchangeRequest(MigrateRequest& request, const LogSite& site, const MigrateRequest::RefusalLines& lines,
    MigrateRequestCode code, const Fill& fill, const Take& take, const Failed& failed)
{
    if (!request.Begin(site, lines)) {
        return MIGRATE_UNREACHABLE;
    }
    fill(request);
    const int32_t result = request.Send(code);
    if (result == MIGRATE_SUCCESS) {
        take(request);
    } else {
        failed(result);
    }
    return result;
}

}  // namespace VEXA::UpdateEngine
