// SPDX-License-Identifier: Apache-2.0
// console.cpp: lines of an operator, run by the console of a card that has seen a frame of every class. A line that
// ends in a tab is completed.
#include "console/console.h"

#include <sstream>

#include "anti_cpu/anti_cpu.h"
#include "anti_cpu/platform.h"
#include "card.h"
#include "clock/clock.h"
#include "frames.h"

using host::console::Console;

// In the place of the card's, by the link: nothing is sent anywhere.
extern "C" int __wrap_xftp_upload_base(const char *, const char *, const char *, const char *, const void *, uint32_t,
                                       uint32_t, void *) {
    return -1;
}

namespace {

// Lines that read or write files, or let time go on for as long as they say, are read and not run.
bool may_run(const std::vector<std::string> &words) {
    static const std::vector<std::string_view> not_run[] = {
        {"run"}, {"capture", "save"}, {"upload", "password", "file"}};
    return std::ranges::none_of(not_run, [&words](const auto &start) {
        return words.size() >= start.size() &&
               std::equal(start.begin(), start.end(), words.begin(), [](auto a, auto b) { return a.starts_with(b); });
    });
}

void run_line(Console &console, const std::string &line) {
    std::vector<std::string> words;
    if (host::console::split_line(line, words) && !may_run(words)) {
        console.grammar().parse(words);
    } else if (line.ends_with('\t')) {
        console.grammar().completions(words, "");
    } else {
        console.run_line(line);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static host::CaptureSet no_captures;
    static host::EventLog events(nullptr, nullptr, host::EventLog::Keep::kNothing);
    static host::Replay replay(no_captures, events, {});
    static host::CapturesFolder folder;
    static host::CaptureKeeper captures(replay, folder);
    static host::console::Session session{replay, &replay, captures, false, true};
    static Console console(session);
    static const std::vector<Frame> frames = [] {
        replay.start();
        std::vector<Frame> all;
        for (uint16_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
            all.push_back(frame_of_class(id));
        }
        return all;
    }();
    use_simulated_time();
    for (const Frame &frame : frames) {
        atc_api_receive_packet(frame.data(), frame.size(), 3, 100);
    }
    replay.run_for(card::kNanosecondsPerSecond);
    std::istringstream lines(std::string(reinterpret_cast<const char *>(data), size));
    for (std::string line; std::getline(lines, line);) {
        run_line(console, line);
    }
    events.alarms().forget();
    end_input();
    return 0;
}
