#include "actions.h"

#include <array>
#include <iterator>
#include <utility>

#include "anti_cpu/anti_cpu.h"
#include "services/services.h"

namespace {

constexpr size_t kRulesHeld = 40;
constexpr const char *kDeadServer = "127.0.0.1:1";  // nobody listens there

// Calls a query of 12 words, a time text, 10 words, a time text; the first word.
template <typename Query, typename... Key>
uint32_t ask(Query call, Key... key) {
    std::array<uint32_t, 22> words{};
    char fp_time[ATC_NAME_SIZE] = {};
    char lp_time[ATC_NAME_SIZE] = {};
    [&]<size_t... H, size_t... M>(std::index_sequence<H...>, std::index_sequence<M...>) {
        call(key..., &words[H]..., fp_time, &words[12 + M]..., lp_time);
    }
    (std::make_index_sequence<12>(), std::make_index_sequence<10>());
    return words[0];
}

}  // namespace

void Operator::act() {
    using Action = void (Operator::*)();
    static constexpr Action actions[] = {
        &Operator::report,  &Operator::set,    &Operator::add_or_delete_rule, &Operator::add_or_delete_hw_filter,
        &Operator::capture, &Operator::upload, &Operator::trace_or_dump,
    };
    (this->*actions[pick(std::size(actions)) - 1])();
    card::trunk_change(kFirstTrunk + pick(2) - 1, 10 + pick(10), pick(2) == 1);
}

void Operator::clear() {
    const uint32_t port = pick(kPorts), vlan = pick(kVlans), protocol = pick_protocol(), what = pick(7);
    if (what == 1) {
        atc_api_clear_statistic_all();
        atc_api_set_auto_cap_clear();
    } else if (what == 2) {
        atc_api_clear_hw_deny_info(0);
    } else if (what == 3) {
        atc_api_clear_statistic_port(ATC_DIRECTION_RX, port);
        atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, vlan);
        atc_api_clear_statistic_protocol(ATC_DIRECTION_TX, protocol);
    } else if (what == 4) {
        atc_api_set_global_enable(0);
        atc_api_set_global_enable(1);
    } else {
        atc_api_clear_statistic(ATC_DIRECTION_RX, vlan, port, protocol, ATC_SRC_NONE, nullptr);
    }
}

void Operator::query() {
    if (pick(2) == 1) {
        ask(atc_api_get_port_statistic, ATC_DIRECTION_RX, pick(kPorts));
    } else {
        ask(atc_api_get_protocol_statistic, ATC_DIRECTION_TX, pick_protocol());
    }
}

void Operator::take_back() {
    for (const uint32_t id : chosen_ids_) {
        atc_api_filter_rule_del(id);
    }
    for (const uint32_t id : own_ids_) {
        atc_api_cfg_filter_rule_del(id, 1);
    }
    for (const uint32_t id : hw_filters_) {
        atc_api_cfg_hw_filter_rule_del(id);
    }
}

void Operator::report() {
    static constexpr int (*reports[])(char **text) = {
        atc_api_get_rx_protocol_stat_brief,
        atc_api_get_tx_protocol_stat_brief,
        atc_api_get_rx_port_stat_brief,
        atc_api_get_rx_vlan_stat_brief,
        atc_api_get_stat_brief,
        atc_api_get_alarm_info,
        atc_api_get_hw_deny_info,
    };
    char *text = nullptr;
    reports[pick(std::size(reports)) - 1](&text);
    atc_api_free_buffer(text);
    std::vector<uint32_t> types(ATC_SOURCES_PER_FLOW);
    std::vector<atc_src_stat_t> sources(ATC_SOURCES_PER_FLOW);
    uint32_t count = 0;
    atc_api_get_src_statistic(ATC_DIRECTION_RX, pick(kVlans), pick(kPorts), pick_protocol(), types.data(), &count,
                              sources.data());
}

