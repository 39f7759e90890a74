// differences.cpp: the module's state held against the model's; see model.h.
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "atc/entries.h"
#include "chip_text.h"
#include "fixture.h"
#include "model.h"

namespace {

class Compare {
public:
    explicit Compare(const Model &compared) : model(compared) {}

    template <typename number_t, typename expected_t>
    void is(const char *what, number_t module, expected_t expected) {
        if (static_cast<uint64_t>(module) != static_cast<uint64_t>(expected)) {
            out << "  " << what << " is " << static_cast<uint64_t>(module) << ", must be "
                << static_cast<uint64_t>(expected) << where << "\n";
        }
    }

    void holds(bool fact, const std::string &otherwise) {
        if (!fact) {
            out << "  " << otherwise << where << "\n";
        }
    }

    void totals() {
        is("rule_hw_count", state->rule_hw_count, model.records.size());
        is("protocol_cap_cnt", state->protocol_cap_cnt, model.captures);
        is("rx_stat.count", state->rx_stat.count, model.rx.count);
        is("tx_stat.count", state->tx_stat.count, model.tx.count);
        is("flows", atc_avl_numnodes(&state->entry_tree), model.flows.size());
        // The module's own look-up tables are a block each, of a size and at moments that are its own business.
        const atc_recall_t &recall = state->recall;
        const size_t tables = (recall.flows.hashes != nullptr ? 1 : 0) + (recall.sources.hashes != nullptr ? 1 : 0);
        is("live blocks", fake().live_blocks(), model.live + tables);
        is("messages", fake().queued(), model.queue.size());
        constexpr std::pair<Call, const char *> made[] = {
            {Call::send, "send calls"},
            {Call::receive, "receive calls"},
            {Call::log, "log calls"},
            {Call::chip_set, "set calls"},
            {Call::chip_delete, "delete calls"},
            {Call::chip_entry_id, "entry id calls"},
            {Call::chip_stat_id, "stat id calls"},
            {Call::upload, "upload calls"},
            {Call::chip_counters, "counter calls"},
        };
        for (const auto &[kind, name] : made) {
            is(name, fake().calls(kind), model.calls[static_cast<size_t>(kind)]);
        }
        holds(!testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed(), "the card saw a wrong call");
    }

    // Walks a list of the module beside the model's.
    template <typename record_t, typename expected_t, typename visit_t>
    void list(const char *what, atc_list_t *head, const std::list<expected_t> &expected, visit_t visit) {
        const atc_list_t *link = head->next;
        size_t n = 0;
        for (const expected_t &item : expected) {
            if (link == head) {
                break;
            }
            const auto *record = atc_list_record<record_t>(const_cast<atc_list_t *>(link));
            visit(*record, item);
            is("sdk_id of its rule", record->rule.sdk_id, item.rule.sdk_id);
            is("port of its rule", record->rule.port, item.rule.port);
            link = link->next;
            n++;
        }
        holds(link == head && n == expected.size(), std::string("not as many ") + what + " as there must be");
    }

    void rules() {
        list<atc_hw_deny_t>("deny records", &state->hw_deny_list, model.records,
                            [this](const atc_hw_deny_t &record, const Record &expected) {
                                const atc_entry_t *flow = record.src_entry ? record.src_entry->entry : record.entry;
                                is("owner's port", flow->port, expected.flow->port);
                                is("owner's VLAN", flow->vlan, expected.flow->vlan);
                                is("owner's protocol", flow->protocol, expected.flow->cls->id);
                                is("a source's rule", record.src_entry != nullptr, expected.source.has_value());
                                is("last_packets", record.last_packets, expected.last_packets);
                                is("stat_id", record.rule.stat_id, expected.rule.stat_id);
                                if (record.src_entry != nullptr && expected.source) {
                                    is("its source", source_number(*record.src_entry), *expected.source);
                                }
                            });
        list<atc_hw_cfg_filter_t>("filters", &state->hw_cfg_filter_list, model.filters,
                                  [this](const atc_hw_cfg_filter_t &filter, const Filter &expected) {
                                      is("filter id", filter.rule.id, expected.id);
                                  });
        timers();
        chip();
    }

