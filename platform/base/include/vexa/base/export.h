// SPDX-License-Identifier: Apache-2.0
// Marks the symbols that libvexa_platform exports. All others are hidden.
#pragma once

#define VEXA_EXPORT __attribute__((visibility("default")))
