// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <time.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace bench {
namespace {

const char *usage_text;

void print_usage() {
    std::printf("%s", usage_text);
}

// One line a figure, for scripts.
class RowReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred) {
                std::fprintf(stderr, "%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
                failed = true;
                continue;
            }
            for (const auto &[name, counter] : run.counters) {
                std::printf("%s.%s %.2f\n", run.run_name.function_name.c_str(), name.c_str(), counter.value);
                std::fflush(stdout);
            }
        }
    }

    bool failed = false;
};

}  // namespace

double thread_seconds() {
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

int run_program(int argc, char **argv, const char *usage) {
    usage_text = usage;
    bool rows = false;
    std::vector<char *> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rows") == 0) {
            rows = true;
        } else {
            rest.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(rest.size());
    rest.push_back(nullptr);
    benchmark::Initialize(&count, rest.data(), print_usage);
    if (benchmark::ReportUnrecognizedArguments(count, rest.data())) {
        return 2;
    }
    if (!rows) {
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    }
    RowReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.failed ? 1 : 0;
}

}  // namespace bench
