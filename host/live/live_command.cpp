// SPDX-License-Identifier: Apache-2.0
// live_command.cpp: `anti-cpu run`: the card on this machine's ports, until a signal ends it.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <memory>
#include <new>
#include <set>
#include <system_error>
#include <thread>

#include "capture_keeper.h"
#include "chip/chip.h"
#include "console/caught_output.h"
#include "console/console.h"
#include "events/outputs.h"
#include "events/queued_file.h"
#include "live/class_tables.h"
#include "live/live_card.h"
#include "live/live_options.h"
#include "live/port_option.h"
#include "live/service_manager.h"
#include "metrics/metrics.h"
#include "module_settings.h"
#include "options.h"
#include "os/os.h"
#include "problems.h"
#include "process.h"

namespace host {

namespace {

constexpr auto kPause = std::chrono::milliseconds(1);  // between looks that found nothing
constexpr auto kCapturesEvery = std::chrono::milliseconds(200);
constexpr auto kTellLostEvery = std::chrono::seconds(60);

std::atomic<bool> g_reload = false;  // SIGHUP came

void ask_for_reload(int) {
    g_reload = true;
}

// What the module is refused, it does without. The rest cannot, and would go on with half of what it is to do: it ends,
// and the kernel takes the programs off.
[[noreturn]] void end_without_memory() {
    constexpr std::string_view kText = "anti-cpu: no memory left; ended, the ports are as they were before\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kText.data(), kText.size());
    _exit(kExitRefused);
}

// The lines of a settings file as they stand; false when it cannot be read.
bool read_lines(const std::string &path, std::vector<std::string> &lines) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        lines.push_back(line);
    }
    return file.eof();
}

const char *status_text(console::Status status) {
    switch (status) {
        case console::Status::kDone:
            return "done";
        case console::Status::kWrong:
            return "wrong";
        case console::Status::kQuit:
            return "quit";
        default:
            return "failed";
    }
}

std::string text_of(const console::CaughtOutput::File &file) {
    std::string text;
    std::array<char, 65536> block;
    while (const size_t size = file ? std::fread(block.data(), 1, block.size(), file.get()) : 0) {
        text.append(block.data(), size);
    }
    return text;
}

// Everything that lives while the card runs.
class LiveProcess {
public:
    LiveProcess(const LiveOptions &options, Problems &problems) : options_(options), problems_(problems) {}
    ~LiveProcess() { card::Chip::instance().set_plane(nullptr); }
    LiveProcess(const LiveProcess &) = delete;
    LiveProcess &operator=(const LiveProcess &) = delete;

    int run();

private:
    bool open_files();
    std::vector<OutputState> output_states() const;
    bool load_guard(const std::vector<card::PortSpec> &specs);
    bool start_ports();
    int loop();
    ControlAnswer answer(const std::string &line, bool json, ControlRole role);
    void reload();
    void look_at_outputs();
    std::string status() const;
    void say(const std::string &text) const;

    const LiveOptions &options_;
    Problems &problems_;
    QueuedFile terminal_;
    QueuedFile log_file_;
    CapturesFolder folder_;
    EventOutputs outputs_{Delivery::kNoWaiting};
    MacAddress device_mac_{};
    std::unique_ptr<card::Guard> guard_;
    std::unique_ptr<card::LivePorts> ports_;
    std::unique_ptr<EventLog> events_;
    std::unique_ptr<LiveCard> card_;
    std::unique_ptr<CaptureKeeper> captures_;
    std::unique_ptr<console::Session> session_;
    std::unique_ptr<console::Console> console_;
    ControlServer control_;
    ServiceManager manager_;
    uint64_t lost_told_ = 0;
    std::chrono::steady_clock::time_point tell_lost_;
    std::unique_ptr<Metrics> metrics_;   // null: not asked for
    std::vector<std::string> settings_;  // lines of the settings file, as they were applied
};

int LiveProcess::run() {
    std::set<uint32_t> taken;
    std::vector<card::PortSpec> specs(options_.ports.size());
    for (size_t i = 0; i < specs.size(); i++) {
        if (!read_port(options_.ports[i], taken, specs[i])) {
            return kExitUsage;
        }
    }
    if (!options_.config_file.empty() && !read_lines(options_.config_file, settings_)) {
        problems_.report(options_.config_file, "read", "cannot be read: " + std::generic_category().message(errno));
        return kExitRefused;
    }
    std::string error;
    if (!control_.open(options_.control, options_.operators, options_.observers, error)) {
        problems_.report("--control " + options_.control, "control", error);
        return kExitRefused;
    }
    if (!options_.metrics.empty()) {
        metrics_ = std::make_unique<Metrics>();
        if (!metrics_->open(options_.metrics, error)) {
            problems_.report("--metrics " + options_.metrics, "metrics", error);
            return kExitRefused;
        }
    }
    if (!open_files() || !load_guard(specs)) {
        return kExitRefused;
    }
    return start_ports() ? loop() : kExitRefused;
}

