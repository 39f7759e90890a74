// model.h: what must hold of counting and of hardware rules, stated a second time and naively.
//
// The model is told what the module is told, in the same order, and predicts what the module then holds, answers, and
// asks of its card. It shares no code with the module: thresholds are computed when asked for, an owner is denied while
// it points to a record, indexes are maps. Used by hw_deny_model.cpp, compared with the module by differences.cpp.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "card_model.h"
#include "packet_classes.h"

// Closed periods, oldest first; a first one without packets is written over.
struct History {
    std::array<uint32_t, 12> packets{};
    uint32_t count = 1;
    uint32_t start = 0;  // the counter when the running period began
    uint32_t peak = 0;

    // Returns the packets of the period that ends.
    uint32_t close(uint32_t counter) {
        const uint32_t n = counter - start;
        if (count == packets.size()) {
            std::shift_left(packets.begin(), packets.end(), 1);
        } else if (count > 1 || packets[0] != 0) {
            count++;
        }
        packets[count - 1] = n;
        start = counter;
        peak = std::max(peak, n);
        return n;
    }
};

struct Counter {
    uint32_t count = 0;
    History fast;
    History slow;
};

struct Record;

// What can own a rule: a flow, or a source of one.
struct Owner : Counter {
    bool fp_alarm = false;
    bool lp_alarm = false;
    bool sw_deny = false;
    bool cap_on = false;
    uint32_t cap_len = 0;  // bytes in the buffer; 0 = it has none
    Record *record = nullptr;
};

struct Flow : Owner {
    uint32_t port = 0;
    uint32_t vlan = 0;
    const PacketClass *cls = nullptr;
    std::map<uint32_t, Owner> sources;
};

using FlowKey = std::tuple<uint32_t, uint32_t, uint16_t>;  // port, VLAN, protocol

enum class TimerKind {
    fast,
    slow,
    day,
    record,
};

struct Timer {
    TimerKind kind;
    Record *record;
};

using Timers = std::multimap<int64_t, Timer>;  // by second; equal ones in the order of arming

struct Record {
    Rule rule;
    Flow *flow;
    std::optional<uint32_t> source;
    uint64_t last_packets = 0;
    Timers::iterator timer{};
};

struct Filter {
    uint32_t id;
    Rule rule;
};

struct Limits {
    uint32_t fp, lp, src_fp, src_lp;
    uint32_t deny = 0, src_deny = 0, hw_deny = 0, src_hw_deny = 0, cap = 0, src_cap = 0;
};

// What a run has come across.
struct Seen {
    uint64_t installed = 0, at_limit = 0, expired = 0, kept = 0, given_up = 0, aged = 0, alarms = 0;
};

struct Model : CardModel {
    using Records = std::list<Record>;
    using Index = std::map<uint32_t, Counter>;

    // Settings.
    uint32_t enabled = 1;
    uint32_t fast_period = 300;
    uint32_t long_period = 3600;
    uint32_t upload_enable = 0;
    std::map<uint16_t, Limits> limits;

    int64_t now = 1000;  // seconds
    Counter rx, tx;
    Index ports, vlans, rx_protocols, tx_protocols;
    std::map<FlowKey, Flow> flows;
    Records records;            // newest first
    std::list<Filter> filters;  // newest first
    Timers timers;
    uint32_t captures = 0;
    Seen *seen;

    explicit Model(Seen *counted) : seen(counted) {
        for (const PacketClass &cls : CLASSES) {
            limits[cls.id] = {cls.fp_limit, cls.lp_limit, cls.fp_limit, cls.lp_limit};
        }
        arm(TimerKind::fast, fast_period);
        arm(TimerKind::slow, long_period);
        arm(TimerKind::day, 86400);
    }

    static uint32_t packets(uint32_t seconds, uint32_t limit) {
        return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{seconds} * limit, UINT32_MAX));
    }

    uint32_t fp_threshold(const Flow &flow, bool source) const {
        const Limits &limit = limits.at(flow.cls->id);
        return packets(fast_period, source ? limit.src_fp : limit.fp);
    }

    uint32_t lp_threshold(const Flow &flow, bool source) const {
        const Limits &limit = limits.at(flow.cls->id);
        return packets(long_period, source ? limit.src_lp : limit.lp);
    }

    // ---- packets.cpp
    int receive(uint32_t port, uint32_t vlan, const PacketClass &cls, uint32_t source, uint32_t len);
    int send(const PacketClass &cls);
    bool count(Index &index, uint32_t key);
    int count_source(Flow &flow, uint32_t source, uint32_t len, int verdict);
    void capture(Owner &owner, uint32_t len);
    void release_capture(Owner &owner);
    void end(const PacketClass &cls, uint32_t enable);
    void clear(Owner &owner);
    std::map<uint32_t, Owner>::iterator discard(Flow &flow, std::map<uint32_t, Owner>::iterator source);
    std::map<FlowKey, Flow>::iterator discard(std::map<FlowKey, Flow>::iterator flow);
    void clear_all();
    void fast_pass();
    void long_pass();
    void day_pass();
    void judge_fast(Flow &flow, Owner &owner, bool is_source);
    void judge_long(Flow &flow, Owner &owner, bool is_source, uint32_t n);

    // ---- rules.cpp
    void deny(Flow &flow, std::optional<uint32_t> source, uint32_t packet_source);
    void expire(Record &record);
    Records::iterator withdraw(Records::iterator record);
    Records::iterator forget(Records::iterator record);
    void withdraw(const Owner &owner);
    Owner &owner_of(const Record &record) const;
    void arm(Record &record);
    int add_filter(Filter filter, bool valid, uint32_t *sdk_id);
    int delete_filter(uint32_t id);
    void handle(const Message &message);
    template <typename change_t>
    void move_rules(uint32_t trunk, change_t change);
    void turn();  // of the monitor task
    void arm(TimerKind kind, uint32_t seconds);

    // Withdraws the records for which ends(record) holds.
    template <typename ends_t>
    void withdraw_if(ends_t ends) {
        for (auto record = records.begin(); record != records.end();) {
            record = ends(*record) ? withdraw(record) : std::next(record);
        }
    }

    // Calls visit(index) for the indexes that only count.
    template <typename visit_t>
    void each_index(visit_t visit) {
        for (Index *index : {&ports, &vlans, &rx_protocols, &tx_protocols}) {
            visit(*index);
        }
    }
};

// What differs between the module and the model, a line each; empty when nothing does. The quick form looks at totals
// and calls, and at rules and timers where they may have changed; the full one at everything.
std::string differences_quick(Model &model, bool rules);
std::string differences_full(Model &model);

// The same for one flow and its sources.
std::string differences_flow(const Model &model, uint32_t port, uint32_t vlan, uint16_t protocol);
