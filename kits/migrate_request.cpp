// SPDX-License-Identifier: Apache-2.0
#include "migrate_request.h"

namespace VEXA::UpdateEngine {

bool MigrateRequest::Begin(const LogSite& site, const RefusalLines& lines)
{
    if (service_ == nullptr) {
        LogLine(site, lines.level, lines.noService);
        return false;
    }
    if (!WriteToken()) {
        LogLine(site, lines.level, lines.noToken);
        return false;
    }
    return true;
}

int32_t MigrateRequest::Send(MigrateRequestCode code)
{
    return service_->SendRemoteRequest(static_cast<uint32_t>(code), data_, reply_);
}

bool MigrateRequest::IsServiceDead() const
{
    const sptr<IRemoteObject> object = service_->AsObject();
    return object != nullptr && object->IsObjectDead();
}

}  // namespace VEXA::UpdateEngine
