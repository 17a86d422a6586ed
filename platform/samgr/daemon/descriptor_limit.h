// SPDX-License-Identifier: Apache-2.0
// How many descriptors the manager may have open: a few for each process that talks to it, so as many as it is allowed.
// The programs that it starts get what it was given itself; some can't deal with more.
#pragma once

namespace VEXA::samgr {

void RaiseDescriptorLimit();
// For a child between fork and exec.
void RestoreDescriptorLimit();

}  // namespace VEXA::samgr
