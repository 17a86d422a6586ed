// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexa/base/refbase.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA {

// Keeps the remote object that an interface proxy speaks to.
class PeerHolder {
public:
    virtual ~PeerHolder() = default;

protected:
    explicit PeerHolder(const sptr<IRemoteObject>& object) : remote_(object) {}
    sptr<IRemoteObject> Remote() const { return remote_; }

private:
    const sptr<IRemoteObject> remote_;
};

}  // namespace VEXA
