#include "actions.h"

#include <array>
#include <cstddef>
#include <utility>

#include "anti_cpu/anti_cpu.h"
#include "services/services.h"

namespace {

constexpr uint32_t kIdsOfAnOperator = 1'000'000;
constexpr size_t kRulesHeld = 40;
constexpr uint32_t kLocalhost = 0x7f000001;
constexpr const char *kDeadServer = "127.0.0.1:1";  // nobody listens there

// Calls a query with its outputs: 'head' words, a time text, 'middle' words, a time text, 'tail' words.
template <size_t head, size_t middle, size_t tail = 0, typename Query, typename... Key>
int query(std::array<uint32_t, head + middle + tail> *words, Query call, Key... key) {
    char fp_time[ATC_NAME_SIZE] = {};
    char lp_time[ATC_NAME_SIZE] = {};
    return [&]<size_t... H, size_t... M, size_t... T>(std::index_sequence<H...>, std::index_sequence<M...>,
                                                      std::index_sequence<T...>) {
        return call(key..., &(*words)[H]..., fp_time, &(*words)[head + M]..., lp_time, &(*words)[head + middle + T]...);
    }
    (std::make_index_sequence<head>(), std::make_index_sequence<middle>(), std::make_index_sequence<tail>());
}

// Removes the element at a random place and returns it.
uint32_t take(std::vector<uint32_t> *from, uint32_t place) {
    std::swap((*from)[place % from->size()], from->back());
    const uint32_t taken = from->back();
    from->pop_back();
    return taken;
}

}  // namespace

void Operator::act() {
    if (one_in(8)) {
        clear();
    } else {
        act_without_clearing();
    }
}

void Operator::act_without_clearing() {
    using Action = void (Operator::*)();
    static constexpr Action actions[] = {
        &Operator::report,
        &Operator::list_sources,
        &Operator::set,
        &Operator::set,
        &Operator::add_or_delete_rule,
        &Operator::add_or_delete_hw_filter,
        &Operator::trace,
        &Operator::dump,
        &Operator::capture,
        &Operator::upload,
        &Operator::change_trunk,
    };
    (this->*actions[pick(std::size(actions)) - 1])();
}

void Operator::ask() {
    const uint32_t port = pick(kPorts);
    const uint32_t vlan = pick(kVlans);
    const uint32_t protocol = pick(ATC_PROTOCOL_COUNT);
    std::array<uint32_t, 22> words{};
    std::array<uint32_t, 30> flow_words{};
    switch ((number_ + asked_++) % 5) {
        case 0:
            query<12, 10>(&words, atc_api_get_global_statistic, ATC_DIRECTION_RX);
            break;
        case 1:
            query<12, 10>(&words, atc_api_get_port_statistic, ATC_DIRECTION_RX, port);
            break;
        case 2:
            query<12, 10>(&words, atc_api_get_vlan_statistic, ATC_DIRECTION_RX, vlan);
            break;
        case 3:
            query<12, 10>(&words, atc_api_get_protocol_statistic, ATC_DIRECTION_TX, protocol);
            break;
        default:
            query<14, 12, 4>(&flow_words, atc_api_get_statistic, ATC_DIRECTION_RX, vlan, port, protocol, ATC_SRC_NONE,
                             nullptr);
            break;
    }
}

