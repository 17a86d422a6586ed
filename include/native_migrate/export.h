// SPDX-License-Identifier: Apache-2.0
// Marks the symbols that libnative_migrate exports. All others are hidden.
#pragma once

#define NATIVE_MIGRATE_EXPORT __attribute__((visibility("default")))