    void timers() {
        const atc_list_t *head = &state->timer_list->head;
        const atc_list_t *link = head->next;
        for (const auto &[second, expected] : model.timers) {
            if (link == head) {
                break;
            }
            const auto *timer = reinterpret_cast<const atc_timer_t *>(link);
            is("a timer's second", timer->expire.seconds, second);
            const atc_timer_t *periods[] = {&g_atc_timer_fp, &g_atc_timer_lp, &g_atc_timer_24h};
            const auto kind = static_cast<size_t>(expected.kind);
            holds(kind < std::size(periods) ? timer == periods[kind] : timer->arg1 != 0, "a timer of another kind");
            link = link->next;
        }
        size_t count = 0;
        for (const atc_list_t *each = head->next; each != head; each = each->next) {
            count++;
        }
        is("timers", count, model.records.size() + 3);
        is("timers of the model", model.timers.size(), model.records.size() + 3);
    }

    void chip() {
        std::map<uint32_t, std::pair<const std::string *, const InChip *>> expected;
        for (const auto &[text, rule] : model.chip) {
            expected[rule.entry_id] = {&text, &rule};
        }
        const std::vector<ChipRule> rules = fake().chip();
        is("rules in the chip", rules.size(), expected.size());
        for (const ChipRule &rule : rules) {
            auto found = expected.find(rule.entry_id);
            if (found == expected.end()) {
                holds(false, "not to be in the chip: " + chip_text(rule));
                continue;
            }
            const auto &[text, in_chip] = found->second;
            is("stat id in the chip", rule.stat_id, in_chip->stat_id);
            is("packets in the chip", rule.packets, in_chip->packets);
            // What a rule says never changes: it is read once.
            if (rule.entry_id >= model.next_unread_rule) {
                holds(chip_text(rule) == *text, "in the chip is " + chip_text(rule) + " instead of " + *text);
            }
        }
    }

    // Every deny record has its rule; every rule has a record or a filter, or its delete was made to fail.
    void keeping() {
        std::set<std::string> kept = model.orphans;
        for (const Record &record : model.records) {
            const std::string text = model.key(record.rule).value_or("no ports");
            holds(model.chip.contains(text), "a record without a rule: " + text);
            holds(record.flow->record == &record || record.source, "a record that its flow does not know");
            kept.insert(text);
        }
        for (const Filter &filter : model.filters) {
            kept.insert(model.key(filter.rule).value_or(""));
        }
        for (const auto &[text, rule] : model.chip) {
            holds(kept.contains(text), "a rule without a record: " + text);
        }
    }

    void counter(const atc_stat_t &stat, const Counter &expected) {
        is("count", stat.count, expected.count);
        history(stat.fp_last, stat.fp_head, stat.fp_cur, stat.fp_ring, stat.fp_peak, expected.fast);
        history(stat.lp_last, stat.lp_head, stat.lp_cur, stat.lp_ring, stat.lp_peak, expected.slow);
    }

    void history(uint32_t last, uint32_t head, uint32_t cur, const uint32_t *ring, uint32_t peak,
                 const History &expected) {
        is("count at the period's start", last, expected.start);
        is("peak", peak, expected.peak);
        is("periods", (cur + ATC_RING_SLOTS - head) % ATC_RING_SLOTS + 1, expected.count);
        for (uint32_t i = 0; i < expected.count; ++i) {
            is("packets of a period", ring[(head + i) % ATC_RING_SLOTS], expected.packets[i]);
        }
    }

    void owner(const Flow &flow, bool is_source, const atc_stat_t &stat, const Owner &expected) {
        counter(stat, expected);
        is("fp_threshold", stat.fp_threshold, model.fp_threshold(flow, is_source));
        is("lp_threshold", stat.lp_threshold, model.lp_threshold(flow, is_source));
        is("fp_alarm", stat.fp_alarm, expected.fp_alarm);
        is("lp_alarm", stat.lp_alarm, expected.lp_alarm);
        is("hw_deny_on", stat.hw_deny_on, expected.record != nullptr);
        is("sw_deny_on", stat.sw_deny_on, expected.sw_deny);
        is("cap_on", stat.cap_on, expected.cap_on);
        is("cap_len", stat.cap_len, expected.cap_len);
        is("a capture buffer", stat.cap_buf != nullptr, expected.cap_len != 0);
    }

