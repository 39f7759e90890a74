// SPDX-License-Identifier: Apache-2.0
// operator.h: what an operator may ask of the module at any moment, chosen by numbers from wherever the caller has
// them.
//
// An Operator remembers the rules that it has added and not yet deleted; several share nothing but the module, each
// under ids of its own. Uses anti_cpu.h only, so that it runs on any card.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "anti_cpu/anti_cpu.h"

class Operator {
public:
    // Its flows are on ports and in VLANs from 1 to these, and in no VLAN beyond. The last two ports are trunks.
    static constexpr uint32_t kPorts = 6;
    static constexpr uint32_t kVlans = 4;

    static constexpr uint32_t (*setters[])(uint32_t id, uint32_t value) = {
        atc_api_set_protocol_fp_limit,           atc_api_set_protocol_lp_limit,    atc_api_set_protocol_src_fp_limit,
        atc_api_set_protocol_src_lp_limit,       atc_api_set_protocol_deny_enable, atc_api_set_protocol_src_deny_enable,
        atc_api_set_protocol_hw_deny_enable,     atc_api_set_protocol_cap_enable,  atc_api_set_protocol_src_cap_enable,
        atc_api_set_protocol_src_hw_deny_enable,
    };

    // pick(n) gives a number of 1 to n.
    Operator(uint32_t number, std::function<uint32_t(uint32_t n)> numbers)
        : pick(std::move(numbers)), next_id_((number + 1) << 16) {}

    void act();        // one action that leaves every count as it is
    void clear();      // one that does not
    void take_back();  // every rule and filter of its own

private:
    void set_up_rule(atc_filter_rule_t rule);
    void remove_last();
    atc_filter_rule_t pick_rule();
    template <typename call_t, size_t n>
    call_t one_of(call_t (&calls)[n]) {
        return calls[pick(n) - 1];
    }

    const std::function<uint32_t(uint32_t n)> pick;
    uint32_t next_id_;
    std::vector<std::pair<uint32_t, uint32_t>> rules_;  // kind, id
};

// Packets received since the last clear, by the query of all of them: takes a second.
uint32_t received_in_all();
