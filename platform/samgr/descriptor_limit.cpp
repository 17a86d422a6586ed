// SPDX-License-Identifier: Apache-2.0
#include "descriptor_limit.h"

#include <algorithm>

namespace VEXA::samgr {
namespace {

rlimit given{};
bool g_isRaised = false;

}  // namespace

void RaiseDescriptorLimit(rlim_t most)
{
    if (getrlimit(RLIMIT_NOFILE, &given) == 0 && given.rlim_cur < std::min(given.rlim_max, most)) {
        const rlimit more{std::min(given.rlim_max, most), given.rlim_max};
        g_isRaised = setrlimit(RLIMIT_NOFILE, &more) == 0;
    }
}

void RestoreDescriptorLimit()
{
    if (g_isRaised) {
        setrlimit(RLIMIT_NOFILE, &given);
    }
}

}  // namespace VEXA::samgr
