// SPDX-License-Identifier: Apache-2.0
#include "replay_command.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <memory>
#include <system_error>

#include "capture_keeper.h"
#include "clock/clock.h"
#include "console/console.h"
#include "event_log.h"
#include "problems.h"
#include "process.h"
#include "replay.h"
#include "replay_outputs.h"
#include "replay_setup.h"
#include "report.h"
#include "report_data.h"
#include "services/services.h"

namespace host {

namespace {

constexpr const char *kStandardOutput = "-";

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// The system's clock, whatever time the replay has.
std::chrono::steady_clock::time_point real_now() {
    const card::RealTimeScope real_time;
    return std::chrono::steady_clock::now();
}

// A line on the terminal that says how far the replay has come.
class Progress {
public:
    Progress(bool wanted, const CaptureSet &captures) : wanted_(wanted), captures_(captures) {}
    ~Progress() { clear(); }

    // The cursor stays at the beginning, for whatever is printed over it.
    void show(const Replay &replay) {
        const auto now = real_now();
        if (!wanted_ || now - shown_ < std::chrono::milliseconds(200)) {
            return;
        }
        shown_ = now;
        visible_ = true;
        const uint64_t size = captures_.size();
        const uint64_t percent = size == 0 ? 0 : captures_.bytes_read() * 100 / size;
        const std::string bar(percent / 4, '#');
        std::fprintf(stderr, "[%-25s] %3" PRIu64 " %%  %" PRIu64 " packets, %s UTC \r", bar.c_str(), percent,
                     replay.packets(), card::time_text(replay.now_ns()).c_str());
    }

