// steps.cpp: the steps of packets, time and the operator.
#include <cstring>

#include "anti_cpu/anti_cpu.h"
#include "atc/monitor.h"
#include "run.h"

constexpr uint32_t VLANS[] = {0, 1, 100, 0, 1, 100, 0, 1, 100, 4089};

// ---- Packets and time ----------------------------------------------------------------------------------------------

void Run::packets() {
    const size_t cls = below(std::size(CLASSES));
    const uint32_t source = below(SOURCES);
    const uint32_t port = one_of(PORTS);
    const uint32_t vlan = one_of(VLANS);
    const uint32_t times = 1 + below(chance(10) ? 60 : 8);
    const Frame &frame = frames_[cls][source][chance(15) ? 1 : 0];
    const PacketClass &packet_class = CLASSES[cls];
    say("%u packets of class %u, source %u, port %u, vlan %u, %u bytes", times, packet_class.id, source, port, vlan,
        frame.size());
    for (uint32_t i = 0; i < times; ++i) {
        expect("verdict", atc_api_receive_packet(frame.data(), frame.size(), port, vlan | (chance(2) ? 0x1000 : 0)),
               model_.receive(port, vlan, packet_class, source, frame.size()));
    }
    answers_ += differences_flow(model_, port, vlan, packet_class.id);
}

void Run::sent() {
    const size_t cls = below(std::size(CLASSES));
    const Frame &frame = frames_[cls][0][0];
    say("a sent packet of class %u", CLASSES[cls].sent_id);
    expect("verdict", atc_api_global_send_packet(frame.data(), frame.size()), model_.send(CLASSES[cls]));
}

// The chip has stopped packets, around what keeps a rule.
void Run::counters() {
    say("counters of the rules");
    for (const Record &record : model_.records) {
        if (InChip *rule = model_.by_stat(record.rule.stat_id); rule != nullptr) {
            const uint64_t threshold = model_.fp_threshold(*record.flow, record.source.has_value());
            const uint64_t values[] = {0, threshold - 1, threshold, threshold, threshold + 1, threshold + (1ULL << 32)};
            const uint64_t more = flood_ ? threshold : one_of(values);
            rule->packets = more == 0 ? 0 : record.last_packets + more;
            fake().set_packets(rule->stat_id, rule->packets);
        }
    }
}

void Run::time() {
    if (flood_) {
        counters();
    }
    const uint32_t lengths[] = {1, 1, 1, 1, model_.fast_period, model_.fast_period, 1 + below(20), 1 + below(20)};
    pass(chance(6) ? (chance(15) ? 86400 : model_.long_period) : one_of(lengths));
}

void Run::pass(uint32_t seconds) {
    say("%u seconds and a turn of the task", seconds);
    check_rules_ = seconds != 0;
    seconds_ += seconds;
    model_.now += seconds;
    fake().advance(seconds);
    atc_task_turn();
    model_.turn();
    fake().uploads.clear();
}

// ---- Settings -------------------------------------------------------------------------------------------------------

void Run::limit() {
    const PacketClass &cls = one_of(CLASSES);
    constexpr uint32_t rates[] = {0, 1, 1, 1, 2, 3, 7};
    const uint32_t pps = flood_ ? 1 : one_of(rates);
    Limits &limits = model_.limits[cls.id];
    constexpr uint32_t (*setters[])(uint32_t, uint32_t) = {atc_api_set_protocol_fp_limit, atc_api_set_protocol_lp_limit,
                                                           atc_api_set_protocol_src_fp_limit,
                                                           atc_api_set_protocol_src_lp_limit};
    uint32_t *const words_of[] = {&limits.fp, &limits.lp, &limits.src_fp, &limits.src_lp};
    const uint32_t which = below(4);
    say("limit %u of class %u: %u", which, cls.id, pps);
    expect("result", setters[which](cls.id, pps), 0U);
    *words_of[which] = pps != 0 ? pps : which % 2 == 0 ? cls.fp_limit : cls.lp_limit;
}

