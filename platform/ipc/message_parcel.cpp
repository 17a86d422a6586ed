// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/message_parcel.h"

#include <cstring>

#include "parcel_access.h"

namespace VEXA {

MessageParcel::MessageParcel() = default;
MessageParcel::~MessageParcel() = default;

bool MessageParcel::WriteInterfaceToken(const std::u16string& descriptor)
{
    return WriteString16(descriptor);
}

std::u16string MessageParcel::ReadInterfaceToken()
{
    return ReadString16();
}

bool MessageParcel::WriteRemoteObject(const sptr<IRemoteObject>& object)
{
    if (object == nullptr) {
        return WriteUint32(0);
    }
    if (objects_.size() >= IPC_MAX_PARCEL_OBJECTS) {
        return false;
    }
    objects_.push_back(object);
    if (!WriteUint32(static_cast<uint32_t>(objects_.size()))) {
        objects_.pop_back();
        return false;
    }
    return true;
}

sptr<IRemoteObject> MessageParcel::ReadRemoteObject()
{
    const size_t start = GetReadPosition();
    const uint32_t slot = ReadUint32();
    if (slot == 0) {
        return nullptr;
    }
    if (slot > objects_.size()) {
        ParcelAccess::SetReadPosition(*this, start);
        return nullptr;
    }
    return objects_[slot - 1];
}

bool MessageParcel::CopyFrom(const MessageParcel& other)
{
    if (this == &other) {
        RewindRead();
        return true;
    }
    ParcelAccess::Clear(*this);
    if (!ParcelAccess::ReserveTotal(*this, other.GetDataSize())) {
        return false;
    }
    std::memcpy(ParcelAccess::Data(*this), ParcelAccess::Data(other), other.GetDataSize());
    ParcelAccess::SetSize(*this, other.GetDataSize());
    objects_ = other.objects_;
    return true;
}

}  // namespace VEXA