void Operator::set() {
    static constexpr uint32_t (*limits[])(uint32_t id, uint32_t value) = {
        atc_api_set_protocol_fp_limit,
        atc_api_set_protocol_lp_limit,
        atc_api_set_protocol_src_fp_limit,
        atc_api_set_protocol_src_lp_limit,
    };
    static constexpr uint32_t (*enables[])(uint32_t id, uint32_t value) = {
        atc_api_set_protocol_deny_enable,    atc_api_set_protocol_src_deny_enable,
        atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable,
        atc_api_set_protocol_cap_enable,     atc_api_set_protocol_src_cap_enable,
    };
    limits[pick(std::size(limits)) - 1](pick_protocol(), pick(20));
    enables[pick(std::size(enables)) - 1](pick_protocol(), pick(4) == 1 ? 0 : 1);
}

// Half of the calls delete; an operator holds at most kRulesHeld rules of a kind.
void Operator::add_or_delete_rule() {
    const bool chosen = pick(2) == 1;
    std::vector<uint32_t> &held = chosen ? chosen_ids_ : own_ids_;
    if (const uint32_t id = take_one(&held); id != 0) {
        chosen ? atc_api_filter_rule_del(id) : atc_api_cfg_filter_rule_del(id, 1);
        return;
    }
    atc_filter_rule_t rule = {};
    rule.id = chosen ? 0 : next_id_++;
    rule.protocol = static_cast<uint16_t>(pick_protocol());
    rule.port = pick(kPorts);
    rule.action = pick(2);
    if ((chosen ? atc_api_filter_rule_add(&rule) : atc_api_cfg_filter_rule_add(&rule, 1)) == 0) {
        held.push_back(rule.id);
    }
}

void Operator::add_or_delete_hw_filter() {
    if (const uint32_t id = take_one(&hw_filters_); id != 0) {
        atc_api_cfg_hw_filter_rule_del(id);
        return;
    }
    atc_filter_rule_t filter = {};
    filter.id = next_id_++;
    filter.port = pick(kPorts);
    filter.vlan = 1000;  // no traffic there
    filter.eth_type = static_cast<uint16_t>(filter.id);
    filter.action = pick(3);
    if (atc_api_cfg_hw_filter_rule_add(&filter) == 0) {
        hw_filters_.push_back(filter.id);
    }
}

void Operator::trace_or_dump() {
    static constexpr int (*dumps[])() = {atc_filter_show, atc_limit_show, atc_config_show, atc_trunk_show};
    dumps[pick(std::size(dumps)) - 1]();
    atc_filter_rule_t filter = {};
    filter.protocol = static_cast<uint16_t>(pick_protocol());
    pick(4) == 1 ? atc_api_set_debug_stop() : atc_api_set_debug_start(&filter, pick(20));
}

void Operator::capture() {
    atc_filter_rule_t filter = {};
    filter.vlan = static_cast<uint16_t>(pick(kVlans));
    atc_api_set_cap_start(&filter, pick(500));
    if (pick(2) == 1) {
        atc_api_set_cap_disable();
        atc_api_set_cap_clear();
    }
    void *data = nullptr;
    uint32_t len = 0;
    atc_api_get_port_capture(pick(2) - 1, pick(kVlans), pick(kPorts), pick_protocol(), ATC_SRC_NONE, nullptr, &data,
                             &len);
    atc_api_free_buffer(data);
}

void Operator::upload() {
    atc_api_set_upload_server_ip(0x7f000001);
    atc_api_set_upload_server_user(pick(2) == 1 ? "anna" : "a-name-longer-than-what-the-settings-keep");
    atc_api_set_upload_server_enable(1);
    if (pick(8) == 1) {
        atc_api_capture_upload(0, 0, 0, 0, ATC_SRC_NONE, nullptr, kDeadServer, "anna", "secret", 0);
    }
}

uint32_t Operator::pick_protocol() {
    return pick(ATC_PROTOCOL_COUNT);
}

// An id that is to go, or 0 when one is to come.
uint32_t Operator::take_one(std::vector<uint32_t> *ids) {
    if (ids->empty() || (pick(2) == 1 && ids->size() < kRulesHeld)) {
        return 0;
    }
    std::swap((*ids)[pick(static_cast<uint32_t>(ids->size())) - 1], ids->back());
    const uint32_t taken = ids->back();
    ids->pop_back();
    return taken;
}

uint32_t received_in_all() {
    return ask(atc_api_get_global_statistic, ATC_DIRECTION_RX);
}
