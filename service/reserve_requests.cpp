// SPDX-License-Identifier: Apache-2.0
// The stub's requests for reserved applications. Each is answered with one text: a list of records or a BusinessError.
#include <charconv>

#include "migrate_server_stub.h"
#include "request_fields.h"
#include "service_limits.h"
#include "vexa/ipc/ipc_skeleton.h"

namespace VEXA::UpdateEngine {

namespace {

// A name that nothing bears is the result of a request, not only a word in its reply.
int32_t ReplyTo(MessageParcel& reply, const BusinessError& error)
{
    return error.errorNum == MIGRATE_ERROR_NOT_FOUND ? MIGRATE_NO_SUCH_APP : WriteReply(reply, error);
}

template <typename Record>
int32_t ReplyTo(MessageParcel& reply, const BusinessError& error, const std::vector<Record>& records)
{
    if (error.errorNum == MIGRATE_ERROR_NOT_FOUND) {
        return MIGRATE_NO_SUCH_APP;
    }
    return error.errorNum != 0 ? MIGRATE_INTERNAL : WriteReply(reply, records);
}

template <typename Action>
int32_t ReplyForNameAndScene(MessageParcel& data, MessageParcel& reply, const Action& action)
{
    Name name;
    std::string scene;
    return ReadFields(data, name, scene) ? ReplyTo(reply, action(name.text, scene)) : MIGRATE_BAD_ARGUMENT;
}

bool ParseNumber(const std::string& text, int32_t& number)
{
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end;
}

}  // namespace

int32_t MigrateServerStub::GetRestoreAppInfos(MessageParcel& data, MessageParcel& reply)
{
    std::string name;
    int32_t most = 0;
    if (!ReadFields(data, name, most)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    std::vector<RestoreAppInfo> apps;
    const BusinessError error = engine_->GetReserved(name, apps);
    if (most >= 0 && apps.size() > static_cast<size_t>(most)) {
        apps.resize(static_cast<size_t>(most));
    }
    return ReplyTo(reply, error, apps);
}

int32_t MigrateServerStub::RestoreApp(MessageParcel& data, MessageParcel& reply)
{
    return ReplyForNameAndScene(
        data, reply, [this](const auto& name, const auto& scene) { return engine_->Restore(name, scene); });
}

int32_t MigrateServerStub::RegisterObserver(MessageParcel& data, MessageParcel& reply)
{
    Name caller;
    if (!ReadFields(data, caller) || caller.text.size() > kLongestCaller) {
        return MIGRATE_BAD_ARGUMENT;
    }
    const sptr<IRemoteObject> object = data.ReadRemoteObject();
    if (object == nullptr) {
        return MIGRATE_BAD_ARGUMENT;
    }
    const bool isAdded = hub_->AddObserver(IPCSkeleton::GetCallingPid(), caller.text, object,
        [this](const auto& receive) { engine_->IntroduceRestores(receive); });
    return isAdded ? WriteReply(reply, BusinessError()) : MIGRATE_TOO_MANY;
}

int32_t MigrateServerStub::UnregisterObserver(MessageParcel& data, MessageParcel& reply)
{
    Name caller;
    if (!ReadFields(data, caller)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    const bool isRemoved = hub_->RemoveObserver(IPCSkeleton::GetCallingPid(), caller.text);
    return WriteReply(
        reply, isRemoved ? BusinessError() : MakeError(MIGRATE_ERROR_NOTHING, "no observer of that name was there"));
}

int32_t MigrateServerStub::ClearApp(MessageParcel& data, MessageParcel& reply)
{
    return ReplyForNameAndScene(
        data, reply, [this](const auto& name, const auto& scene) { return engine_->ClearReserved(name, scene); });
}

int32_t MigrateServerStub::ClearAllVirtualData(MessageParcel& data, MessageParcel& reply)
{
    std::string scene;
    if (!ReadFields(data, scene)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return ReplyTo(reply, engine_->ClearAllReserved(scene));
}

int32_t MigrateServerStub::GetRestoreAppStatus(MessageParcel& data, MessageParcel& reply)
{
    std::string name;
    std::string scene;
    if (!ReadFields(data, name, scene)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    std::vector<RestoreEventInfo> events;
    const BusinessError error = engine_->GetRestoreStatus(name, scene, events);
    return ReplyTo(reply, error, events);
}

int32_t MigrateServerStub::AdjustAppPriority(MessageParcel& data, MessageParcel& reply)
{
    Name name;
    std::string text;
    int32_t priority = 0;
    if (!ReadFields(data, name, text) || !ParseNumber(text, priority)) {
        return MIGRATE_BAD_ARGUMENT;
    }
    return ReplyTo(reply, engine_->AdjustPriority(name.text, priority));
}

}  // namespace VEXA::UpdateEngine
