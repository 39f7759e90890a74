// SPDX-License-Identifier: Apache-2.0
#include "replay_setup.h"

#include <algorithm>

#include "anti_cpu/anti_cpu.h"
#include "chip/chip.h"
#include "os/os.h"

namespace host {

bool open_captures(const ReplayOptions &options, CaptureSet &captures, Problems &problems) {
    for (size_t i = 0; i < options.files.size(); i++) {
        CaptureFile file;
        if (file.open(options.files[i], options.ports[std::min(i, options.ports.size() - 1)], problems)) {
            captures.add(std::move(file));
        }
    }
    return !captures.empty();
}

void apply_settings(const ReplayOptions &options, Replay &replay) {
    if (options.fast_period_s) {
        atc_api_set_fast_period_time(*options.fast_period_s);
        replay.fast_period_set(*options.fast_period_s);
    }
    if (options.long_period_s) {
        atc_api_set_long_period_time(*options.long_period_s);
        replay.journal().set_period(AlarmEvent::Period::kLong, *options.long_period_s);
    }
    if (options.chip_rules) {
        card::Chip::instance().set_capacity(*options.chip_rules);
    }
    if (options.memory_budget_mb) {
        card::set_memory_budget(*options.memory_budget_mb * kBytesPerMegabyte);
    }
}

console::Status run_settings(const ReplayOptions &options, console::Console &console) {
    console::Status status = console::Status::kDone;
    if (!options.config_file.empty()) {
        status = console.run_settings(options.config_file);
    }
    for (const std::string &line : options.lines) {
        if (status == console::Status::kDone) {
            const std::string shown = "'" + console.grammar().without_secrets(line) + "'";
            if (console.shows(line)) {
                std::fprintf(
                    stderr, "anti-cpu: -x %s shows what is there before the first packet; --then %s, behind the last\n",
                    shown.c_str(), shown.c_str());
            }
            status = console.run_setting(line, "-x " + shown);
        }
    }
    for (const std::string &line : options.what_if) {
        if (status == console::Status::kDone) {
            status = console.run_setting(line, "--what-if '" + console.grammar().without_secrets(line) + "'");
        }
    }
    return status;
}

console::Status run_then_lines(const ReplayOptions &options, console::Console &console) {
    console::Status status = console::Status::kDone;
    for (const std::string &line : options.then_lines) {
        if (status == console::Status::kDone) {
            status = console.run_script_line(line, "--then '" + console.grammar().without_secrets(line) + "'");
        }
    }
    return status;
}

void run_to_the_end(const ReplayOptions &options, Replay &replay) {
    replay.run_to_end();
    replay.run_for(options.drain_s ? *options.drain_s * card::kNanosecondsPerSecond : replay.fast_period_rest_ns());
}

}  // namespace host
