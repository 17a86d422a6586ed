// SPDX-License-Identifier: Apache-2.0
// The base is all headers; here they are compiled by themselves.
#include "vexa/base/refbase.h"

#include "vexa/base/delayed_ref_singleton.h"
#include "vexa/base/export.h"
#include "vexa/base/mutex.h"
