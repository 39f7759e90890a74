// model.h: what must hold of counting and of hardware rules, stated a second time and naively.
//
// The model is told what the module and the card are told, in the same order, and predicts what the module answers and
// holds, and which rules are in the chip. It shares no code with the module: thresholds are computed when asked for,
// indexes are maps, a rule is a key of numbers. Driven by run.cpp; compare.cpp holds the module against it.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "fake_platform.h"
#include "frames.h"

constexpr uint32_t SOURCES = 4;  // of each flow, numbered from 1; 0 is the flow itself

struct PacketClass {
    uint16_t id;
    uint32_t limit;     // default of the fast period, packets per second, of flows and of sources
    uint32_t src_type;  // ATC_SRC_*
    bool names_source;  // in a source's rule; otherwise that is the flow's, and the chip takes it once only
    uint16_t rule;      // classes with the same number have the same rules
    Frame (*frame)();   // without a source of its own
};

inline const PacketClass CLASSES[] = {
    {1, 12, ATC_SRC_MAC, true, 1, [] { return bpdu(0); }},
    {2, 12, ATC_SRC_MAC, true, 1, [] { return bpdu(2); }},
    {6, 100, ATC_SRC_MAC, true, 6, arp},
    {14, 100, ATC_SRC_IPV4, true, 14, [] { return ipv4(50); }},
    {52, 12, ATC_SRC_IPV4, true, 52, [] { return tcp(40000, 80, SYN); }},
    {57, 10, ATC_SRC_NONE, false, 57, [] { return arp().from(OWN_MAC); }},
    {58, 100, ATC_SRC_MAC, false, 58, [] { return eth(0x1234); }},
};

// What can own a rule: a flow, or a source of one.
struct Owner {
    uint32_t count = 0;
    uint32_t fast_start = 0;  // the counter when the running period began
    uint32_t slow_start = 0;
    bool alarm = false;
};

struct Flow : Owner {
    uint32_t port;
    uint32_t vlan;
    const PacketClass *cls;
    std::map<uint32_t, Owner> sources;
};

struct Record {
    Flow *flow;
    uint32_t source;  // 0: the flow owns it
    uint32_t sdk_id = 0;
    uint32_t stat_id = 0;
    uint64_t last_packets = 0;
};

struct InChip {
    uint32_t entry_id;
    uint32_t stat_id;
    uint64_t packets;
};

struct TrunkChange {
    bool joins;
    uint32_t trunk;
    uint32_t member;
};

struct Model {
    using FlowKey = std::tuple<uint32_t, uint32_t, uint16_t>;                         // port, VLAN, protocol
    using RuleKey = std::tuple<uint16_t, uint32_t, uint32_t, std::vector<uint32_t>>;  // rule, VLAN, source, ports
    using Members = std::array<uint32_t, 8>;
    using Index = std::map<uint32_t, uint32_t>;
    struct Plan {
        uint32_t in = 0;  // calls until the one that fails; 0 = no plan
        bool from_then_on = false;
    };
    struct Timer {
        void (Model::*pass)();  // of a period, or ...
        Record *record;
    };
    struct Limits {
        std::array<uint32_t, 2> pps;  // of flows, of sources
        std::array<uint32_t, 2> hw_deny{1, 0};
    };

    Model();

    int receive(uint32_t port, uint32_t vlan, const PacketClass &cls, uint32_t source);
    uint32_t threshold(const Flow &flow, bool is_source) const;
    void arm(void (Model::*pass)(), uint32_t seconds);
    void fast_pass();
    void long_pass();
    void day_pass();
    void turn();  // of the monitor task
    void clear_all();
    void post(const TrunkChange &change);
    InChip *by_stat(uint32_t stat_id);

    // Withdraws the records for which ends(record) holds.
    template <typename ends_t>
    void withdraw_if(ends_t ends) {
        for (auto next = records.begin(); next != records.end();) {
            if (Record &record = *next++; ends(record)) {
                remove(record);
                forget(record);
            }
        }
    }

    // The card.
    std::map<Call, Plan> plans;
    bool memory = true;
    std::deque<TrunkChange> queue;
    std::map<RuleKey, InChip> chip;
    uint32_t rules_made = 0;

    // Settings.
    uint32_t fast_period = 300;
    uint32_t long_period = 3600;
    std::map<uint16_t, Limits> limits;

    int64_t now = 1000;  // seconds
    uint32_t rx = 0;
    std::array<Index, 3> indexes;  // ports, VLANs, protocols
    std::map<FlowKey, Flow> flows;
    std::list<Record> records;             // newest first
    std::multimap<int64_t, Timer> timers;  // by second; equal ones in the order of arming
    std::map<uint32_t, Members> trunks;
    std::map<std::string, uint64_t> seen;  // what happened so far, to be told at the end

private:
    bool fails(Call kind);
    std::optional<RuleKey> key(const Record &record) const;
    bool install(Record &record);
    void remove(Record &record);
    bool count(Index &index, uint32_t key);
    void deny(Flow &flow, uint32_t source);
    void forget(const Record &record);
    void discard(const Flow &flow, uint32_t source);
    void discard_rules(const Flow &flow);
    template <typename gone_t>
    void discard_sources(Flow &flow, gone_t gone);
    void expire(Record &record);
    void handle(const TrunkChange &change);
    void move_rules(uint32_t trunk, const Members &members);
};

// What differs between the module and the model, a line each; empty when nothing does. 'everything': every flow and
// source and the module's own consistency too, otherwise the rules, records, timers and totals.
std::string differences(const Model &model, bool everything);