bool LiveProcess::open_files() {
    if (!options_.captures_folder.empty() &&
        !folder_.open(options_.captures_folder, options_.captures_quota_mb * kBytesPerMegabyte, problems_)) {
        return false;
    }
    if (!options_.log_file.empty() && !log_file_.open(options_.log_file)) {
        problems_.report(options_.log_file, "write", "cannot be written: " + std::generic_category().message(errno));
        return false;
    }
    if (!terminal_.take(dup(options_.events_file == "-" ? STDERR_FILENO : STDOUT_FILENO))) {
        problems_.report("standard output", "write", std::generic_category().message(errno));
        return false;
    }
    return outputs_.open(options_.events_file, options_.syslog, problems_);
}

// The device's own address is that of the first port that is there.
bool LiveProcess::load_guard(const std::vector<card::PortSpec> &specs) {
    const std::vector<card::Interface> all = card::interfaces();
    for (const card::PortSpec &spec : specs) {
        const auto found = std::ranges::find(all, spec.interface, &card::Interface::name);
        if (found == all.end()) {
            continue;
        }
        device_mac_ = found->mac;
        break;
    }
    card::GuardOptions options;
    options.classes = class_tables();
    options.device_mac = device_mac_;
    options.patience_ns = options_.stall_s * uint64_t{card::kNanosecondsPerSecond};
    std::string error;
    guard_ = card::Guard::load(options, error);
    if (!guard_) {
        problems_.report("run", "kernel", "the kernel does not take the program: " + error);
        return false;
    }
    ports_ = std::make_unique<card::LivePorts>(
        *guard_, options_.generic ? card::PortMode::kGeneric : card::PortMode::kNative, options_.all);
    for (const card::PortSpec &spec : specs) {
        ports_->add(spec);
    }
    return true;
}

bool LiveProcess::start_ports() {
    card::Chip &chip = card::Chip::instance();
    chip.set_plane(&guard_->rules());
    chip.set_overflow(card::Chip::kDefaultCapacity);
    if (options_.chip_rules) {
        chip.set_capacity(*options_.chip_rules);
    }
    if (options_.memory_budget_mb) {
        card::set_memory_budget(*options_.memory_budget_mb * kBytesPerMegabyte);
    }
    events_ = std::make_unique<EventLog>(options_.events_file == "-" ? nullptr : terminal_.stream(), log_file_.stream(),
                                         EventLog::Keep::kNothing, EventLog::Taking::kLater);
    card_ = std::make_unique<LiveCard>(*events_, *guard_, *ports_, device_mac_,
                                       [this](const std::string &text) { say(text); });
    outputs_.follow(card_->journal());
    folder_.set_written(
        [this](const std::string &path, uint64_t bytes) { card_->journal().note_written(path, bytes); });
    captures_ = std::make_unique<CaptureKeeper>(*card_, folder_);
    session_ = std::make_unique<console::Session>(console::Session{*card_, nullptr, *captures_, false, false});
    session_->outputs = [this] { return output_states(); };
    console_ = std::make_unique<console::Console>(*session_);
    const size_t attached = card_->start();
    session_->defaults = module_settings();
    if (attached == 0 && !options_.waits_for_ports) {
        problems_.report("run", "ports", "no port could be protected");
        return false;
    }
    for (const std::string &line : options_.lines) {
        if (console_->run_setting(line, "-x '" + console_->grammar().without_secrets(line) + "'") !=
            console::Status::kDone) {
            return false;
        }
    }
    if (!options_.config_file.empty() && console_->run_settings(options_.config_file) != console::Status::kDone) {
        return false;
    }
    if (metrics_) {
        metrics_->start(*card_, [this] { return output_states(); });
    }
    say("running; `anti-cpu console --control " + options_.control + "` is the operator's terminal");
    return true;
}

