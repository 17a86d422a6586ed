// SPDX-License-Identifier: Apache-2.0
// Two ways of calling another process, measured in turns so that both see the same machine.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "report.h"

namespace VEXA::bench {

// The value below which `share` (0 to 1) of the samples lie; 0 when there are none. Reorders them.
double Percentile(std::vector<float>& samples, double share);

// One way of calling.
struct Side {
    std::string name;
    // One call by the thread of that number; false ends the benchmark. Threads call at the same time.
    std::function<bool(size_t thread)> call;
    pid_t server;

    std::vector<float> samples;   // microseconds of each call
    std::vector<double> medians;  // of each round
    std::vector<double> walls;    // microseconds of each round
    double cpu = 0;               // microseconds of both processes
};

struct Turns {
    std::string suffix;  // of the names in the report
    size_t rounds;
    size_t calls;  // of each thread, in each round
    size_t threads = 1;
};

// `calls` calls by this thread, added to the samples. False when one failed.
bool CallRepeatedly(const Side& side, size_t thread, size_t calls, std::vector<float>& samples);

// Runs the sides in turns, after one round that does not count, and reports on each, with its ratio to the first.
// False when a call failed.
bool Compare(std::vector<Side> sides, const Turns& turns, Report& report);

}  // namespace VEXA::bench
