// SPDX-License-Identifier: Apache-2.0
// tune_report.h: what tune has found, as text, as data, and as a file of an operator's lines.
//
// Used by: tune_command. Uses: tuning. Pure, but for the printing.
#pragma once

#include <cstdio>
#include <string>

#include "tune/tuning.h"

namespace host {

void print_tuning(std::FILE *out, const Tuning &tuning, const TuneOptions &options);
void print_tuning_data(std::FILE *out, const Tuning &tuning, const TuneOptions &options);

// Lines that --config takes, with the reasons as comments.
std::string settings_file(const Tuning &tuning, const TuneOptions &options);

}  // namespace host
