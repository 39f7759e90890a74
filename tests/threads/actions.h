// actions.h: what an operator may do at any moment, as random actions for the threads of the hammer test.
//
// An Operator is one management thread: its own random numbers, and the rules that it has added and not yet deleted.
// Operators share nothing but the library, and touch rules of their own ids only. Uses anti_cpu.h and the card.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

// Ports, VLANs and protocols of the traffic; the last two ports are trunks.
inline constexpr uint32_t kPorts = 6;       // 1..6
inline constexpr uint32_t kFirstTrunk = 5;  // 5 and 6
inline constexpr uint32_t kVlans = 4;       // 1..4

class Operator {
public:
    Operator(uint32_t number, uint32_t seed) : next_id_((number + 1) * 1'000'000), random_(seed + number) {}

    void act();        // one random action that leaves every count as it is
    void clear();      // one random action that does not
    void query();      // one of those that take a second
    void take_back();  // every rule and filter of its own

private:
    void report();
    void set();
    void add_or_delete_rule();
    void add_or_delete_hw_filter();
    void trace_or_dump();
    void capture();
    void upload();

    // 1..n
    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(1, n)(random_); }
    uint32_t pick_protocol();
    uint32_t take_one(std::vector<uint32_t> *ids);

    uint32_t next_id_;
    std::mt19937 random_;
    std::vector<uint32_t> chosen_ids_;  // rules under ids of the module's choosing
    std::vector<uint32_t> own_ids_;     // rules under ids of our own, list 1
    std::vector<uint32_t> hw_filters_;
};

// Packets received since the last clear, by the query of all of them: takes a second.
uint32_t received_in_all();
