// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/load_sa_service.h"

#include <chrono>
#include <thread>
#include <utility>

#include "log_line.h"
#include "vexa/ipc/worker_wait.h"
#include "vexa/samgr/system_ability_manager_client.h"

namespace VEXA::UpdateEngine {

namespace {

enum LoadStatus : int32_t { PENDING = 0, LOADED = 1, FAILED = 2 };

constexpr int kMaxPauses = 101;
constexpr std::chrono::milliseconds PAUSE(50);

}  // namespace

class LoadSaServiceRelease {
public:
    ~LoadSaServiceRelease() { LoadSaService::ReleaseInstance(); }
};

LoadSaService* LoadSaService::instance_ = nullptr;
Mutex LoadSaService::instanceLock_{LockRank::LoadSaInstance};

namespace {

const LoadSaServiceRelease RELEASE_AT_EXIT;

}  // namespace

LoadSaService::LoadSaService() : loadStatus_(PENDING) {}

LoadSaService::~LoadSaService() = default;

sptr<LoadSaService> LoadSaService::GetInstance()
{
    MutexLock lock(instanceLock_);
    if (instance_ == nullptr) {
        instance_ = sptr<LoadSaService>(new LoadSaService).Detach();
    }
    return sptr<LoadSaService>(instance_);
}

void LoadSaService::ReleaseInstance()
{
    sptr<LoadSaService> released;
    MutexLock lock(instanceLock_);
    released = sptr<LoadSaService>::Adopt(std::exchange(instance_, nullptr));
}

bool LoadSaService::TryLoadSa(int32_t systemAbilityId)
{
    InitStatus();
    return LoadSa(systemAbilityId);
}

void LoadSaService::InitStatus()
{
    loadStatus_ = PENDING;
}

bool LoadSaService::LoadSa(int32_t systemAbilityId)
{
    const sptr<ISystemAbilityManager> manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (manager == nullptr) {
        KITS_LOGE("samgr object null!");
        return false;
    }
    const int32_t result = manager->LoadSystemAbility(systemAbilityId, sptr<ISystemAbilityLoadCallback>(this));
    if (result != SAMGR_OK) {
        KITS_LOGE("systemAbilityId: %{public}d, load failed, result code: %{public}d", systemAbilityId, result);
        return false;
    }
    if (!CheckSaLoaded()) {
        KITS_LOGE("systemAbilityId: %{public}d, CheckSaLoaded failed", systemAbilityId);
        return false;
    }
    KITS_LOGI("systemAbilityId: %{public}d, load succeed", systemAbilityId);
    return true;
}

bool LoadSaService::CheckSaLoaded()
{
    // The outcome may come to this very process as a request.
    const WorkerWait wait;
    KITS_LOGI("Waiting for CheckSaLoaded");
    int32_t status = PENDING;
    for (int pauses = 0; pauses < kMaxPauses && status == PENDING; ++pauses) {
        Pause();
        status = loadStatus_;
    }
    if (status == PENDING) {
        KITS_LOGE("CheckSaLoaded didn't get OnLoad result");
        return false;
    }
    KITS_LOGI("found OnLoad result: %{public}s", status == LOADED ? "succeed" : "failed");
    return status == LOADED;
}

void LoadSaService::Pause()
{
    std::this_thread::sleep_for(PAUSE);
}

void LoadSaService::OnLoadSystemAbilitySuccess(int32_t systemAbilityId, const sptr<IRemoteObject>& remoteObject)
{
    const bool loaded = remoteObject != nullptr;
    KITS_LOGI("SystemAbility load Success systemAbilityId: %{public}d, IRemoteObject result: %{public}s",
        systemAbilityId, loaded ? "succeed" : "failed");
    loadStatus_ = loaded ? LOADED : FAILED;
}

void LoadSaService::OnLoadSystemAbilityFail(int32_t systemAbilityId)
{
    KITS_LOGE("SystemAbility Load fail the systemAbilityId is: %{public}d", systemAbilityId);
    loadStatus_ = FAILED;
}

}  // namespace VEXA::UpdateEngine
