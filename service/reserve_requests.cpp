// SPDX-License-Identifier: Apache-2.0
// The stub's requests for reserved applications. Each is answered with one text: a list of records or a BusinessError.
#include <charconv>

#include "migrate_server_stub.h"
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

bool ParseNumber(const std::string& text, int32_t& number)
{
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end;
}

}  // namespace

void MigrateServerStub::AddReserveRequests()
{
    using Code = MigrateRequestCode;
    On<std::string, int32_t>(
        Code::GET_RESTORE_APP_INFOS, [this](MessageParcel& reply, const std::string& name, int32_t most) {
            std::vector<RestoreAppInfo> apps;
            const BusinessError error = engine_->GetReserved(name, apps);
            if (most >= 0 && apps.size() > static_cast<size_t>(most)) {
                apps.resize(static_cast<size_t>(most));
            }
            return ReplyTo(reply, error, apps);
        });
    On<std::string, std::string>(
        Code::GET_RESTORE_APP_STATUS, [this](MessageParcel& reply, const std::string& name, const std::string& scene) {
            std::vector<RestoreEventInfo> events;
            const BusinessError error = engine_->GetRestoreStatus(name, scene, events);
            return ReplyTo(reply, error, events);
        });
    On<Name, std::string>(Code::RESTORE_APP, [this](MessageParcel& reply, const Name& name, const std::string& scene) {
        return ReplyTo(reply, engine_->Restore(name.text, scene));
    });
    On<Name, std::string>(Code::CLEAR_APP, [this](MessageParcel& reply, const Name& name, const std::string& scene) {
        return ReplyTo(reply, engine_->ClearReserved(name.text, scene));
    });
    On<std::string>(Code::CLEAR_ALL_VIRTUAL_DATA, [this](MessageParcel& reply, const std::string& scene) {
        return ReplyTo(reply, engine_->ClearAllReserved(scene));
    });
    On<Name, std::string>(
        Code::ADJUST_APP_PRIORITY, [this](MessageParcel& reply, const Name& name, const std::string& text) {
            int32_t number = 0;
            return ParseNumber(text, number) ? ReplyTo(reply, engine_->AdjustPriority(name.text, number))
                                             : MIGRATE_BAD_ARGUMENT;
        });
    On<Name, sptr<IRemoteObject>>(
        Code::REGISTER_RESERVE_OBSERVER, [this](MessageParcel& reply, const Name& caller, const auto& object) {
            if (caller.text.size() > kLongestCaller) {
                return MIGRATE_BAD_ARGUMENT;
            }
            const bool isAdded = hub_->AddObserver(IPCSkeleton::GetCallingPid(), caller.text, object,
                [this](const auto& receive) { engine_->IntroduceRestores(receive); });
            return isAdded ? WriteReply(reply, BusinessError()) : MIGRATE_TOO_MANY;
        });
    On<Name>(Code::UNREGISTER_RESERVE_OBSERVER, [this](MessageParcel& reply, const Name& caller) {
        const bool isRemoved = hub_->RemoveObserver(IPCSkeleton::GetCallingPid(), caller.text);
        return WriteReply(reply,
            isRemoved ? BusinessError() : MakeError(MIGRATE_ERROR_NOTHING, "no observer of that name was there"));
    });
}

}  // namespace VEXA::UpdateEngine
