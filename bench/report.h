// SPDX-License-Identifier: Apache-2.0
// report.h: how a program of Google Benchmark is run and what it prints.
//
// Used by packet_path and evaluation. Their figures are counters of a benchmark, as a rule the smallest of its
// iterations: what disturbs a measurement adds to it.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <limits>
#include <vector>

namespace bench {

// Processor time that the calling thread has used, in seconds: another process on its processor does not count.
double thread_seconds();

// The smallest of the values it is shown.
class Smallest {
public:
    void see(double value) { value_ = value < value_ ? value : value_; }
    double value() const { return value_; }

private:
    double value_ = std::numeric_limits<double>::infinity();
};

// The value in the middle of those it is shown, for what others can also make faster: two threads of which one had to
// wait for a processor did not wait for each other.
class Middle {
public:
    void see(double value) { values_.push_back(value); }
    double value() {
        std::sort(values_.begin(), values_.end());
        return values_.empty() ? 0 : values_[values_.size() / 2];
    }

private:
    std::vector<double> values_;
};

// The main function of such a program: understands --help (prints 'usage'), --rows (prints "benchmark.counter value"
// lines and nothing else) and Google Benchmark's own options, then runs the registered benchmarks. Returns the exit
// status.
int run_program(int argc, char **argv, const char *usage);

}  // namespace bench
