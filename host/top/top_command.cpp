// SPDX-License-Identifier: Apache-2.0
#include "top/top_command.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>
#include <vector>

#include "options.h"
#include "process.h"
#include "top/screen.h"
#include "top/snapshot.h"
#include "top/view.h"

namespace host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kShortest = 0.2;  // seconds between two looks
constexpr double kLongest = 3600;
constexpr auto kRateOver = std::chrono::milliseconds(500);  // at least: shorter times give no steady rates
constexpr const char *kRecorded = "1000";                   // packets, unless the operator asks for another number
constexpr size_t kWideEnough = 200;                         // characters of a line of --once

std::string host_name() {
    char name[256] = "";
    gethostname(name, sizeof(name) - 1);
    return name;
}

class Top {
public:
    explicit Top(const TopOptions &options)
        : options_(options), interval_s_(options.interval_s), router_(options.control), host_name_(host_name()) {
        for (size_t i = 0; i < top::kPages; i++) {
            if (options.page == top::page_name(static_cast<top::Subject>(i))) {
                view_.go_to(static_cast<top::Subject>(i));
            }
        }
    }

    int print_once();
    int run();

private:
    void look();
    top::Scene scene() const;
    void wait_until(Clock::time_point end);
    // False: the operator leaves.
    bool obey(const top::Pressed &pressed);
    void obey_letter(char letter);
    void record();

    const TopOptions &options_;
    double interval_s_;
    top::Router router_;
    std::string host_name_;
    top::View view_;
    top::Screen screen_;
    std::optional<top::Snapshot> now_;
    std::optional<top::Snapshot> before_;
    std::string looked_line_;
    std::string trouble_;
    std::string message_;
    bool is_paused_ = false;
    bool is_leaving_ = false;
};

// A key may ask soon after the last look. What another page was asked is no base for the rates of this one.
void Top::look() {
    top::Snapshot fresh;
    const bool with_limits = view_.subject() == top::Subject::kClasses;
    trouble_ = router_.look(view_.page_line(), with_limits, fresh);
    if (!trouble_.empty()) {
        return;
    }
    if (now_ && (!before_ || fresh.card.when - now_->card.when >= kRateOver)) {
        before_ = std::move(now_);
    }
    if (before_ && looked_line_ != view_.page_line()) {
        before_->page = {};
    }
    looked_line_ = view_.page_line();
    now_ = std::move(fresh);
}

top::Scene Top::scene() const {
    return {now_ ? &*now_ : nullptr,
            before_ ? &*before_ : nullptr,
            host_name_,
            options_.control,
            trouble_,
            interval_s_,
            is_paused_};
}

// Rates take two looks.
int Top::print_once() {
    look();
    if (trouble_.empty()) {
        std::this_thread::sleep_for(std::chrono::duration<double>(interval_s_));
        look();
    }
    if (!trouble_.empty()) {
        std::fprintf(stderr, "anti-cpu: %s: %s; `anti-cpu run` listens there while it runs (--control)\n",
                     options_.control.c_str(), trouble_.c_str());
        return kExitRefused;
    }
    for (const top::Line &line : view_.draw_whole(scene(), kWideEnough)) {
        std::printf("%s\n", line.text.c_str());
    }
    return kExitGood;
}

int Top::run() {
    const char *no_color = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): one thread
    if (!screen_.open(!options_.no_colours && (no_color == nullptr || *no_color == 0))) {
        std::fputs("anti-cpu: top needs a terminal (TERM says which kind); --once prints one page\n", stderr);
        return kExitRefused;
    }
    while (!is_leaving_ && kept_signal() == 0) {
        if (!is_paused_) {
            look();
        }
        // The first rates come soon.
        const double pause_s = now_ && !before_ ? std::min(interval_s_, 1.0) : interval_s_;
        wait_until(Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(pause_s)));
    }
    return kExitGood;
}

