// compare.cpp: the module's state and the model's as rows of numbers, held against each other; see model.h.
#include <algorithm>
#include <compare>
#include <cstring>
#include <iterator>
#include <string_view>

#include "atc/entries.h"
#include "fixture.h"
#include "model.h"

namespace {

struct Row {
    std::string_view what;
    std::array<uint64_t, 8> values;
    auto operator<=>(const Row &) const = default;
};
using Rows = std::vector<Row>;

constexpr std::string_view TOTALS = "totals (rules, packets, flows, waiting messages)";
constexpr std::string_view RECORD = "deny record (place, port, VLAN, protocol, source, sdk_id, stat_id, last packets)";
constexpr std::string_view TIMER = "timer (place, second, of a record)";
constexpr std::string_view CHIP = "chip (entry id, stat id, packets)";
constexpr std::string_view OWNER = "owner (port, VLAN, protocol, source, count, at the period's start, alarm)";
constexpr std::string_view COUNTER = "counter (index, key, count)";

template <typename... numbers_t>
Row row(std::string_view what, numbers_t... numbers) {
    return {what, {static_cast<uint64_t>(numbers)...}};
}

uint32_t number_of(const atc_src_entry_t *src) {
    uint32_t ipv4 = 0;
    if (src != nullptr) {
        std::memcpy(&ipv4, src->src_addr, sizeof(ipv4));
    }
    return src == nullptr || src->src_type == ATC_SRC_IPV4 ? ipv4 : src->src_addr[5];
}

Rows rows_of_module(atc_global_t &state, bool everything) {
    Rows rows{
        row(TOTALS, state.rule_hw_count, state.rx_stat.count, atc_avl_numnodes(&state.entry_tree), fake().queued())};
    atc_list_each<atc_hw_deny_t>(&state.hw_deny_list, [&](const atc_hw_deny_t *record) {
        const atc_entry_t *flow = record->src_entry != nullptr ? record->src_entry->entry : record->entry;
        rows.push_back(row(RECORD, rows.size(), flow->port, flow->vlan, flow->protocol, number_of(record->src_entry),
                           record->rule.sdk_id, record->rule.stat_id, record->last_packets));
    });
    const atc_list_t *head = &state.timer_list->head;
    for (const atc_list_t *link = head->next; link != head; link = link->next) {
        const auto *timer = reinterpret_cast<const atc_timer_t *>(link);
        const bool of_period = timer == &g_atc_timer_fp || timer == &g_atc_timer_lp || timer == &g_atc_timer_24h;
        rows.push_back(row(TIMER, rows.size(), timer->expire.seconds, !of_period));
    }
    for (const ChipRule &rule : fake().chip()) {
        rows.push_back(row(CHIP, rule.entry_id, rule.stat_id, rule.packets));
    }
    if (!everything) {
        return rows;
    }
    atc_tree_each<atc_entry_t>(&state.entry_tree, [&](atc_entry_t *flow) {
        const auto owner = [&](const atc_stat_t &stat, const atc_src_entry_t *src) {
            rows.push_back(row(OWNER, flow->port, flow->vlan, flow->protocol, number_of(src), stat.count, stat.fp_last,
                               stat.fp_alarm));
        };
        owner(flow->stat, nullptr);
        atc_tree_each<atc_src_entry_t>(&flow->src_tree, [&](const atc_src_entry_t *src) { owner(src->stat, src); });
    });
    const auto index = [&](uint32_t number, atc_avl_tree_t *tree, auto key) {
        atc_tree_each<atc_entry_t>(tree, [&](const atc_entry_t *entry) {
            rows.push_back(row(COUNTER, number, entry->*key, entry->stat.count));
        });
    };
    index(0, &state.port_tree, &atc_entry_t::port);
    index(1, &state.vlan_tree, &atc_entry_t::vlan);
    index(2, &state.rx_protocol_tree, &atc_entry_t::protocol);
    return rows;
}

Rows rows_of_model(const Model &model, bool everything) {
    Rows rows{row(TOTALS, model.records.size(), model.rx, model.flows.size(), model.queue.size())};
    for (const Record &record : model.records) {
        rows.push_back(row(RECORD, rows.size(), record.flow->port, record.flow->vlan, record.flow->cls->id,
                           record.source, record.sdk_id, record.stat_id, record.last_packets));
    }
    for (const auto &[second, timer] : model.timers) {
        rows.push_back(row(TIMER, rows.size(), second, timer.record != nullptr));
    }
    for (const auto &[key, rule] : model.chip) {
        rows.push_back(row(CHIP, rule.entry_id, rule.stat_id, rule.packets));
    }
    if (!everything) {
        return rows;
    }
    for (const auto &[key, flow] : model.flows) {
        const auto add = [&, &of = flow](const Owner &owner, uint32_t source) {
            rows.push_back(
                row(OWNER, of.port, of.vlan, of.cls->id, source, owner.count, owner.fast_start, owner.alarm));
        };
        add(flow, 0);
        for (const auto &[number, source] : flow.sources) {
            add(source, number);
        }
    }
    for (uint32_t number = 0; number < model.indexes.size(); ++number) {
        for (const auto &[key, count] : model.indexes[number]) {
            rows.push_back(row(COUNTER, number, key, count));
        }
    }
    return rows;
}

}  // namespace

std::string differences(const Model &model, bool everything) {
    State state;
    Rows left = rows_of_module(*state, everything), right = rows_of_model(model, everything);
    std::ranges::sort(left);
    std::ranges::sort(right);
    std::string out = everything ? state_problems() : "";
    const auto tell = [&out](const char *who, const Rows &has, const Rows &lacks) {
        Rows only;
        std::ranges::set_difference(has, lacks, std::back_inserter(only));
        for (size_t i = 0; i < std::min<size_t>(only.size(), 5); ++i) {
            out.append("  only the ").append(who).append(": ").append(only[i].what);
            for (uint64_t value : only[i].values) {
                out += " " + std::to_string(value);
            }
            out += "\n";
        }
    };
    tell("module", left, right);
    tell("model", right, left);
    return out;
}