void Run::enable() {
    const PacketClass &cls = one_of(CLASSES);
    constexpr uint32_t values[] = {0, 1, 1, 1, 1, 1, 1, 2};
    const uint32_t value = flood_ ? 1 : one_of(values);
    Limits &limits = model_.limits[cls.id];
    constexpr uint32_t (*setters[])(uint32_t, uint32_t) = {
        atc_api_set_protocol_deny_enable,    atc_api_set_protocol_src_deny_enable,
        atc_api_set_protocol_cap_enable,     atc_api_set_protocol_src_cap_enable,
        atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable};
    uint32_t *const words_of[] = {&limits.deny,    &limits.src_deny, &limits.cap,
                                  &limits.src_cap, &limits.hw_deny,  &limits.src_hw_deny};
    const uint32_t which = std::min(below(8), 5U);
    say("enable %u of class %u: %u", which, cls.id, value);
    expect("result", setters[which](cls.id, value), 0U);
    *words_of[which] = value;
    if (value == 0) {
        model_.end(cls, which);
    }
}

void Run::period() {
    constexpr uint32_t fast[] = {1, 2, 5, 10, 30};
    constexpr uint32_t slow[] = {10, 60, 600, 3600};
    const bool is_fast = chance(50);
    const uint32_t seconds = is_fast ? one_of(fast) : one_of(slow);
    say("%s period of %u seconds", is_fast ? "fast" : "long", seconds);
    check_rules_ = true;
    expect("result", is_fast ? atc_api_set_fast_period_time(seconds) : atc_api_set_long_period_time(seconds), 0U);
    (is_fast ? model_.fast_period : model_.long_period) = seconds;
    model_.arm(is_fast ? TimerKind::fast : TimerKind::slow, seconds);
}

void Run::global_enable() {
    model_.enabled = chance(75) ? 1 : 0;
    say("global enable %u", model_.enabled);
    expect("result", atc_api_set_global_enable(model_.enabled), 0U);
}

void Run::upload_enable() {
    model_.upload_enable = below(2);
    say("upload enable %u", model_.upload_enable);
    atc_api_set_upload_server_enable(model_.upload_enable);
}

// ---- Clears ---------------------------------------------------------------------------------------------------------

void Run::clear() {
    const uint32_t direction = chance(85) ? 1 : 2;
    const uint32_t port = one_of(PORTS);
    const uint32_t vlan = one_of(VLANS);
    const PacketClass &cls = one_of(CLASSES);
    const uint32_t source = below(SOURCES);
    const uint32_t which = below(6);
    say("clear %u: direction %u, port %u, vlan %u, class %u, source %u", which, direction, port, vlan, cls.id, source);
    switch (which) {
        case 0:
            expect("result", atc_api_clear_statistic_global(direction), 0);
            (direction == 1 ? model_.rx : model_.tx) = {};
            break;
        case 1:
            expect_clear(atc_api_clear_statistic_port(direction, port), direction == 1 ? &model_.ports : nullptr, port);
            break;
        case 2:
            expect_clear(atc_api_clear_statistic_vlan(direction, vlan), direction == 1 ? &model_.vlans : nullptr, vlan);
            break;
        case 3:
            expect_clear(atc_api_clear_statistic_protocol(direction, cls.id),
                         direction == 1 ? &model_.rx_protocols : &model_.tx_protocols, cls.id);
            break;
        default:
            clear_owner(direction, port, vlan, cls, which == 4 ? std::nullopt : std::optional(source));
            break;
    }
}

void Run::expect_clear(int result, Model::Index *index, uint32_t key) {
    const bool there = index != nullptr && index->contains(key);
    expect("result", result, there ? 0 : -1);
    if (there) {
        index->at(key) = {};
    }
}

