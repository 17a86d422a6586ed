// SPDX-License-Identifier: Apache-2.0
#include "vexa/want/want.h"

#include <memory>
#include <new>

namespace AAFwk {

using VEXA::Parcel;

namespace {

// Fewest bytes of a text, and of a parameter (name, type, value), in a parcel. A count that the rest of the parcel
// can't hold is refused before anything is made for it.
constexpr size_t kTextBytes = 8;
constexpr size_t kParamBytes = 16;

bool ReadCount(Parcel& parcel, uint32_t limit, size_t itemBytes, uint32_t& count)
{
    return parcel.ReadUint32(count) && count <= limit && count <= parcel.GetReadableBytes() / itemBytes;
}

class ValueWriter {
public:
    explicit ValueWriter(Parcel& parcel) : parcel_(parcel) {}

    bool operator()(bool value) const { return parcel_.WriteBool(value); }
    bool operator()(int32_t value) const { return parcel_.WriteInt32(value); }
    bool operator()(int64_t value) const { return parcel_.WriteInt64(value); }
    bool operator()(double value) const { return parcel_.WriteDouble(value); }
    bool operator()(const std::string& value) const { return parcel_.WriteString(value); }
    bool operator()(const std::vector<std::string>& list) const
    {
        if (list.size() > Want::MAX_LIST || !parcel_.WriteUint32(static_cast<uint32_t>(list.size()))) {
            return false;
        }
        for (const auto& text : list) {
            if (!parcel_.WriteString(text)) {
                return false;
            }
        }
        return true;
    }

private:
    Parcel& parcel_;
};

class ValueReader {
public:
    explicit ValueReader(Parcel& parcel) : parcel_(parcel) {}

    bool operator()(bool& value) const { return parcel_.ReadBool(value); }
    bool operator()(int32_t& value) const { return parcel_.ReadInt32(value); }
    bool operator()(int64_t& value) const { return parcel_.ReadInt64(value); }
    bool operator()(double& value) const { return parcel_.ReadDouble(value); }
    bool operator()(std::string& value) const { return parcel_.ReadString(value); }
    bool operator()(std::vector<std::string>& list) const
    {
        uint32_t count = 0;
        if (!ReadCount(parcel_, Want::MAX_LIST, kTextBytes, count)) {
            return false;
        }
        list.resize(count);
        for (auto& text : list) {
            if (!parcel_.ReadString(text)) {
                return false;
            }
        }
        return true;
    }

private:
    Parcel& parcel_;
};

// Makes `value` the zero value of the type of that number; false when no type has it.
template <size_t I = 0>
bool SelectType(uint32_t number, Want::Value& value)
{
    if constexpr (I == std::variant_size_v<Want::Value>) {
        return false;
    } else {
        if (number != I) {
            return SelectType<I + 1>(number, value);
        }
        value.emplace<I>();
        return true;
    }
}

bool ReadValue(Parcel& parcel, Want::Value& value)
{
    uint32_t number = 0;
    return parcel.ReadUint32(number) && SelectType(number, value) && std::visit(ValueReader(parcel), value);
}

}  // namespace

Want& Want::SetAction(const std::string& action)
{
    action_ = action;
    return *this;
}

Want& Want::SetBundleName(const std::string& bundleName)
{
    bundleName_ = bundleName;
    return *this;
}

Want& Want::SetAbilityName(const std::string& abilityName)
{
    abilityName_ = abilityName;
    return *this;
}

Want& Want::SetUri(const std::string& uri)
{
    uri_ = uri;
    return *this;
}

Want& Want::SetFlags(uint32_t flags)
{
    flags_ = flags;
    return *this;
}

Want& Want::SetParam(const std::string& key, Value value)
{
    params_.insert_or_assign(key, std::move(value));
    return *this;
}

Want& Want::RemoveParam(const std::string& key)
{
    params_.erase(key);
    return *this;
}

bool Want::Marshalling(Parcel& parcel) const
{
    if (params_.size() > MAX_PARAMS || !parcel.WriteString(action_) || !parcel.WriteString(bundleName_) ||
        !parcel.WriteString(abilityName_) || !parcel.WriteString(uri_) || !parcel.WriteUint32(flags_) ||
        !parcel.WriteUint32(static_cast<uint32_t>(params_.size()))) {
        return false;
    }
    for (const auto& [key, value] : params_) {
        if (!parcel.WriteString(key) || !parcel.WriteUint32(static_cast<uint32_t>(value.index())) ||
            !std::visit(ValueWriter(parcel), value)) {
            return false;
        }
    }
    return true;
}

Want* Want::Unmarshalling(Parcel& parcel)
{
    auto want = std::unique_ptr<Want>(new (std::nothrow) Want);
    return want != nullptr && want->ReadFrom(parcel) ? want.release() : nullptr;
}

bool Want::ReadFrom(Parcel& parcel)
{
    return parcel.ReadString(action_) && parcel.ReadString(bundleName_) && parcel.ReadString(abilityName_) &&
           parcel.ReadString(uri_) && parcel.ReadUint32(flags_) && ReadParams(parcel);
}

// Names come in ascending order, each once, so that one want has one sequence of bytes.
bool Want::ReadParams(Parcel& parcel)
{
    uint32_t count = 0;
    if (!ReadCount(parcel, MAX_PARAMS, kParamBytes, count)) {
        return false;
    }
    for (; count > 0; --count) {
        std::string key;
        Value value;
        if (!parcel.ReadString(key) || (!params_.empty() && key <= params_.rbegin()->first) ||
            !ReadValue(parcel, value)) {
            return false;
        }
        params_.emplace_hint(params_.end(), std::move(key), std::move(value));
    }
    return true;
}

bool operator==(const Want& a, const Want& b)
{
    return a.flags_ == b.flags_ && a.action_ == b.action_ && a.bundleName_ == b.bundleName_ &&
           a.abilityName_ == b.abilityName_ && a.uri_ == b.uri_ && a.params_ == b.params_;
}

}  // namespace AAFwk
