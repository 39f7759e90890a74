// card_model.h: what the fake card will answer, and what its chip and queue then hold.
//
// CardModel mirrors the card's failure plans and counts the calls that the module has to make, so that any call too
// many or too few shows. A rule in the chip is the line of text that chip_text.h makes of it. Base of Model (model.h).
// Invariant: a rule that nobody keeps is in 'orphans', and only a delete that was made to fail puts one there.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "fake_platform.h"

constexpr uint32_t BACKUP_PORT = 130;  // sits on the backup core card

// What installs and deletes one rule.
struct Rule {
    uint32_t port;
    std::string match;       // items, a blank behind each
    std::string operations;  // codes and values
    uint32_t sdk_id = 0;
    uint32_t stat_id = 0;
};

inline const std::string AUTOMATIC = "100 121 113:80001";

struct InChip {
    uint32_t entry_id;
    uint32_t stat_id;
    uint64_t packets;
};

struct Message {
    uint32_t type;  // ATC_MSG_*
    uint32_t trunk;
    uint32_t member;
};

struct CardModel {
    struct Plan {
        uint32_t in = 0;  // calls until the one that fails; 0 = no plan
        bool from_then_on = false;
    };

    std::array<Plan, static_cast<size_t>(Call::count)> plans{};
    std::array<uint32_t, static_cast<size_t>(Call::count)> calls{};
    int chip_set_result = 0;
    size_t queue_capacity = 256;
    size_t live = 0;  // blocks
    std::deque<Message> queue;
    std::map<std::string, InChip> chip;
    std::set<std::string> orphans;
    uint32_t rules_made = 0;
    uint32_t next_unread_rule = 0;  // entry id of the first rule whose text was not compared yet
    std::map<uint32_t, std::array<uint32_t, 8>> trunks;

    // Counts a call; true when it fails by plan.
    bool call(Call kind) {
        const auto index = static_cast<size_t>(kind);
        calls[index]++;
        Plan &plan = plans[index];
        if (plan.in == 0 || --plan.in > 0) {
            return false;
        }
        plan.in = plan.from_then_on ? 1 : 0;
        return true;
    }

    void log() { call(Call::log); }

    bool allocate() {
        const bool got = !call(Call::alloc);
        live += got ? 1 : 0;
        return got;
    }

    bool post(const Message &message) {
        const bool taken = !call(Call::send) && queue.size() < queue_capacity;
        if (taken) {
            queue.push_back(message);
        }
        return taken;
    }

    // The rule as the chip knows it: its ports are those of this moment. None when no port is left.
    std::optional<std::string> key(const Rule &rule) const {
        std::string ports;
        if (auto trunk = trunks.find(rule.port); trunk == trunks.end()) {
            ports = " " + std::to_string(rule.port);
        } else {
            for (uint32_t member : trunk->second) {
                ports += member != 0 && member != BACKUP_PORT ? " " + std::to_string(member) : "";
            }
        }
        return ports.empty() ? std::nullopt : std::optional(rule.match + "| " + rule.operations + " |" + ports);
    }

    int install(Rule &rule) {
        const std::optional<std::string> text = key(rule);
        if (!text) {
            return -1;
        }
        if (call(Call::chip_set) || chip_set_result < 0 || chip.contains(*text)) {
            log();
            return -1;
        }
        const uint32_t nth = rules_made++;
        chip[*text] = {FakePlatform::first_entry_id + nth, FakePlatform::first_stat_id + nth, 0};
        rule.sdk_id = call(Call::chip_entry_id) ? 0 : FakePlatform::first_entry_id + nth;
        if (rule.operations == AUTOMATIC) {
            rule.stat_id = call(Call::chip_stat_id) ? 0 : FakePlatform::first_stat_id + nth;
        }
        return chip_set_result;
    }

    int remove(Rule &rule) {
        const std::optional<std::string> text = key(rule);
        if (!text) {
            return -1;
        }
        if (call(Call::chip_delete)) {
            if (chip.contains(*text)) {
                orphans.insert(*text);
            }
            log();
            return -1;
        }
        orphans.erase(*text);
        if (chip.erase(*text) == 0) {
            log();
            return -1;
        }
        rule.sdk_id = 0;
        return 0;
    }

    InChip *by_stat(uint32_t stat_id) {
        auto found = std::ranges::find_if(chip, [&](const auto &rule) { return rule.second.stat_id == stat_id; });
        return found != chip.end() ? &found->second : nullptr;
    }
};
