// SPDX-License-Identifier: Apache-2.0
// commands_filter.cpp: "filter" and "hw-filter": the operator's own rules, in software and in the switching chip.
#include <algorithm>

#include "anti_cpu/anti_cpu.h"
#include "console/command_rows.h"

namespace host::console {

namespace {

// With an id of the operator's own the rule goes under it, otherwise the module chooses one.
Status filter_add(Session &session, const Arguments &arguments) {
    atc_filter_rule_t rule = arguments.rule();
    rule.action = arguments.has("permit") ? ATC_ACTION_PERMIT : ATC_ACTION_DENY;
    if (arguments.given("id")) {
        rule.id = arguments.number("id");
        const int result = atc_api_cfg_filter_rule_add(&rule, arguments.number_or("list", 0));
        session.run.filters_changed();
        return done_if_zero(static_cast<uint32_t>(result), "the list has a rule of this id, or there is no memory");
    }
    if (atc_api_filter_rule_add(&rule) != 0) {
        return failed("the id that the module chose is in use, all are taken, or there is no memory");
    }
    session.run.filters_changed();
    if (!session.json) {
        std::printf("filter %u\n", rule.id);
    }
    return Status::kDone;
}

// Without a list the id may be one that the module chose; it then becomes free again.
Status filter_delete(Session &session, const Arguments &arguments) {
    const uint32_t id = arguments.number("id");
    const bool may_be_chosen = !arguments.given("list") && id <= ATC_RULE_ID_MAX;
    const int result =
        may_be_chosen ? atc_api_filter_rule_del(id) : atc_api_cfg_filter_rule_del(id, arguments.number_or("list", 0));
    session.run.filters_changed();
    return done_if_zero(static_cast<uint32_t>(result), "there is no filter of this id");
}

template <typename Length, size_t size>
void match_whole(const uint8_t (&address)[size], Length &length) {
    constexpr size_t bits_per_byte = 8;
    const bool is_set = std::ranges::any_of(address, [](uint8_t byte) { return byte != 0; });
    length = is_set && length == 0 ? static_cast<Length>(size * bits_per_byte) : length;
}

// For software filters an address without a prefix length is that address; the switching chip takes it for any address,
// which would deny a whole port.
void match_whole_addresses(atc_filter_rule_t &rule) {
    constexpr uint8_t ipv4_bits = 32;
    match_whole(rule.src_mac, rule.src_mac_masklen);
    match_whole(rule.dst_mac, rule.dst_mac_masklen);
    rule.src_ipv4_masklen = rule.src_ipv4 != 0 && rule.src_ipv4_masklen == 0 ? ipv4_bits : rule.src_ipv4_masklen;
    rule.dst_ipv4_masklen = rule.dst_ipv4 != 0 && rule.dst_ipv4_masklen == 0 ? ipv4_bits : rule.dst_ipv4_masklen;
    match_whole(rule.src_ipv6, rule.src_ipv6_masklen);
    match_whole(rule.dst_ipv6, rule.dst_ipv6_masklen);
}

Status hw_filter_add(Session &session, const Arguments &arguments) {
    atc_filter_rule_t rule = arguments.rule();
    if (rule.port == 0) {
        return failed("a filter of the switching chip stands at a port: give one");
    }
    match_whole_addresses(rule);
    rule.id = arguments.number("id");
    rule.action = arguments.has("deny")       ? ATC_HW_ACTION_DENY
                  : arguments.has("action-2") ? ATC_HW_ACTION_2
                                              : ATC_HW_ACTION_3;
    if (atc_api_cfg_hw_filter_rule_add(&rule) != 0) {
        return failed("the id is in use, the port has no usable members, or the switching chip refuses the rule");
    }
    if (!session.json) {
        std::printf("hw-filter %u, entry %u of the chip\n", rule.id, rule.sdk_id);
    }
    return Status::kDone;
}

Status hw_filter_delete(Session &, const Arguments &arguments) {
    const int result = atc_api_cfg_hw_filter_rule_del(arguments.number("id"));
    return done_if_zero(static_cast<uint32_t>(result), "there is no such filter, or the switching chip keeps it");
}

}  // namespace

std::vector<Command> filter_rows() {
    return {
        {"filter (permit | deny) [id <id> [list <list>]] {match}",
         "Let packets pass whatever the limits say, or drop them; without an id the module chooses one", filter_add},
        {"filter delete <id> [list <list>]", "Delete a software filter", filter_delete},
        {"hw-filter (deny | action-2 | action-3) <id> {hw-match}",
         "Put a filter into the switching chip; actions 2 and 3 only count in this card's chip", hw_filter_add},
        {"hw-filter delete <id>", "Take a filter out of the switching chip", hw_filter_delete},
    };
}

}  // namespace host::console
