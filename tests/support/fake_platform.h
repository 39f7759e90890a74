// SPDX-License-Identifier: Apache-2.0
// fake_platform.h: the card of the tests: every function of platform.h, and the clock, as a fake that watches its
// caller.
//
// fake() is the one card of a test process, for one thread: tests read what the module did from it and tell it what to
// answer. What it finds wrong is a failure of the running test: a block freed twice or never allocated; the mutex taken
// twice, given untaken, or held in a wait or a transfer; a message of another size; a call that is not formed as
// platform.h says.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"

constexpr int64_t ns_per_second = 1'000'000'000;

using Bytes = std::vector<uint8_t>;

// The kinds of calls that are counted, and that fail when told to.
enum class Call : size_t {
    alloc,          // bep_mallocEx and bep_callocEx: null
    send,           // -1, the message is not taken
    receive,        // -1, the message stays
    chip_set,       // -1, nothing is installed
    chip_delete,    // -1, the rule stays
    chip_entry_id,  // -1, the word is left alone; so the two below
    chip_stat_id,
    chip_counters,
    upload,  // -1, nothing arrives
    clock,   // counted only, from here on
    delay,
    port_map,
    count,  // number of kinds
};

// The nth call from now on (1 = the next) fails, once or with all that follow.
struct Plan {
    uint32_t in = 0;  // 0 = no plan
    bool from_then_on = false;
    uint32_t hits = 0;

    bool fails() {
        if (in == 0 || --in > 0) {
            return false;
        }
        in = from_then_on ? 1 : 0;
        ++hits;
        return true;
    }
};

struct LogLine {
    uint32_t level;
    std::string text;  // with its line end
};

struct Upload {
    std::string server, user, passwd, file_name;
    Bytes data;
    uint32_t ftp_type;
};

// One rule in the chip. Its text is the driver's buffers: "4=100 2=0a000001 5=2048/0 | 100 121 113:80001 | 3 4": match
// items as code=value (numbers decimal, addresses hex, a prefix mask that is no exact one as /bits), operations with
// their values, ports. By its text a rule is known.
struct ChipRule {
    uint32_t entry_id, stat_id;
    std::string text;
    uint64_t packets = 0;  // its counter
};

struct FakePlatform {
    static constexpr uint32_t sem_handle = 11, queue_handle = 22, mod_handle = 77;
    static constexpr uint32_t first_entry_id = 1000, first_stat_id = 5000;
    static bool clock_owned;  // static: the clock may be read before the card exists

    // ---- What the card answers
    uint32_t ticks_per_second = 60;
    int chip_set_result = 0;  // of hw_driver_set_stream_qos_item: negative refuses, positive installs all the same
    uint32_t backup_slot = 0;
    std::function<void()> on_delay;    // in bep_taskDelayEx, when the time has passed
    std::function<void()> on_receive;  // in bep_msgQReceiveEx, before the queue is looked at
    std::function<void()> on_upload;   // in xftp_upload_base

    // ---- What the module told the card
    std::vector<std::string> created;  // every call that creates or registers something, as "bep_semMCreateEx 1"
    int (*task)() = nullptr;
    int (*trunk_handler)(uint32_t, uint32_t, uint32_t, uint32_t) = nullptr;
    std::vector<Upload> uploads;
    std::vector<LogLine> log;  // oldest first

    // ---- What it holds
    int64_t monotonic_ns = 1000 * ns_per_second + 250'000'000;
    int64_t realtime_ns = 1'630'554'380 * ns_per_second;  // 2021-09-02 03:46:20 UTC
    std::array<Plan, static_cast<size_t>(Call::count)> plans;
    std::array<uint32_t, static_cast<size_t>(Call::count)> made{};    // calls, failed ones included
    std::array<uint32_t, static_cast<size_t>(Call::count)> failed{};  // of them, by any plan
    std::unordered_set<void *> live;
    bool mutex_held = false;
    std::deque<Bytes> queue;
    std::map<std::string, ChipRule> rules;  // by text
    uint32_t rules_made = 0;
    std::map<uint32_t, std::optional<std::pair<uint32_t, uint32_t>>> ports;  // slot and port, instead of / 64 + 1, % 64

    // Everything as at power-up, and the clock is the fake one, which stands still unless told. Blocks that still live
    // are forgotten.
    void reset() {
        *this = {};
        clock_owned = true;
    }
    // Back to the system's clock, for the test runner's own times.
    static void release_clock() { clock_owned = false; }

    void advance(int64_t seconds) { advance_ns(seconds * ns_per_second); }
    void advance_ns(int64_t nanoseconds) {
        monotonic_ns += nanoseconds;
        realtime_ns += nanoseconds;
    }

    void fail(Call kind, uint32_t nth, bool from_then_on = false) {
        plans[static_cast<size_t>(kind)] = {nth, from_then_on};
    }
    void fail_none() { plans = {}; }
    size_t live_blocks() const { return live.size(); }
    size_t queued() const { return queue.size(); }
    uint32_t calls(Call kind) const { return made[static_cast<size_t>(kind)]; }
    // Counts a call; true when it is to fail.
    bool enter(Call kind);

    std::vector<ChipRule> chip() const;  // by entry id
    void set_packets(uint32_t stat_id, uint64_t packets);
};

// The card of this process.
FakePlatform &fake();

// The texts of the rules in the chip, by entry id.
std::vector<std::string> chip_texts();
