// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/reserve_migrate_kits.h"

#include <utility>

#include "lookup_lock.h"
#include "migrate_request.h"
#include "reserve_migrate_session.h"
#include "vexa/ipc/ipc_skeleton.h"

// The lines of an operation by the pattern of most.
#define OPERATION_LINES(name, failure)                                                                                \
    OperationLines                                                                                                    \
    {                                                                                                                 \
        {KOLOG_INFO, KITS_LINE(name " error, remote server is null"), KITS_LINE(name " InterfaceToken write error")}, \
            KITS_LINE(name " call " failure ", ret=%{public}d")                                                       \
    }

namespace VEXA::UpdateEngine {

namespace {

struct OperationLines {
    MigrateRequest::RefusalLines refusal;
    LogFormat<int32_t> failed;
};

// One request by the pattern of all: the reply is one text.
template <typename Fill>
int32_t Call(ReserveMigrateSession& session, const LogSite& site, MigrateRequestCode code, const OperationLines& lines,
    const Fill& fill, std::string& reply)
{
    MigrateRequest request(session.GetService());
    return ExchangeRequest(request, site, lines.refusal, code, fill, Replies(reply),
        [&](int32_t result) { LogLine(site, KOLOG_ERROR, lines.failed, result); });
}

}  // namespace

ReserveMigrateKits::ReserveMigrateKits() : session_(new ReserveMigrateSession) {}

ReserveMigrateKits::~ReserveMigrateKits()
{
    KITS_LOGI("~ReserveMigrateKits");
    session_->Close();
}

int32_t ReserveMigrateKits::GetRestoreAppInfos(const std::string& text, int32_t number, std::string& reply)
{
    KITS_LOGI("GetRestoreAppInfos");
    return Call(*session_, LOG_SITE(), MigrateRequestCode::GET_RESTORE_APP_INFOS,
        OPERATION_LINES("GetRestoreAppInfos", "eroor"), Args(text, number), reply);
}

int32_t ReserveMigrateKits::RestoreApp(const std::string& first, const std::string& second, std::string& reply)
{
    KITS_LOGI("RestoreApp");
    return Call(*session_, LOG_SITE(), MigrateRequestCode::RESTORE_APP, OPERATION_LINES("RestoreApp", "eroor"),
        Args(first, second), reply);
}

int32_t ReserveMigrateKits::GetRestoreAppStatus(const std::string& first, const std::string& second, std::string& reply)
{
    KITS_LOGI("GetRestoreAppStatus");
    return Call(*session_, LOG_SITE(), MigrateRequestCode::GET_RESTORE_APP_STATUS,
        OPERATION_LINES("GetRestoreAppStatus", "error"), Args(first, second), reply);
}

int32_t ReserveMigrateKits::ClearApp(const std::string& first, const std::string& second, std::string& reply)
{
    KITS_LOGI("ClearApp");
    return Call(*session_, LOG_SITE(), MigrateRequestCode::CLEAR_APP, OPERATION_LINES("ClearApp", "error"),
        Args(first, second), reply);
}

int32_t ReserveMigrateKits::ClearAllVirtualData(const std::string& text, std::string& reply)
{
    KITS_LOGI("ClearAllVirtualData");
    return Call(*session_, LOG_SITE(), MigrateRequestCode::CLEAR_ALL_VIRTUAL_DATA,
        OPERATION_LINES("ClearAllVirtualData", "error"), Args(text), reply);
}

int32_t ReserveMigrateKits::AdjustAppPriority(const std::string& first, const std::string& second, std::string& reply)
{
    KITS_LOGI("AdjustAppPriority");
    return Call(*session_, LOG_SITE(), MigrateRequestCode::ADJUST_APP_PRIORITY,
        OPERATION_LINES("AdjustAppPriority", "eroor"), Args(first, second), reply);
}

int32_t ReserveMigrateKits::RegisterCallback(
    const std::string& caller, const sptr<IReserveMigrateStatusObserver>& observer, std::string& reply)
{
    KITS_LOGI("RegisterCallback");
    if (observer == nullptr) {
        KITS_LOGI("RegisterCallback, %{public}s observer callback is nullptr", caller.c_str());
        return MIGRATE_UNREACHABLE;
    }
    const auto fill = [&](MigrateRequest& request) {
        request.Write(caller, observer->AsObject());
        session_->Keep(caller, observer);
    };
    return Call(*session_, LOG_SITE(), MigrateRequestCode::REGISTER_RESERVE_OBSERVER,
        OPERATION_LINES("RegisterCallback", "eroor"), fill, reply);
}

int32_t ReserveMigrateKits::UnRegisterCallback(const std::string& caller, std::string& reply)
{
    KITS_LOGI("UnRegisterCallback");
    const auto fill = [&](MigrateRequest& request) {
        request.Write(caller);
        session_->Forget(caller);
    };
    // The failure lines of UnRegisterCallback say RegisterCallback: the texts are part of the interface.
    constexpr OperationLines lines{{KOLOG_INFO, KITS_LINE("RegisterCallback error, remote server is null"),
                                       KITS_LINE("RegisterCallback WriteInterfaceToken error")},
        KITS_LINE("RegisterCallback call eroor, ret=%{public}d")};
    return Call(*session_, LOG_SITE(), MigrateRequestCode::UNREGISTER_RESERVE_OBSERVER, lines, fill, reply);
}

sptr<IMigrateServer> ReserveMigrateKits::GetService()
{
    return session_->GetService();
}

void ReserveMigrateKits::AddDeathRecipient(const sptr<IRemoteObject>& object)
{
    session_->Connection().AddDeathRecipient(LOG_SITE(), object);
}

void ReserveMigrateKits::ResumeRegisterCallback()
{
    session_->ResumeRegisterCallback();
}

void ReserveMigrateKits::DoReset()
{
    session_->Connection().Reset();
}

ReserveMigrateSession::ReserveMigrateSession()
    : connection_(KITS_LINE("ReserveMigrateKits::AddDeathRecipient ret=%{public}s"),
          [weak = wptr<ReserveMigrateSession>(this)](const wptr<IRemoteObject>&) {
              if (const sptr<ReserveMigrateSession> session = weak.Promote()) {
                  session->OnServiceDied();
              }
          })
{}

sptr<IMigrateServer> ReserveMigrateSession::GetService()
{
    return connection_.GetService(LOG_SITE());
}

void ReserveMigrateSession::Keep(const std::string& caller, sptr<IReserveMigrateStatusObserver> observer)
{
    if (const LookupLock lock(observersMutex_); lock) {
        observers_[caller].Swap(observer);
    }
}

void ReserveMigrateSession::Forget(const std::string& caller)
{
    Observers::node_type dropped;
    if (const LookupLock lock(observersMutex_); lock) {
        dropped = observers_.extract(caller);
    }
}

bool ReserveMigrateSession::HasObservers()
{
    MutexLock lock(observersMutex_);
    return !observers_.empty();
}

void ReserveMigrateSession::OnServiceDied()
{
    const HandlerGate::Visit visit(gate_);
    if (!visit.IsAdmitted()) {
        return;
    }
    KITS_LOGI("migrate_server is dead");
    connection_.Reset();
    ResumeRegisterCallback();
}

void ReserveMigrateSession::ResumeRegisterCallback()
{
    KITS_LOGI("resume migrate broker callbacks");
    if (!HasObservers()) {
        KITS_LOGI("observers_ is empty");
        return;
    }
    const sptr<IMigrateServer> service = GetService();
    if (service == nullptr) {
        KITS_LOGE("service is nullptr");
        return;
    }
    MutexLock lock(observersMutex_);
    for (const auto& entry : observers_) {
        // Whoever has closed the session may be waiting for the end of this walk.
        if (gate_.IsClosed() || !RegisterAgain(service, entry)) {
            return;
        }
    }
}

bool ReserveMigrateSession::RegisterAgain(const sptr<IMigrateServer>& service, const Observers::value_type& entry)
{
    const auto& [caller, observer] = entry;
    MigrateRequest request(service);
    if (!request.WriteToken()) {
        KITS_LOGI("RegisterCallback InterfaceToken write error");
        return false;
    }
    request.Write(caller, observer->AsObject());
    const int32_t result = request.Send(MigrateRequestCode::REGISTER_RESERVE_OBSERVER);
    KITS_LOGI("register caller=%{public}s callback result=%{public}d", caller.c_str(), result);
    return true;
}

void ReserveMigrateSession::Close()
{
    // No handler runs in a child of fork. The gate may still count one that was running in the parent.
    if (IPCSkeleton::IsForkedChild() || !gate_.Close()) {
        return;
    }
    connection_.Disconnect();
    Observers dropped;
    MutexLock lock(observersMutex_);
    dropped.swap(observers_);
}

}  // namespace VEXA::UpdateEngine