    void clear() {
        if (visible_) {
            std::fputs("\033[K", stderr);
            visible_ = false;
        }
    }

private:
    bool wanted_;
    bool visible_ = false;
    const CaptureSet &captures_;
    std::chrono::steady_clock::time_point shown_{};
};

int exit_status(console::Status status, const Problems &problems) {
    if (const int signal = kept_signal(); signal != 0) {
        return kExitSignal + signal;
    }
    if (status == console::Status::kWrong) {
        return kExitUsage;
    }
    return status == console::Status::kFailed || problems.count() != 0 ? kExitRefused : kExitGood;
}

// No packet comes before the first one: whoever asks for that means another day, or another capture.
bool are_in_the_capture(const std::vector<std::string> &times, const Replay &replay) {
    const int64_t first_second_ns = replay.start_ns() - replay.start_ns() % card::kNanosecondsPerSecond;
    for (const std::string &time : times) {
        if (*console::read_time(time, replay.start_ns()) < first_second_ns) {
            std::fprintf(stderr, "anti-cpu: --until %s: lies before the first packet, which came at %s UTC\n",
                         time.c_str(), card::time_text(replay.start_ns()).c_str());
            return false;
        }
    }
    return true;
}

// The packets, with the operator at the points asked for. Ctrl-C brings an operator who is there the next point early.
console::Status run_packets(const ReplayOptions &options, Replay &replay, console::Console &console) {
    for (const std::string &until : options.until) {
        replay.run_until(*console::read_time(until, replay.start_ns()));
        if (options.interactive && console.run_terminal() == console::Status::kQuit) {
            return console::Status::kQuit;
        }
    }
    if (!options.script_file.empty()) {
        const console::Status status = console.run_script(options.script_file);
        if (!options.interactive || (status != console::Status::kDone && status != console::Status::kStopped)) {
            return status;
        }
    } else {
        run_to_the_end(options, replay);
    }
    return options.interactive ? console.run_terminal() : console::Status::kDone;
}

void print_results(const ReplayOptions &options, const Summary &summary) {
    if (options.json) {
        write_report(stdout, summary);
    } else if (options.quiet) {
        print_summary(stdout, summary);
    } else if (options.all) {
        print_report(stdout, summary);
    } else {
        print_answer(stdout, summary);
    }
}

// The command line, without the secrets of operator's lines.
std::vector<std::string> command_words(const ReplayOptions &options, const console::Console &console) {
    std::vector<std::string> words = options.command;
    for (std::string &word : words) {
        for (const auto *lines : {&options.lines, &options.then_lines}) {
            for (const std::string &line : *lines) {
                if (word.ends_with(line)) {
                    word = word.substr(0, word.size() - line.size()) + console.grammar().without_secrets(line);
                }
            }
        }
    }
    return words;
}

// What tune has to know of these options.
std::vector<std::string> tune_words(const ReplayOptions &options, const console::Console &console) {
    if (std::ranges::count(options.files, kStandardInput) > 0) {
        return {};
    }
    std::vector<std::string> words{options.command.front(), "tune"};
    words.insert(words.end(), options.files.begin(), options.files.end());
    const auto add = [&words](const char *option, const std::string &value, bool is_given) {
        if (is_given) {
            words.insert(words.end(), {option, value});
        }
    };
    const ReplayOptions defaults;
    for (const uint32_t port : options.ports) {
        add("--port", std::to_string(port), options.ports != defaults.ports);
    }
    add("--vlan", std::to_string(options.vlan), options.vlan != defaults.vlan);
    add("--own-mac", options.own_mac, !options.own_mac.empty());
    add("--fast-period", std::to_string(options.fast_period_s.value_or(0)), options.fast_period_s.has_value());
    add("--config", options.config_file, !options.config_file.empty());
    for (const std::string &line : options.lines) {
        add("-x", console.grammar().without_secrets(line), true);
    }
    return words;
}

// Everything between the files that are read and those that are written.
console::Status replay_captures(const ReplayOptions &options, CaptureSet &captures, CapturesFolder &folder,
                                std::FILE *log_file, ReplayOutputs &outputs, Problems &problems) {
    const bool led_by_operator = options.interactive || !options.script_file.empty();
    const bool prints_events = options.events_file == kStandardOutput;
    // A flood of alarms would push the answer off the screen; who reads a pipe waits for them.
    const bool from_pipe = std::ranges::count(options.files, kStandardInput) > 0;
    const bool shows_alarms =
        (options.all || led_by_operator || from_pipe) && !options.quiet && !options.json && !prints_events;
    EventLog events(shows_alarms ? stdout : nullptr, log_file,
                    options.json ? EventLog::Keep::kEvents : EventLog::Keep::kNothing);
    Replay replay(captures, events, {options.vlan, parse_mac(options.own_mac)});
    Progress progress(isatty(STDERR_FILENO) != 0 && !options.quiet, captures);
    replay.set_progress([&](bool goes_on) { goes_on ? progress.show(replay) : progress.clear(); });
    outputs.follow(replay.journal());
    folder.set_written(
        [&replay](const std::string &path, uint64_t bytes) { replay.journal().note_written(path, bytes); });

    const auto began = real_now();
    replay.start();
    if (!are_in_the_capture(options.until, replay)) {
        return console::Status::kFailed;
    }
    apply_settings(options, replay);
    CaptureKeeper captured(replay, folder);
    console::Session session{replay, &replay, captured, options.json, false, module_settings()};
    console::Console console(session);
    console::Status status = run_settings(options, console);
    if (status != console::Status::kDone) {
        return status;
    }
    session.may_run = true;
    const ModuleSettings settings = module_settings();
    std::optional<TrafficAccount> account;
    AlarmHistory alarms;
    if (outputs.counts_traffic() || (!options.quiet && !led_by_operator)) {
        account.emplace(options.vlan, replay.device_mac(), fast_limits(settings));
        replay.set_account(&*account);
        outputs.follow(replay, *account, settings);
        events.set_alarm_listener([&alarms](const AlarmEvent &event) { alarms.take(event); });
    }
    status = run_packets(options, replay, console);
    const std::chrono::duration<double> real_time = real_now() - began;

    captured.write_all();
    replay.settle();
    std::optional<Verdict> verdict;
    if (account) {
        verdict.emplace(replay, *account, alarms, settings,
                        Commands{command_words(options, console), tune_words(options, console)});
        outputs.write_report(options, replay, *account, *verdict, problems);
    }
    if (!led_by_operator && !prints_events) {
        print_results(options, {captures, replay, events, real_time.count(), verdict ? &*verdict : nullptr});
    }
    if (!options.then_lines.empty() && kept_signal() == 0 &&
        (status == console::Status::kDone || status == console::Status::kQuit)) {
        if (!led_by_operator && !prints_events && !options.json) {
            std::fputs("\n", stdout);
        }
        status = run_then_lines(options, console);
        captured.write_all();
        replay.settle();
    }
    if (kept_signal() != 0) {
        std::fprintf(stderr, "anti-cpu: ended by signal %d at %s UTC\n", kept_signal(),
                     card::time_text(replay.now_ns()).c_str());
    }
    return status;
}

}  // namespace

int replay_command(const ReplayOptions &options) {
    const auto from_pipe = std::ranges::count(options.files, kStandardInput);
    if (from_pipe > 1 || (from_pipe == 1 && options.interactive)) {
        std::fputs("anti-cpu: -: standard input is one capture, and then not the operator's terminal\n", stderr);
        return kExitUsage;
    }
    if (from_pipe == 1) {
        std::setvbuf(stdout, nullptr, _IOLBF, 0);  // alarms are shown as they come
    }
    Problems problems;
    CaptureSet captures;
    if (!open_captures(options, captures, problems)) {
        std::fputs("anti-cpu: nothing to replay\n", stderr);
        return exit_status(console::Status::kFailed, problems);
    }
    CapturesFolder folder;
    if (!options.captures_folder.empty() &&
        !folder.open(options.captures_folder, options.captures_quota_mb * kBytesPerMegabyte, problems)) {
        return kExitRefused;
    }
    File log_file;
    if (!options.log_file.empty()) {
        log_file.reset(std::fopen(options.log_file.c_str(), "w"));
        if (!log_file) {
            problems.report(options.log_file, "write", "cannot be written: " + std::generic_category().message(errno));
            return kExitRefused;
        }
    }
    ReplayOutputs outputs;
    if (!outputs.open(options, problems)) {
        return kExitRefused;
    }
    const console::Status status = replay_captures(options, captures, folder, log_file.get(), outputs, problems);
    outputs.close(options, problems);
    problems.check_written(stdout, "standard output");
    if (log_file) {
        problems.check_written(log_file.get(), options.log_file);
    }
    problems.close();
    return exit_status(status, problems);
}

}  // namespace host
