// SPDX-License-Identifier: Apache-2.0
#include "tune/tune_command.h"

#include <unistd.h>

#include <algorithm>

#include "tune/tune_report.h"
#include "verdict/words.h"
#include "whole_file.h"

namespace host {

namespace {

bool is_from_pipe(const std::vector<std::string> &files) {
    return std::ranges::count(files, kStandardInput) > 0;
}

void write_limits(const Tuning &tuning, const TuneOptions &options, Problems &problems) {
    std::string error;
    if (!write_whole_file(options.write_file, settings_file(tuning, options), error)) {
        problems.report(options.write_file, "write", "cannot be written: " + error);
    } else if (!options.replay.json) {
        std::printf("\nWritten: %s. A replay takes it: --config %s\n", options.write_file.c_str(),
                    shell_quoted(options.write_file).c_str());
    }
}

}  // namespace

int tune_command(const TuneOptions &options) {
    if (is_from_pipe(options.replay.files) || is_from_pipe(options.floods)) {
        std::fputs("anti-cpu: -: tune reads its captures several times, standard input comes once\n", stderr);
        return kExitUsage;
    }
    Problems problems;
    Tuning tuning(options);
    if (isatty(STDERR_FILENO) != 0) {
        tuning.set_progress([](size_t done, size_t all) {
            std::fprintf(stderr, "\r\033[K");
            if (done < all) {
                std::fprintf(stderr, "pass %zu of %zu over the captures ", done + 1, all);
            }
        });
    }
    const int status = tuning.run(problems);
    if (tuning.has_results()) {
        options.replay.json ? print_tuning_data(stdout, tuning, options) : print_tuning(stdout, tuning, options);
        if (!options.write_file.empty()) {
            write_limits(tuning, options, problems);
        }
    }
    problems.check_written(stdout, "standard output");
    problems.close();
    return status == kExitGood && problems.count() != 0 ? kExitRefused : status;
}

}  // namespace host
