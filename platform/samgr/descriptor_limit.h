// SPDX-License-Identifier: Apache-2.0
// How many descriptors a process may have open: a few for each process that talks to it.
#pragma once

#include <sys/resource.h>

namespace VEXA::samgr {

// Raises the soft limit to so many, as far as the hard one allows.
void RaiseDescriptorLimit(rlim_t most);
// For a child between fork and exec: it gets what the process was given, since some programs can't deal with more.
void RestoreDescriptorLimit();

}  // namespace VEXA::samgr
