// SPDX-License-Identifier: Apache-2.0
#include "operator.h"

#include <array>
#include <bit>

namespace {

constexpr size_t kRulesHeld = 40;

// Kinds of rules: software rules of list 1 and 0 under ids of the operator's, under the module's; the chip's filters.
enum : uint32_t {
    kList1 = 1,
    kList0,
    kChosen,
    kHardware,
};

constexpr int (*kReports[])(char **text) = {
    atc_api_get_rx_protocol_stat_brief,
    atc_api_get_tx_protocol_stat_brief,
    atc_api_get_rx_port_stat_brief,
    atc_api_get_rx_vlan_stat_brief,
    atc_api_get_stat_brief,
    atc_api_get_alarm_info,
    atc_api_get_hw_deny_info,
};
constexpr int (*kDumps[])() = {atc_filter_show, atc_limit_show, atc_config_show, atc_trunk_show};

}  // namespace

void Operator::act() {
    const uint32_t port = pick(kPorts), vlan = pick(kVlans), protocol = pick(ATC_PROTOCOL_COUNT);
    const atc_filter_rule_t rule = pick_rule();
    void *data = nullptr;
    uint32_t size = 0;
    switch (pick(7)) {
        case 1:
            one_of(setters)(protocol, pick(4) == 1 ? pick(20) : pick(2) - 1);
            break;
        case 2:
            one_of(kReports)(reinterpret_cast<char **>(&data));
            one_of(kDumps)();
            break;
        case 3: {
            std::vector<uint32_t> types(ATC_SOURCES_PER_FLOW);
            std::vector<atc_src_stat_t> sources(ATC_SOURCES_PER_FLOW);
            atc_api_get_src_statistic(ATC_DIRECTION_RX, vlan, port, protocol, types.data(), &size, sources.data());
            break;
        }
        case 4:
            set_up_rule(rule);
            break;
        case 5:
            pick(4) == 1 ? atc_api_set_debug_stop() : atc_api_set_debug_start(&rule, pick(20));
            break;
        case 6:
            atc_api_get_cap_is_exist();
            atc_api_set_cap_start(&rule, pick(500));
            if (pick(2) == 1) {
                atc_api_set_cap_disable();
                atc_api_set_cap_clear();
            }
            atc_api_get_port_capture(ATC_DIRECTION_RX, vlan, port - 1, protocol - 1, ATC_SRC_NONE, nullptr, &data,
                                     &size);
            break;
        default:
            atc_api_set_upload_server_ip(0x7f000001);
            atc_api_set_upload_server_user(pick(2) == 1 ? "anna" : "a-name-longer-than-what-the-settings-keep");
            atc_api_set_upload_server_enable(1);
            if (pick(8) == 1) {  // of the manual capture; nobody listens there
                atc_api_capture_upload(0, 0, 0, 0, ATC_SRC_NONE, nullptr, "127.0.0.1:1", "anna", "secret", 0);
            }
    }
    atc_api_free_buffer(data);
}

void Operator::clear() {
    const uint32_t port = pick(kPorts), vlan = pick(kVlans), protocol = pick(ATC_PROTOCOL_COUNT);
    switch (pick(8)) {
        case 1:
            atc_api_clear_statistic_all();
            break;
        case 2:
            atc_api_clear_hw_deny_info(0);
            atc_api_set_auto_cap_clear();
            break;
        case 3:
            atc_api_clear_statistic_port(ATC_DIRECTION_RX, port);
            atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, vlan);
            atc_api_clear_statistic_protocol(pick(2), protocol);
            atc_api_clear_statistic_global(pick(2));
            break;
        case 4:
            atc_api_set_global_enable(0);
            atc_api_set_global_enable(1);
            break;
        default:
            atc_api_clear_statistic(ATC_DIRECTION_RX, vlan, port, protocol, ATC_SRC_NONE, nullptr);
    }
}

void Operator::take_back() {
    while (!rules_.empty()) {
        remove_last();
    }
}

// Half of the calls delete.
void Operator::set_up_rule(atc_filter_rule_t rule) {
    if (!rules_.empty() && (pick(2) == 1 || rules_.size() == kRulesHeld)) {
        std::swap(rules_[pick(static_cast<uint32_t>(rules_.size())) - 1], rules_.back());
        remove_last();
        return;
    }
    const uint32_t kind = pick(kHardware);
    rule.id = kind == kChosen ? 0 : next_id_++;
    if (kind == kHardware && pick(8) > 1) {
        rule.vlan = 1000;  // a filter for the traffic stops much of it
    }
    if ((kind == kHardware ? atc_api_cfg_hw_filter_rule_add(&rule)
         : kind == kChosen ? atc_api_filter_rule_add(&rule)
                           : atc_api_cfg_filter_rule_add(&rule, kind)) == 0) {
        rules_.emplace_back(kind, rule.id);
    }
}

void Operator::remove_last() {
    const auto [kind, id] = rules_.back();
    rules_.pop_back();
    kind == kHardware ? atc_api_cfg_hw_filter_rule_del(id)
    : kind == kChosen ? atc_api_filter_rule_del(id)
                      : atc_api_cfg_filter_rule_del(id, kind);
}

// Any two words of the record beside port, class and action.
atc_filter_rule_t Operator::pick_rule() {
    std::array<uint32_t, sizeof(atc_filter_rule_t) / sizeof(uint32_t)> words{};
    for (int i = 0; i < 2; i++) {
        words[pick(words.size()) - 1] = pick(2) == 1 ? pick(8) : pick(UINT32_MAX);
    }
    auto rule = std::bit_cast<atc_filter_rule_t>(words);
    rule.port = pick(kPorts);
    rule.protocol = static_cast<uint16_t>(pick(2) == 1 ? pick(ATC_PROTOCOL_COUNT) : 0);
    rule.action = pick(3);
    return rule;
}

uint32_t received_in_all() {
    uint32_t count = 0, word = 0, *w = &word;
    atc_api_get_global_statistic(ATC_DIRECTION_RX, &count, w, w, w, w, w, w, w, w, w, w, w, nullptr, w, w, w, w, w, w,
                                 w, w, w, w, nullptr);
    return count;
}
