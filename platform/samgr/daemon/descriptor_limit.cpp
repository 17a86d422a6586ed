// SPDX-License-Identifier: Apache-2.0
#include "daemon/descriptor_limit.h"

#include <sys/resource.h>

namespace VEXA::samgr {
namespace {

rlimit given{};
bool raised = false;

}  // namespace

void RaiseDescriptorLimit()
{
    if (getrlimit(RLIMIT_NOFILE, &given) == 0 && given.rlim_cur < given.rlim_max) {
        const rlimit most{given.rlim_max, given.rlim_max};
        raised = setrlimit(RLIMIT_NOFILE, &most) == 0;
    }
}

void RestoreDescriptorLimit()
{
    if (raised) {
        setrlimit(RLIMIT_NOFILE, &given);
    }
}

}  // namespace VEXA::samgr