void Operator::leave() {
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
    using Report = int (*)(char **text);
    static constexpr Report reports[] = {
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
}

void Operator::list_sources() {
    std::vector<uint32_t> types(ATC_SOURCES_PER_FLOW);
    std::vector<atc_src_stat_t> sources(ATC_SOURCES_PER_FLOW);
    uint32_t count = 0;
    atc_api_get_src_statistic(ATC_DIRECTION_RX, pick(kVlans), pick(kPorts), pick(ATC_PROTOCOL_COUNT), types.data(),
                              &count, sources.data());
}

void Operator::clear() {
    const uint32_t port = pick(kPorts);
    const uint32_t vlan = pick(kVlans);
    const uint32_t protocol = pick(ATC_PROTOCOL_COUNT);
    switch (pick(20)) {
        case 1:
            atc_api_clear_statistic_all();
            break;
        case 2:
            atc_api_clear_hw_deny_info(0);
            break;
        case 3:
            atc_api_set_auto_cap_clear();
            break;
        case 4:
            atc_api_clear_statistic_global(pick(2));
            break;
        case 5:
            atc_api_clear_statistic_port(ATC_DIRECTION_RX, port);
            break;
        case 6:
            atc_api_clear_statistic_vlan(ATC_DIRECTION_RX, vlan);
            break;
        case 7:
            atc_api_clear_statistic_protocol(pick(2), protocol);
            break;
        case 8:
            atc_api_set_global_enable(0);
            atc_api_set_global_enable(1);
            break;
        default:
            atc_api_clear_statistic(ATC_DIRECTION_RX, vlan, port, protocol, ATC_SRC_NONE, nullptr);
            break;
    }
}

void Operator::set() {
    using Setter = uint32_t (*)(uint32_t id, uint32_t value);
    static constexpr Setter limits[] = {
        atc_api_set_protocol_fp_limit,
        atc_api_set_protocol_lp_limit,
        atc_api_set_protocol_src_fp_limit,
        atc_api_set_protocol_src_lp_limit,
    };
    static constexpr Setter enables[] = {
        atc_api_set_protocol_deny_enable,    atc_api_set_protocol_src_deny_enable,
        atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable,
        atc_api_set_protocol_cap_enable,     atc_api_set_protocol_src_cap_enable,
    };
    const uint32_t id = pick(ATC_PROTOCOL_COUNT);
    limits[pick(std::size(limits)) - 1](id, pick(20));
    enables[pick(std::size(enables)) - 1](id, one_in(4) ? 0 : 1);
    atc_api_set_icmpattack_size(pick(9000));
    if (one_in(50)) {
        atc_api_set_long_period_time(kLongPeriod);
    }
}

// Half of the calls delete; an operator holds at most kRulesHeld rules of a kind.
void Operator::add_or_delete_rule() {
    atc_filter_rule_t rule = {};
    rule.protocol = static_cast<uint16_t>(pick(ATC_PROTOCOL_COUNT));
    rule.port = pick(kPorts);
    rule.src_ipv4 = 0x0a000000;
    rule.src_ipv4_masklen = static_cast<uint8_t>(pick(32));
    rule.action = pick(2);
    const bool chosen = one_in(2);
    std::vector<uint32_t> &held = chosen ? chosen_ids_ : own_ids_;
    if (!held.empty() && (one_in(2) || held.size() == kRulesHeld)) {
        const uint32_t id = take(&held, pick(1000));
        chosen ? atc_api_filter_rule_del(id) : atc_api_cfg_filter_rule_del(id, 1);
        return;
    }
    rule.id = chosen ? 0 : (number_ + 1) * kIdsOfAnOperator + next_id_++;
    if ((chosen ? atc_api_filter_rule_add(&rule) : atc_api_cfg_filter_rule_add(&rule, 1)) == 0) {
        held.push_back(rule.id);
    }
}

void Operator::add_or_delete_hw_filter() {
    if (!hw_filters_.empty() && (one_in(2) || hw_filters_.size() == kRulesHeld)) {
        atc_api_cfg_hw_filter_rule_del(take(&hw_filters_, pick(1000)));
        return;
    }
    atc_filter_rule_t filter = {};
    filter.id = (number_ + 1) * kIdsOfAnOperator + next_id_++;
    filter.port = pick(kPorts);
    filter.vlan = 1000;  // no traffic there
    filter.eth_type = static_cast<uint16_t>(0x9000 + number_ * 256 + next_id_ % 256);
    filter.action = pick(3);
    if (atc_api_cfg_hw_filter_rule_add(&filter) == 0) {
        hw_filters_.push_back(filter.id);
    }
}

void Operator::trace() {
    atc_filter_rule_t filter = {};
    filter.protocol = static_cast<uint16_t>(pick(ATC_PROTOCOL_COUNT));
    one_in(4) ? atc_api_set_debug_stop() : atc_api_set_debug_start(&filter, pick(20));
}

void Operator::dump() {
    switch (pick(5)) {
        case 1:
            atc_filter_show();
            break;
        case 2:
            atc_limit_show();
            break;
        case 3:
            atc_config_show();
            break;
        case 4:
            atc_trunk_show();
            break;
        default:
            atc_log_port_show(kPorts);
            break;
    }
}

void Operator::capture() {
    atc_filter_rule_t filter = {};
    void *data = nullptr;
    uint32_t len = 0;
    switch (pick(5)) {
        case 1:
            filter.vlan = static_cast<uint16_t>(pick(kVlans));
            atc_api_set_cap_start(&filter, pick(500));
            break;
        case 2:
            atc_api_set_cap_disable();
            break;
        case 3:
            if (atc_api_get_cap_is_exist() == 1) {
                atc_api_set_cap_clear();
            }
            break;
        case 4:
            atc_api_get_port_capture(0, 0, 0, 0, ATC_SRC_NONE, nullptr, &data, &len);
            break;
        default:
            atc_api_get_port_capture(ATC_DIRECTION_RX, pick(kVlans), pick(kPorts), pick(ATC_PROTOCOL_COUNT),
                                     ATC_SRC_NONE, nullptr, &data, &len);
            break;
    }
    atc_api_free_buffer(data);
}

void Operator::upload() {
    atc_api_set_upload_server_ip(kLocalhost);
    atc_api_set_upload_server_user(one_in(2) ? "anna" : "a-name-longer-than-what-the-settings-keep");
    atc_api_set_upload_server_passwd("secret");
    atc_api_set_upload_ftp_type(0);
    atc_api_set_upload_server_enable(one_in(8) ? 0 : 1);
    if (one_in(8)) {
        atc_api_capture_upload(0, 0, 0, 0, ATC_SRC_NONE, nullptr, kDeadServer, "anna", "secret", 0);
    }
}

void Operator::change_trunk() {
    card::trunk_change(kFirstTrunk + pick(2) - 1, 10 + pick(10), one_in(2));
}

uint32_t received_in_all() {
    std::array<uint32_t, 22> words{};
    query<12, 10>(&words, atc_api_get_global_statistic, ATC_DIRECTION_RX);
    return words[0];
}
