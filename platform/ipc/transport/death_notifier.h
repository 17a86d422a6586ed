// SPDX-License-Identifier: Apache-2.0
// The thread that tells death recipients.
#pragma once

#include <deque>

#include "vexa/base/mutex.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA::ipc {

// Runs recipients one after the other, each once, in the order in which they were posted. Its thread starts with the
// first post. Any thread.
class DeathNotifier {
public:
    using Recipient = IRemoteObject::DeathRecipient;

    void Post(const sptr<IRemoteObject>& object, sptr<Recipient> recipient);
    // Takes back one notice that has not begun; false when there is none.
    bool Cancel(const IRemoteObject* object, const sptr<Recipient>& recipient);

private:
    struct Notice {
        sptr<IRemoteObject> object;
        sptr<Recipient> recipient;
    };

    void Run();

    Mutex mutex_;
    CondVar posted_;
    std::deque<Notice> notices_ VEXA_GUARDED_BY(mutex_);
    bool started_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA::ipc
