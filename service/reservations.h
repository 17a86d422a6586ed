// SPDX-License-Identifier: Apache-2.0
// Reserved applications: the packages of the source that their manifests set aside.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "engine_state.h"
#include "operation_fields.h"

namespace VEXA::UpdateEngine {

// In lists, the highest priority comes first, then they go by name. An empty name or scene stands for all, and so does
// a negative `most`.
class Reservations {
public:
    explicit Reservations(EngineState& state) : state_(state) {}

    BusinessError GetReserved(const std::string& name, int32_t most, std::vector<RestoreAppInfo>& apps) const;
    BusinessError GetRestoreStatus(
        const std::string& name, const std::string& scene, std::vector<RestoreEventInfo>& events) const;
    // Hands over every restoration that was asked for, as an event for somebody who has heard of none yet. `receive` is
    // called as a listener is, so that nothing happens between what it gets and what the listener is told next.
    void IntroduceRestores(const std::function<void(std::vector<RestoreEventInfo>)>& receive) const;
    AppRestoreCheck CheckRestore(const Name& name) const;
    // `scene` is the application's restoreScene from now on, unless it is empty.
    BusinessError Restore(const Name& name, const std::string& scene);
    // Takes away what was restored of it; the application itself stays set aside.
    BusinessError ClearReserved(const Name& name, const std::string& scene);
    BusinessError ClearAllReserved(const std::string& scene);
    BusinessError AdjustPriority(const Name& name, NumberText priority);

private:
    BusinessError ReadReserved(std::vector<KnownPackage>& packages) const;
    // Does that with the application of that name, if there is one.
    BusinessError WithReserved(
        const std::string& name, const std::function<BusinessError(const KnownPackage&)>& act) const;
    BusinessError Clear(std::vector<KnownPackage> packages, const std::string& scene, bool isAll);
    BusinessError NoteLeaving(const std::vector<KnownPackage>& packages, bool isAll) VEXA_EXCLUDES(state_.mutex);
    BusinessError TakeAway(const KnownPackage& package, bool isNoted) VEXA_EXCLUDES(state_.mutex);

    EngineState& state_;
};

}  // namespace VEXA::UpdateEngine