int LiveProcess::loop() {
    struct sigaction action {};
    action.sa_handler = ask_for_reload;
    action.sa_flags = SA_RESTART;
    sigaction(SIGHUP, &action, nullptr);
    const auto handler = [this](const std::string &line, bool json, ControlRole role) {
        return answer(line, json, role);
    };
    auto next_captures = std::chrono::steady_clock::now();
    manager_.ready();
    while (kept_signal() == 0) {
        const size_t copies = card_->look();
        manager_.progress();
        control_.look(handler);
        if (const auto now = std::chrono::steady_clock::now(); now >= next_captures) {
            next_captures = now + kCapturesEvery;
            captures_->look();
            look_at_outputs();
            manager_.status(status());
        }
        if (g_reload.exchange(false)) {
            manager_.reloading();
            outputs_.reopen();
            log_file_.reopen();
            reload();
            manager_.ready();
        }
        if (copies == 0 && !(metrics_ && metrics_->is_busy())) {
            std::this_thread::sleep_for(kPause);
        }
    }
    manager_.stopping();
    captures_->write_all();
    card_->settle();
    outputs_.close(problems_);
    say("ended by signal " + std::to_string(kept_signal()) + "; the ports are as they were before");
    log_file_.close();
    terminal_.close();
    return problems_.count() == 0 ? kExitGood : kExitRefused;
}

ControlAnswer LiveProcess::answer(const std::string &line, bool json, ControlRole role) {
    if (role != ControlRole::kOperator && !console_->only_looks(line)) {
        return {"refused", "an observer may look (show, help), not set\n"};
    }
    console::CaughtOutput output;
    session_->json = json;
    const console::Status status = console_->run_line(line);
    session_->json = false;
    if (metrics_ && !console_->only_looks(line)) {
        metrics_->read_settings();
    }
    return {status_text(status), text_of(output.take())};
}

// The lines that are new; what a line that is gone has set cannot be known, so it is told.
void LiveProcess::reload() {
    if (options_.config_file.empty()) {
        say("SIGHUP: there is no settings file (--config) to read again");
        return;
    }
    std::vector<std::string> lines;
    if (!read_lines(options_.config_file, lines)) {
        say("SIGHUP: " + options_.config_file + " cannot be read; everything stays as it was");
        return;
    }
    std::multiset<std::string> before(settings_.begin(), settings_.end());
    size_t run = 0;
    size_t failed = 0;
    for (const std::string &line : lines) {
        if (const auto known = before.find(line); known != before.end()) {
            before.erase(known);
            continue;
        }
        run++;
        failed += console_->run_setting(line, options_.config_file) == console::Status::kDone ? 0 : 1;
    }
    for (const std::string &gone : before) {
        say("SIGHUP: no longer there; what it set stays until another line sets it: " +
            console_->grammar().without_secrets(gone));
    }
    settings_ = std::move(lines);
    if (metrics_) {
        metrics_->read_settings();
    }
    say("SIGHUP: " + std::to_string(run) + " new lines of " + options_.config_file + ", " + std::to_string(failed) +
        " failed");
}

// What `systemctl status` shows.
std::string LiveProcess::status() const {
    const auto &ports = ports_->ports();
    const auto count =
        std::ranges::count_if(ports, [](const card::LivePort &port) { return port.attachment != nullptr; });
    return std::to_string(count) + " of " + std::to_string(ports.size()) + " ports protected";
}

// At most a line a minute.
void LiveProcess::look_at_outputs() {
    uint64_t lost = 0;
    for (const OutputState &output : output_states()) {
        lost += output.counts.lost;
    }
    const auto now = std::chrono::steady_clock::now();
    if (lost > lost_told_ && now >= tell_lost_) {
        tell_lost_ = now + kTellLostEvery;
        say(std::to_string(lost - lost_told_) +
            " events or messages were lost: who reads them is too slow (`show outputs` tells which)");
        lost_told_ = lost;
    }
}

void LiveProcess::say(const std::string &text) const {
    for (std::FILE *out : {terminal_.stream(), log_file_.stream()}) {
        if (out != nullptr) {
            std::fprintf(out, "anti-cpu: %s\n", text.c_str());
        }
    }
}

std::vector<OutputState> LiveProcess::output_states() const {
    std::vector<OutputState> states = outputs_.states();
    if (log_file_.stream() != nullptr) {
        states.push_back({"log", options_.log_file, log_file_.counts()});
    }
    states.push_back(
        {"messages", options_.events_file == "-" ? "standard error" : "standard output", terminal_.counts()});
    return states;
}

}  // namespace

// The module's threads go on to the end of the process, so that is at once when all has been written.
int live_command(const LiveOptions &options) {
    std::set_new_handler(end_without_memory);
    Problems problems;
    int status = kExitRefused;
    {
        LiveProcess process(options, problems);
        status = process.run();
    }
    problems.check_written(stdout, "standard output");
    problems.close();
    std::fflush(nullptr);
    _exit(status);
}

}  // namespace host
