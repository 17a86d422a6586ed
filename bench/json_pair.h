// SPDX-License-Identifier: Apache-2.0
// Binding JSON texts, beside cJSON's parse and delete of them alone.
#pragma once

#include "report.h"

namespace VEXA::bench {

// Runs what Google Benchmark's options select.
void MeasureJson(Report& report);

}  // namespace VEXA::bench
