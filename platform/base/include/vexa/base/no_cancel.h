// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

namespace VEXA {

// While one of these lives, a pthread_cancel of this thread waits. A cancellation inside a destructor would end the
// process, and one inside a wait would leave its mutex in a state that nobody expects.
class NoCancel {
public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancel() { pthread_setcancelstate(before_, nullptr); }
    NoCancel(const NoCancel&) = delete;
    NoCancel& operator=(const NoCancel&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace VEXA
