// actions.h: what an operator may do at any moment, as random actions for the threads of the hammer test.
//
// An Operator is one management thread: its own random numbers, and the rules that it has added and not yet deleted.
// Operators share nothing but the library, and touch rules of their own ids only. Uses anti_cpu.h and the card.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

// Ports, VLANs and protocols of the traffic; actions choose among these and a few besides. The last two ports are
// trunks.
inline constexpr uint32_t kPorts = 6;        // 1..6
inline constexpr uint32_t kFirstTrunk = 5;   // 5 and 6
inline constexpr uint32_t kTrunkMember = 9;  // never leaves
inline constexpr uint32_t kVlans = 4;        // 1..4
inline constexpr uint32_t kLongPeriod = 3600;

class Operator {
public:
    Operator(uint32_t number, uint32_t seed) : number_(number), random_(seed) {}

    void act();                   // one random action of any kind
    void act_without_clearing();  // one that leaves every count as it is
    void ask();                   // the five queries that take a second, in turn
    void leave();                 // takes back every rule and filter of its own

private:
    void report();
    void list_sources();
    void clear();
    void set();
    void add_or_delete_rule();
    void add_or_delete_hw_filter();
    void trace();
    void dump();
    void capture();
    void upload();
    void change_trunk();

    // 1..n
    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(1, n)(random_); }
    bool one_in(uint32_t n) { return pick(n) == 1; }

    const uint32_t number_;
    std::mt19937 random_;
    std::vector<uint32_t> chosen_ids_;  // rules under ids of the module's choosing
    std::vector<uint32_t> own_ids_;     // rules under ids of our own, list 1
    std::vector<uint32_t> hw_filters_;
    uint32_t next_id_ = 0;
    uint32_t asked_ = 0;
};

// Packets received since the last clear, by the query of all of them: takes a second.
uint32_t received_in_all();
