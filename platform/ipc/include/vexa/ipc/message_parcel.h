// SPDX-License-Identifier: Apache-2.0
// The parcel of a request or a reply: a Parcel that can also carry remote objects and begins with an interface token.
#pragma once

#include <string>
#include <vector>

#include "vexa/base/refbase.h"
#include "vexa/ipc/iremote_object.h"
#include "vexa/ipc/parcel.h"

namespace VEXA {

// Holds a strong reference to every object that it carries until it is destroyed.
class VEXA_EXPORT MessageParcel : public Parcel {
public:
    MessageParcel();
    ~MessageParcel() override;

    // The descriptor of the interface that a request is for; written first.
    bool WriteInterfaceToken(const std::u16string& descriptor);
    std::u16string ReadInterfaceToken();

    // A null object is written as such and read back as null. At most IPC_MAX_PARCEL_OBJECTS objects.
    bool WriteRemoteObject(const sptr<IRemoteObject>& object);
    // Null also where the bytes name no object of this parcel.
    sptr<IRemoteObject> ReadRemoteObject();

    // Becomes a copy of the other's values and objects, whatever this one's limit, to be read from the first value.
    // False, and empty, when memory is short.
    bool CopyFrom(const MessageParcel& other);

private:
    friend class ParcelAccess;

    std::vector<sptr<IRemoteObject>> objects_;
};

}  // namespace VEXA
