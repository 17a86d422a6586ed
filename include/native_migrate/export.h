// SPDX-License-Identifier: Apache-2.0
// What libnative_migrate exports; everything else is built hidden.
#pragma once

#define NATIVE_MIGRATE_EXPORT __attribute__((visibility("default")))
