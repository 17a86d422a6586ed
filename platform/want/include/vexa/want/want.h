// SPDX-License-Identifier: Apache-2.0
// A record of an intent: the action that is wanted, the application that is to carry it out, and typed parameters.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "vexa/base/export.h"
#include "vexa/ipc/parcel.h"

namespace AAFwk {

// A plain value without locks. Travels as docs/wire-format.md says.
class VEXA_EXPORT Want : public VEXA::Parcelable {
public:
    // The types of a parameter. Their order is their number on the wire: new ones go to the end.
    using Value = std::variant<bool, int32_t, int64_t, double, std::string, std::vector<std::string>>;

    // Most parameters that a want can travel with.
    static constexpr uint32_t MAX_PARAMS = 1024;
    // Most strings in one of its lists.
    static constexpr uint32_t MAX_LIST = 16384;

    Want& SetAction(const std::string& action);
    Want& SetBundleName(const std::string& bundleName);
    Want& SetAbilityName(const std::string& abilityName);
    Want& SetUri(const std::string& uri);
    Want& SetFlags(uint32_t flags);
    // Adds the parameter, or replaces the one of that name whatever its type.
    Want& SetParam(const std::string& key, Value value);
    Want& RemoveParam(const std::string& key);

    const std::string& GetAction() const { return action_; }
    const std::string& GetBundleName() const { return bundleName_; }
    const std::string& GetAbilityName() const { return abilityName_; }
    const std::string& GetUri() const { return uri_; }
    uint32_t GetFlags() const { return flags_; }
    // Sorted by the bytes of their names.
    const std::map<std::string, Value>& GetParams() const { return params_; }
    bool HasParam(const std::string& key) const { return params_.count(key) != 0; }
    // `fallback` when there is no such parameter, or it is no T. T is one of Value's types.
    template <typename T>
    T GetParam(const std::string& key, T fallback = T()) const
    {
        const auto found = params_.find(key);
        const T* const value = found != params_.end() ? std::get_if<T>(&found->second) : nullptr;
        return value != nullptr ? *value : std::move(fallback);
    }

    // False when the parcel has no room or one of the limits above is exceeded.
    bool Marshalling(VEXA::Parcel& parcel) const override;
    // A new want, the caller's to delete; null when what follows in the parcel is none.
    static Want* Unmarshalling(VEXA::Parcel& parcel);

    VEXA_EXPORT friend bool operator==(const Want& a, const Want& b);
    friend bool operator!=(const Want& a, const Want& b) { return !(a == b); }

private:
    bool ReadFrom(VEXA::Parcel& parcel);
    bool ReadParams(VEXA::Parcel& parcel);

    std::string action_;
    std::string bundleName_;
    std::string abilityName_;
    std::string uri_;
    uint32_t flags_ = 0;
    std::map<std::string, Value> params_;
};

}  // namespace AAFwk
