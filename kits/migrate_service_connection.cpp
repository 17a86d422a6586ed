// SPDX-License-Identifier: Apache-2.0
#include "migrate_service_connection.h"

#include <utility>

#include "lookup_lock.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr int32_t kLoadTimeoutSeconds = 5;

sptr<IRemoteObject> FindMigrateService(const LogSite& site)
{
    const sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager == nullptr) {
        KITS_LOG_AT(site, KOLOG_ERROR, "manager is nullptr");
        return nullptr;
    }
    sptr<IRemoteObject> object = manager->CheckSystemAbility(MIGRATE_SERVICE_ID);
    if (object == nullptr) {
        object = manager->LoadSystemAbility(MIGRATE_SERVICE_ID, kLoadTimeoutSeconds);
    }
    if (object == nullptr) {
        KITS_LOG_AT(site, KOLOG_ERROR, "Get remote object from samgr failed");
    }
    return object;
}

sptr<IMigrateServer> MakeProxy(const sptr<IRemoteObject>& object)
{
    const sptr<IRemoteBroker> broker = BrokerRegistration::Get().NewInstance(IMigrateServer::GetDescriptor(), object);
    return sptr<IMigrateServer>(static_cast<IMigrateServer*>(broker.GetRefPtr()));
}

}  // namespace

MigrateServiceConnection::MigrateServiceConnection(
    LogFormat<const char*> watchLine, CommonDeathRecipient::DeathCallback onDeath)
    : watchLine_(watchLine), onDeath_(std::move(onDeath))
{}

MigrateServiceConnection::~MigrateServiceConnection()
{
    Disconnect();
}

sptr<IMigrateServer> MigrateServiceConnection::GetService(const LogSite& site)
{
    KITS_LOG_AT(site, KOLOG_INFO, "GetService entry");
    const LookupLock lock(serviceMutex_);
    if (!lock) {
        return nullptr;
    }
    if (migrateServer_ != nullptr) {
        return migrateServer_;
    }
    KITS_LOG_AT(site, KOLOG_INFO, "GetService recreate service instance");
    const sptr<IRemoteObject> object = FindMigrateService(site);
    if (object == nullptr) {
        return nullptr;
    }
    // The watch begins before the proxy is used, so that no death falls in between.
    Watch(site, object);
    migrateServer_ = MakeProxy(object);
    return migrateServer_;
}

void MigrateServiceConnection::AddDeathRecipient(const LogSite& site, const sptr<IRemoteObject>& object)
{
    if (const LookupLock lock(serviceMutex_); lock) {
        Watch(site, object);
    }
}

void MigrateServiceConnection::Watch(const LogSite& site, const sptr<IRemoteObject>& object)
{
    if (object == nullptr || deathRecipient_ != nullptr) {
        return;
    }
    // Stored before it is registered: the notice may come at once.
    deathRecipient_ = sptr<IRemoteObject::DeathRecipient>(new CommonDeathRecipient(onDeath_));
    const bool accepted = object->AddDeathRecipient(deathRecipient_);
    LogLine(site, KOLOG_INFO, watchLine_, accepted ? "true" : "false");
}

MigrateServiceConnection::Link MigrateServiceConnection::Take()
{
    const LookupLock lock(serviceMutex_);
    return lock ? Link{std::move(migrateServer_), std::move(deathRecipient_)} : Link{};
}

void MigrateServiceConnection::Reset()
{
    Take();
}

void MigrateServiceConnection::Disconnect()
{
    const Link link = Take();
    if (link.server == nullptr || link.recipient == nullptr) {
        return;
    }
    const sptr<IRemoteObject> object = link.server->AsObject();
    if (object != nullptr) {
        object->RemoveDeathRecipient(link.recipient);
    }
}

}  // namespace VEXA::UpdateEngine
