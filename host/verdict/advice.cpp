// SPDX-License-Identifier: Apache-2.0
#include "verdict/advice.h"

#include <algorithm>
#include <set>

#include "verdict/senders.h"
#include "verdict/words.h"

namespace host {

namespace {

constexpr size_t kReactions = 3;             // of the most harmful floods
constexpr uint32_t kPortWithoutRules = 255;  // the module installs none there

std::vector<std::string> without_fast_period(const std::vector<std::string> &command) {
    const std::string option = "--fast-period";
    std::vector<std::string> words;
    for (size_t i = 0; i < command.size(); i++) {
        if (command[i] == option) {
            i++;
        } else if (!command[i].starts_with(option + "=")) {
            words.push_back(command[i]);
        }
    }
    return words;
}

std::string command_line(const std::vector<std::string> &words) {
    std::string line;
    for (const std::string &word : words) {
        line += (line.empty() ? "" : " ") + shell_quoted(word);
    }
    return line;
}

bool by_sender(const Flood &flood) {
    return flood.flow.vlan != kUntrackedVlan && !flood.addresses.busiest.empty() &&
           flood.addresses.busiest.front().traffic->packets * 2 >= flood.traffic->packets;
}

class AdviceMaker {
public:
    AdviceMaker(const ModuleSettings &settings, std::vector<std::string> words)
        : settings_(settings), words_(std::move(words)) {}

    void set_period(uint32_t seconds) {
        words_.insert(words_.end(), {"--fast-period", std::to_string(seconds)});
        reasons_.push_back("a fast period of " + std::to_string(seconds) + " s shows as alarms what " +
                           std::to_string(settings_.fast_period_s) + " s average away");
    }

    void react(const Flood &flood) {
        if (flood.is_outside()) {
            filter(flood);
            return;
        }
        const ProtocolSettings &now = settings_.protocols.at(flood.flow.protocol);
        const std::string protocol = protocol_name(flood.flow.protocol);
        if (now.hw_denies || now.denies || (has_loud_senders(flood) && (now.hw_denies_source || now.denies_source)) ||
            !reacted_.insert(flood.flow.protocol).second) {
            return;
        }
        if (has_loud_senders(flood) && flood.flow.port == kPortWithoutRules) {
            add("set deny " + protocol + " source on",
                protocol + ": software drops each sender that is over the limit");
        } else if (has_loud_senders(flood)) {
            add("set hw-deny " + protocol + " source on",
                protocol + ": the chip stops each sender that is over the limit, the others go on");
        } else {
            add("set deny " + protocol + " on", protocol +
                                                    ": no sender stands out, so software drops the class on "
                                                    "that port and VLAN, good packets too, while it floods");
        }
    }

    bool is_full() const { return reacted_.size() + filters_ >= kReactions; }

    Advice take() { return reasons_.empty() ? Advice{} : Advice{std::move(reasons_), command_line(words_)}; }

private:
    void add(const std::string &line, std::string reason) {
        words_.insert(words_.end(), {"-x", line});
        reasons_.push_back(std::move(reason));
    }

    // The limiter does not see it, or cannot act on it.
    void filter(const Flood &flood) {
        filters_++;
        add(filter_line(flood, filters_),
            "port " + std::to_string(flood.flow.port) + ", VLAN " + std::to_string(flood.flow.vlan) +
                ": no limit acts, so a filter stops all there" + (by_sender(flood) ? " from that sender" : ""));
    }

    const ModuleSettings &settings_;
    std::vector<std::string> words_;
    std::vector<std::string> reasons_;
    std::set<uint32_t> reacted_;
    size_t filters_ = 0;
};

}  // namespace

std::string filter_line(const Flood &flood, size_t id) {
    return "hw-filter deny " + std::to_string(id) + " port " + std::to_string(flood.flow.port) + " vlan " +
           std::to_string(flood.flow.vlan) +
           (by_sender(flood) ? " source " + source_text(flood.addresses.busiest.front().source) : "");
}

// A third of the shortest flood: wherever periods begin, one lies in it whole, and another is left to hold it in.
std::optional<uint32_t> fitting_period_s(const std::vector<Flood> &floods, uint32_t current_s) {
    std::optional<int64_t> shortest_ns;
    for (const Flood &flood : floods) {
        if (flood.is_hidden() && flood.over->times() > 0 && !flood.is_moment()) {
            const int64_t length_ns = flood.over->length_ns() / flood.over->times();
            shortest_ns = std::min(length_ns, shortest_ns.value_or(length_ns));
        }
    }
    uint32_t fitting_s = 1;
    for (const uint32_t seconds : {1U, 2U, 5U, 10U, 20U, 30U, 60U, 120U}) {
        fitting_s = shortest_ns && seconds * OverLimit::kSecondNs * 3 <= *shortest_ns ? seconds : fitting_s;
    }
    return shortest_ns && fitting_s < current_s ? std::optional(fitting_s) : std::nullopt;
}

Advice advice_to_tune(const Commands &commands) {
    if (commands.tune.empty()) {
        return {};
    }
    return {{"limits that fit such a day: what it needed at most, and some more (add --flood FILE for a bad one)"},
            command_line(commands.tune)};
}

Advice advice_for(const std::vector<Flood> &floods, const ModuleSettings &settings, std::optional<uint32_t> period_s,
                  const std::vector<std::string> &command) {
    AdviceMaker maker(settings, period_s ? without_fast_period(command) : command);
    if (period_s) {
        maker.set_period(*period_s);
    }
    for (const Flood &flood : floods) {
        if (!flood.is_moment() && !maker.is_full()) {
            maker.react(flood);
        }
    }
    return maker.take();
}

}  // namespace host
