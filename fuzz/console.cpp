// console.cpp: operator lines into the console of a card that has seen a frame of every class; more come between them.
#include "console/console.h"

#include <sstream>

#include "anti_cpu/anti_cpu.h"
#include "card_run.h"
#include "clock/clock.h"
#include "frames.h"

namespace {

void receive_all_classes() {
    for (uint16_t protocol = 1; protocol <= ATC_PROTOCOL_COUNT; protocol++) {
        const Frame frame = frame_of_class(protocol);
        atc_api_receive_packet(frame.data(), frame.size(), 3, 100);
    }
}

// Lines that read or write files, reach for the network or let time go on for ever are read, not run.
constexpr std::string_view kNotRun[] = {"capture save", "upload password file", "upload now", "upload enable", "run"};

bool may_run(const host::console::Console &console, const std::string &line) {
    std::vector<std::string> words;
    if (!host::console::split_line(line, words) || words.empty()) {
        return true;
    }
    console.grammar().completions({words.begin(), words.end() - 1}, words.back());
    const host::console::Command *command = console.grammar().parse(words).command;
    const std::string_view pattern = command != nullptr ? command->pattern : "";
    return std::ranges::none_of(kNotRun, [&](std::string_view start) { return pattern.starts_with(start); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    host::CaptureSet captures;
    CardRun run(captures);
    host::CapturesFolder folder;
    host::CaptureKeeper captured(run.replay(), folder);
    host::console::Session session{run.replay(), captured, false, true};
    host::console::Console console(session);
    std::istringstream input(std::string(reinterpret_cast<const char *>(data), size));
    for (std::string line; std::getline(input, line); run.replay().run_for(card::kNanosecondsPerSecond)) {
        receive_all_classes();
        may_run(console, line) ? console.run_line(line) : host::console::Status::kDone;
    }
    return 0;
}