// Draws, and obeys keys, until it is time to look again or a key asks for that.
void Top::wait_until(Clock::time_point end) {
    for (;;) {
        screen_.draw(view_.draw(scene(), screen_.size(), message_));
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0 || kept_signal() != 0) {
            return;
        }
        const top::Pressed pressed = screen_.wait(static_cast<int>(std::min<int64_t>(left, 1000)));
        if (pressed.key == top::Key::kNone) {
            continue;
        }
        message_.clear();
        const std::string asked = view_.page_line();
        const top::Subject subject = view_.subject();
        if (!obey(pressed)) {
            is_leaving_ = true;
            return;
        }
        const bool wants_other = asked != view_.page_line() || subject != view_.subject();
        if (wants_other || pressed.character == ' ') {
            is_paused_ = is_paused_ && !wants_other;
            look();
        }
    }
}

bool Top::obey(const top::Pressed &pressed) {
    const auto page = static_cast<std::ptrdiff_t>(screen_.size().height > 6 ? screen_.size().height - 6 : 1);
    constexpr std::ptrdiff_t all = 1'000'000;
    switch (pressed.key) {
        case top::Key::kUp:
            view_.move(-1);
            break;
        case top::Key::kDown:
            view_.move(1);
            break;
        case top::Key::kPageUp:
            view_.move(-page);
            break;
        case top::Key::kPageDown:
            view_.move(page);
            break;
        case top::Key::kHome:
            view_.move(-all);
            break;
        case top::Key::kEnd:
            view_.move(all);
            break;
        case top::Key::kTab:
            view_.go_beside(1);
            break;
        case top::Key::kBackTab:
            view_.go_beside(-1);
            break;
        case top::Key::kEnter:
            message_ = view_.look_into() ? "" : "only a flood has sources to look into";
            break;
        case top::Key::kEscape:
            view_.go_back();
            break;
        case top::Key::kCharacter:
            if (pressed.character == 'q') {
                return false;
            }
            obey_letter(pressed.character);
            break;
        case top::Key::kNone:
            break;
    }
    return true;
}

void Top::obey_letter(char letter) {
    if (letter >= '1' && letter < '1' + static_cast<char>(top::kPages)) {
        view_.go_to(static_cast<top::Subject>(letter - '1'));
        return;
    }
    switch (letter) {
        case 'k':
        case 'j':
            view_.move(letter == 'j' ? 1 : -1);
            break;
        case '<':
        case '>':
            view_.sort_by_beside(letter == '>' ? 1 : -1);
            break;
        case 'r':
            view_.turn_order();
            break;
        case 'c':
            record();
            break;
        case 'x':
            message_ = router_.order("capture stop");
            break;
        case '+':
        case '-':
            interval_s_ = std::clamp(letter == '+' ? interval_s_ / 2 : interval_s_ * 2, kShortest, kLongest);
            break;
        case 'p':
            is_paused_ = !is_paused_;
            break;
        case '?':
        case 'h':
            view_.toggle_help();
            break;
        case ' ':
            break;
        default:
            message_ = std::string("no key is \"") + letter + "\"; ? tells those there are";
    }
}

void Top::record() {
    const std::string match = view_.selected_match();
    if (match.empty()) {
        message_ = "no packets are named by this row: select a flood, a port or a class";
        return;
    }
    const std::string count = screen_.ask("Record how many packets of " + match + "? ", kRecorded);
    if (!count.empty()) {
        message_ = router_.order("capture start " + count + " direction rx " + match);
    }
}

}  // namespace

CLI::App *add_top(CLI::App &app, TopOptions &options) {
    CLI::App *top =
        app.add_subcommand("top", "What floods a running `anti-cpu run`, and what is done, on a full screen");
    top->add_option("--control", options.control, "Its socket")->capture_default_str();
    top->add_option("--interval", options.interval_s, "Seconds between two looks")
        ->capture_default_str()
        ->check(CLI::Range(kShortest, kLongest));
    top->add_option("--page", options.page, "Page to begin with")
        ->capture_default_str()
        ->check(CLI::IsMember({"floods", "ports", "classes", "rules"}));
    top->add_flag("--once", options.is_once, "Print that page as text, after one interval, and leave");
    top->add_flag("--no-colours", options.no_colours, "Without colours, as where NO_COLOR is set");
    return top;
}

int top_command(const TopOptions &options) {
    Top top(options);
    return options.is_once ? top.print_once() : top.run();
}

}  // namespace host