void Run::clear_owner(uint32_t direction, uint32_t port, uint32_t vlan, const PacketClass &cls,
                      std::optional<uint32_t> source) {
    uint8_t address[16] = {0x06};
    if (cls.src_type == ATC_SRC_IPV4) {
        std::memcpy(address, &*source, source ? sizeof(*source) : 0);
    } else {
        const uint8_t prefix[] = {0x20, 0x01, 0x0d, 0xb8};
        std::memcpy(address, prefix, cls.src_type == ATC_SRC_IPV6 ? sizeof(prefix) : 0);
        address[cls.src_type == ATC_SRC_IPV6 ? 15 : 5] = static_cast<uint8_t>(source.value_or(0));
    }
    const uint32_t type = source ? cls.src_type : uint32_t{ATC_SRC_NONE};
    const int result = atc_api_clear_statistic(direction, vlan, port, cls.id, type, address);
    auto flow = model_.flows.find({port, vlan, cls.id});
    Owner *owner = flow != model_.flows.end() && direction == 1 ? &flow->second : nullptr;
    if (owner != nullptr && type != ATC_SRC_NONE) {
        auto found = flow->second.sources.find(*source);
        owner = found != flow->second.sources.end() ? &found->second : nullptr;
    }
    expect("result", result, owner != nullptr ? 0 : -1);
    if (owner != nullptr) {
        model_.clear(*owner);
        answers_ += differences_flow(model_, port, vlan, cls.id);
    }
}

void Run::clear_all() {
    say("clear all statistics");
    expect("result", atc_api_clear_statistic_all(), 0);
    model_.clear_all();
}

void Run::captures() {
    say("clear the automatic captures");
    expect("result", atc_api_set_auto_cap_clear(), 0);
    for (auto &[key, flow] : model_.flows) {
        model_.release_capture(flow);
        for (auto &[number, source] : flow.sources) {
            model_.release_capture(source);
        }
    }
}

void Run::clear_rules() {
    uint32_t id = !flood_ && chance(2) ? 0 : FakePlatform::first_entry_id + below(model_.rules_made + 2);
    if (!flood_ && !model_.records.empty() && chance(50)) {
        id = std::next(model_.records.begin(), below(model_.records.size()))->rule.sdk_id;
    }
    say("clear hardware rule %u", id);
    expect("result", atc_api_clear_hw_deny_info(id), 0);
    model_.withdraw_if([id](const Record &record) { return id == 0 || record.rule.sdk_id == id; });
}

// ---- Filters --------------------------------------------------------------------------------------------------------

void Run::filter() {
    const uint32_t id = 1 + below(8);
    if (chance(40)) {
        say("delete filter %u", id);
        expect("result", atc_api_cfg_hw_filter_rule_del(id), model_.delete_filter(id));
        return;
    }
    constexpr uint8_t prefixes[] = {0, 24, 32, 24, 32, 33};
    atc_filter_rule_t rule = {};
    rule.id = id;
    rule.port = one_of(PORTS);
    rule.vlan = chance(50) ? 100 : 0;
    rule.eth_type = 0x0800;
    rule.src_ipv4 = 0x0a000001;
    rule.src_ipv4_masklen = one_of(prefixes);
    rule.dst_port = chance(50) ? 80 : 0;
    rule.action = below(5);
    say("add filter %u: port %u, vlan %u, prefix %u, l4 port %u, action %u", id, rule.port, rule.vlan,
        rule.src_ipv4_masklen, rule.dst_port, rule.action);
    std::string match = rule.vlan != 0 ? "4=100 5=2048 2=0a000001" : "5=2048 2=0a000001";
    match += "/" + std::to_string(rule.src_ipv4_masklen) + (rule.dst_port != 0 ? " 10=80 " : " ");
    constexpr const char *operations[] = {"", "100 113:80002", "101 113:80003", "106 113:80004", ""};
    const bool valid = rule.action >= 1 && rule.action <= 3 && rule.src_ipv4_masklen <= 32;
    const Filter added{id, {rule.port, match, operations[rule.action]}};
    uint32_t sdk_id = 0;
    const int result = atc_api_cfg_hw_filter_rule_add(&rule);
    expect("result", result, model_.add_filter(added, valid, &sdk_id));
    expect("sdk_id", result == 0 ? rule.sdk_id : 0, sdk_id);
}