    void flow(const Flow &expected) {
        place(expected);
        atc_entry_t *entry = atc_entry_get(ATC_DIRECTION_RX, expected.vlan, expected.port, expected.cls->id);
        if (entry == nullptr) {
            return holds(false, "no such flow");
        }
        owner(expected, false, entry->stat, expected);
        auto source = expected.sources.begin();
        is("sources", atc_avl_numnodes(&entry->src_tree), expected.sources.size());
        atc_tree_each<atc_src_entry_t>(&entry->src_tree, [&](const atc_src_entry_t *src) {
            if (source == expected.sources.end() || source->first != source_number(*src)) {
                return holds(false, "another source");
            }
            where += " source " + std::to_string(source->first);
            owner(expected, true, src->stat, source->second);
            place(expected);
            ++source;
        });
        where.clear();
    }

    void index(const char *what, atc_avl_tree_t *tree, const Model::Index &expected, auto key_of) {
        is(what, atc_avl_numnodes(tree), expected.size());
        atc_tree_each<atc_entry_t>(tree, [&](const atc_entry_t *entry) {
            auto found = expected.find(key_of(*entry));
            where = std::string(" of an entry of the ") + what + ", " + std::to_string(key_of(*entry));
            holds(found != expected.end(), "not to be there");
            counter(entry->stat, found != expected.end() ? found->second : Counter{});
        });
        where.clear();
    }

    void place(const Flow &flow) {
        where = " for port " + std::to_string(flow.port) + " vlan " + std::to_string(flow.vlan) + " protocol " +
                std::to_string(flow.cls->id);
    }

    static uint32_t source_number(const atc_src_entry_t &src) {
        if (src.src_type == ATC_SRC_IPV4) {
            uint32_t address;
            std::memcpy(&address, src.src_addr, sizeof(address));
            return address;
        }
        return src.src_addr[src.src_type == ATC_SRC_MAC ? 5 : 15];
    }

    State state;
    const Model &model;
    std::ostringstream out;
    std::string where;
};

}  // namespace

std::string differences_quick(Model &model, bool rules) {
    Compare compare(model);
    compare.totals();
    if (rules) {
        compare.rules();
        model.next_unread_rule = FakePlatform::first_entry_id + model.rules_made;
    }
    return compare.out.str();
}

std::string differences_flow(const Model &model, uint32_t port, uint32_t vlan, uint16_t protocol) {
    const auto flow = model.flows.find({port, vlan, protocol});
    if (flow == model.flows.end()) {
        return "";
    }
    Compare compare(model);
    compare.flow(flow->second);
    return compare.out.str();
}

std::string differences_full(Model &model) {
    std::string out = differences_quick(model, true) + state_problems();
    Compare compare(model);
    compare.keeping();
    for (const auto &[key, flow] : model.flows) {
        compare.flow(flow);
    }
    compare.index("ports", &compare.state->port_tree, model.ports, [](const auto &entry) { return entry.port; });
    compare.index("VLANs", &compare.state->vlan_tree, model.vlans, [](const auto &entry) { return entry.vlan; });
    const auto protocol = [](const auto &entry) { return entry.protocol; };
    compare.index("received protocols", &compare.state->rx_protocol_tree, model.rx_protocols, protocol);
    compare.index("sent protocols", &compare.state->tx_protocol_tree, model.tx_protocols, protocol);
    compare.counter(compare.state->rx_stat, model.rx);
    compare.counter(compare.state->tx_stat, model.tx);
    atc_list_each<atc_trunk_t>(&compare.state->trunk_list, [&](const atc_trunk_t *trunk) {
        auto found = model.trunks.find(trunk->trunk_id);
        const bool same =
            found != model.trunks.end() && std::equal(found->second.begin(), found->second.end(), trunk->members);
        compare.holds(same, "trunk " + std::to_string(trunk->trunk_id) + " is another");
    });
    return out + compare.out.str();
}
