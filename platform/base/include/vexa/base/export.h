// SPDX-License-Identifier: Apache-2.0
// What libvexa_platform exports; everything else is built hidden.
#pragma once

#define VEXA_EXPORT __attribute__((visibility("default")))
