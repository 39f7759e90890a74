// SPDX-License-Identifier: Apache-2.0
// model_test.cpp: random steps, each taken by the module and by the model.
//
// A step is one thing that happens to a running module: packets, a setting, a clear, a trunk that changes, time, a card
// that fails. How much one hold of the mutex may do is part of the step, and in the pauses between holds other steps
// are taken. After every step the answers, log, records and the chip are those of the model; now and then everything
// is. What a seed does depends on nothing but the seed. ATC_MODEL_LIVES=1000 makes a long run.
#include <cstring>
#include <random>

#include "atc/entries.h"
#include "atc/monitor.h"
#include "model.h"

namespace {

constexpr uint32_t PORTS[] = {1, 2, 40, 41, 255};
constexpr uint32_t VLANS[] = {0, 1, 100, 0, 1, 100, 0, 1, 100, 4089};
constexpr uint32_t VALUES[] = {0, 1, 1, 1, 1, 2, 7};  // packets per second, or enables
constexpr uint32_t TRUNKS[] = {40, 41, 2};
constexpr uint32_t MEMBERS[] = {1, 3, 4, 5, 6, 7, 8, 9, 10};  // more than a trunk takes
constexpr Call FAILING[] = {Call::chip_set,      Call::chip_delete, Call::chip_entry_id, Call::chip_stat_id,
                            Call::chip_counters, Call::alloc,       Call::send,          Call::receive};

// Lines in which module and model are compared.
constexpr char RECORD[] = "deny record %zu: port %u vlan %u class %u source %u, ids %u %u, last packets %lu";
constexpr char CHIP[] = "rule %u in the chip: %lu packets";
constexpr char OWNER[] =
    "port %u vlan %u class %u source %u: count %u, at the starts %u %u, alarms %d %d, denied %d, limits %u %u";

uint32_t number_of(const atc_src_entry_t *src) {
    uint32_t ipv4 = 0;
    std::memcpy(&ipv4, src->src_addr, sizeof(ipv4));
    return src->src_type == ATC_SRC_IPV4 ? ipv4 : src->src_addr[5];
}

class HwDenyModel : public ModuleTest, public ::testing::WithParamInterface<uint32_t> {
public:
    uint32_t below(uint64_t n) { return static_cast<uint32_t>(random_() % n); }
    bool chance(uint32_t percent) { return below(100) < percent; }
    template <typename item_t, size_t n>
    const item_t &one_of(const item_t (&items)[n]) {
        return items[below(n)];
    }
    Who anybody() {
        const PacketClass *cls = &one_of(CLASSES);
        return {one_of(PORTS), one_of(VLANS), cls, cls->src_type == ATC_SRC_NONE ? 0 : 1 + below(SOURCES)};
    }

    // A line for each record and rule in the chip; if 'everything', for whatever else there is.
    Lines of_module(bool everything) {
        Lines lines;
        atc_list_each<atc_hw_deny_t>(&state()->hw_deny_list, [&](const atc_hw_deny_t *record) {
            const atc_src_entry_t *src = record->src_entry;
            const atc_entry_t *flow = src != nullptr ? src->entry : record->entry;
            lines.push_back(text(RECORD, lines.size(), flow->port, flow->vlan, flow->protocol,
                                 src != nullptr ? number_of(src) : 0, record->rule.sdk_id, record->rule.stat_id,
                                 record->last_packets));
        });
        for (const ChipRule &rule : fake().chip()) {
            lines.push_back(text(CHIP, rule.entry_id, rule.packets));
        }
        if (!everything) {
            return lines;
        }
        each_record<atc_entry_t>(state()->entry_tree, [&](atc_entry_t *flow) {
            const auto add = [&](const atc_stat_t &stat, uint32_t source) {
                lines.push_back(text(OWNER, flow->port, flow->vlan, flow->protocol, source, stat.count, stat.fp_last,
                                     stat.lp_last, stat.fp_alarm, stat.lp_alarm, stat.sw_deny_on, stat.fp_threshold,
                                     stat.lp_threshold));
            };
            add(flow->stat, 0);
            each_record<atc_src_entry_t>(flow->src_tree,
                                         [&](const atc_src_entry_t *src) { add(src->stat, number_of(src)); });
        });
        return lines;
    }

    Lines of_model(bool everything) {
        Lines lines;
        for (const auto &[who, sdk_id, stat_id, last_packets, due, in_chip] : model.records) {
            lines.push_back(
                text(RECORD, lines.size(), who.port, who.vlan, who.cls->id, who.source, sdk_id, stat_id, last_packets));
        }
        std::map<uint32_t, uint64_t> packets;
        for (const auto &[rule, nth] : model.chip) {
            packets[FakePlatform::first_entry_id + nth] = model.stopped[nth];
        }
        for (const auto &[entry_id, count] : packets) {
            lines.push_back(text(CHIP, entry_id, count));
        }
        for (const auto &[who, owner] : everything ? model.owners : std::map<Who, Owner>()) {
            lines.push_back(text(OWNER, who.port, who.vlan, who.cls->id, who.source, owner.count, owner.start[FAST],
                                 owner.start[LONG], owner.alarm[FAST], owner.alarm[LONG], owner.denied,
                                 owner.most[FAST], owner.most[LONG]));
        }
        return lines;
    }

    void packets() {
        const Who who = anybody();
        const uint32_t times = 1 + below(chance(10) ? 60 : 8);
        Frame frame = who.cls->frame();
        if (who.source != 0) {
            who.cls->src_type == ATC_SRC_MAC ? frame.from(who.source) : frame.src_ip(who.source);
        }
        for (uint32_t i = 0; i < times; ++i) {
            EXPECT_EQ(rx(frame, who.port, who.vlan), model.receive(who));
        }
    }

    // The chip has stopped packets, around what keeps a rule.
    void counters() {
        for (const auto &[rule, nth] : model.chip) {
            const auto record = std::ranges::find(model.records, FakePlatform::first_stat_id + nth, &Record::stat_id);
            if (record != model.records.end()) {
                const uint64_t most = model.threshold(record->who, FAST);
                const uint64_t values[] = {0, most - 1, most, most, most + 1, most + (1ULL << 32)};
                const uint64_t more = flood_ ? most : one_of(values);
                model.stopped[nth] = more == 0 ? 0 : record->last_packets + more;
                fake().set_packets(record->stat_id, model.stopped[nth]);
            }
        }
    }

    // Mostly short; sometimes only a turn of the task.
    void time() {
        if (flood_) {
            counters();
        }
        const auto [fast, slow, day] = model.seconds;
        const uint32_t lengths[] = {0, 0, 0, 1, 1, 1, fast, fast, 1 + below(20)};
        const uint32_t seconds = chance(4) ? (chance(15) ? day : slow) : one_of(lengths);
        model.now += seconds;
        fake().advance(seconds);
        model.begin_turn();
        follow_ = [this] { model.follow_turn(); };
        atc_task_turn();
        model.follow_turn();
    }

    void setting() {
        const PacketClass *cls = &one_of(CLASSES);
        const uint32_t setting = below(SETTINGS), of_sources = below(2), value = flood_ ? 1 : one_of(VALUES);
        constexpr Set set[SETTINGS][2] = {
            {atc_api_set_protocol_fp_limit, atc_api_set_protocol_src_fp_limit},
            {atc_api_set_protocol_lp_limit, atc_api_set_protocol_src_lp_limit},
            {atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable},
            {atc_api_set_protocol_deny_enable, atc_api_set_protocol_src_deny_enable}};
        model.settings[cls][setting][of_sources] = value == 0 && setting <= LONG_LIMIT ? cls->limits[setting] : value;
        const auto is_meant = [&](const Who &who) {
            return value == 0 && who.cls == cls && (who.source != 0) == of_sources;
        };
        const auto outer = std::exchange(model.leaving, {});
        model.withdraw_if([&](const Record &record) { return setting == HW_DENY && is_meant(record.who); });
        const auto end_deny = [&](bool is_done) {  // of whom is left, unless it was switched on again in a pause
            const bool is_off = model.settings[cls][DENY][of_sources] == 0;
            for (auto &[who, owner] : model.owners) {
                const bool ends = setting == DENY && is_meant(who) && (is_done ? is_off : !look(who).denied);
                owner.denied = owner.denied && !ends;
            }
        };
        const auto follow = [&] {
            model.withdraw();
            end_deny(false);
            take_thresholds();
        };
        follow_ = is_in_pause_ ? follow_ : follow;
        EXPECT_EQ(set[setting][of_sources](cls->id, value), 0U);
        model.withdraw();
        end_deny(true);
        settle_thresholds([&](const Who &who, uint32_t period) {
            return period == setting && who.cls == cls && (who.source != 0) == of_sources;
        });
        model.leaving = outer;
    }

    // In a pause each has its threshold from before, or from the setting.
    void take_thresholds() {
        for (auto &[who, owner] : model.owners) {
            const std::array<uint32_t, 2> set = {model.setting(who, FAST), model.setting(who, LONG)};
            const std::array<uint32_t, 2> shown = look(who).most;
            for (const Period period : {FAST, LONG}) {
                EXPECT_TRUE(shown[period] == owner.most[period] || shown[period] == set[period])
                    << "a threshold: " << shown[period] << " instead of " << owner.most[period] << " or "
                    << set[period];
            }
            owner.most = shown;
        }
    }
    template <typename is_meant_t>
    void settle_thresholds(is_meant_t is_meant) {
        for (auto &[who, owner] : model.owners) {
            for (const Period period : {FAST, LONG}) {
                owner.most[period] = is_meant(who, period) ? model.setting(who, period) : owner.most[period];
            }
        }
    }

    void period() {
        constexpr uint32_t lengths[2][5] = {{1, 2, 5, 10, 30}, {10, 60, 600, 3600, 86400}};
        const uint32_t period = below(2), seconds = one_of(lengths[period]);
        model.seconds[period] = seconds;
        model.passes[period] = model.arm(period);
        follow_ = is_in_pause_ ? follow_ : [this] { take_thresholds(); };
        EXPECT_EQ(period == FAST ? atc_api_set_fast_period_time(seconds) : atc_api_set_long_period_time(seconds), 0U);
        settle_thresholds([period](const Who &, uint32_t other) { return other == period; });
    }

    // The counters of a flow, or of a source of it.
    void clear_one() {
        Who who = anybody();
        who.source = chance(50) ? 0 : who.source;
        uint8_t address[16] = {0x06, 0, 0, 0, 0, static_cast<uint8_t>(who.source)};
        if (who.cls->src_type == ATC_SRC_IPV4) {
            std::memcpy(address, &who.source, sizeof(who.source));
        }
        const auto owner = model.owners.find(who);
        EXPECT_EQ(atc_api_clear_statistic(ATC_DIRECTION_RX, who.vlan, who.port, who.cls->id,
                                          who.source == 0 ? uint32_t{ATC_SRC_NONE} : who.cls->src_type, address),
                  owner != model.owners.end() ? 0 : -1);
        if (owner != model.owners.end()) {
            owner->second.count = 0;
            owner->second.start = {};
        }
    }

    void clear_all() {
        model.owners.clear();
        model.open.clear();
        model.known = {};
        const auto outer = std::exchange(model.leaving, {});
        for (const Record &record : model.records) {
            model.leaving.push_back(record.who);
        }
        std::ranges::sort(model.leaving, {}, [](const Who &who) {  // flows behind their sources
            return Who{who.port, who.vlan, who.cls, who.source - 1};
        });
        follow_ = is_in_pause_ ? follow_ : [this] { model.withdraw(); };
        EXPECT_EQ(atc_api_clear_statistic_all(), 0);
        model.withdraw();
        model.leaving = outer;
    }

    void clear_rules() {
        uint32_t id = !flood_ && chance(2) ? 0 : FakePlatform::first_entry_id + below(model.rules_made + 2);
        if (!flood_ && !model.records.empty() && chance(50)) {
            id = std::next(model.records.begin(), static_cast<std::ptrdiff_t>(below(model.records.size())))->sdk_id;
        }
        const auto outer = std::exchange(model.leaving, {});
        model.withdraw_if([id](const Record &record) { return id == 0 || record.sdk_id == id; });
        follow_ = is_in_pause_ ? follow_ : [this] { model.withdraw(); };
        EXPECT_EQ(atc_api_clear_hw_deny_info(id), 0);
        model.withdraw();
        model.leaving = outer;
    }

    void trunk() {
        const uint32_t trunk = one_of(TRUNKS), member = one_of(MEMBERS), op = chance(60) ? 1 : below(2) * 2;
        EXPECT_EQ(fake().trunk_handler(0, trunk, member, op), 0);
        if (!model.fails(Call::send) && model.queue.size() < 256) {
            model.queue.push_back({op, trunk, member});
        } else {
            model.log.push_back(text("anti-cpu trunk %u member %u change lost", trunk, member));
        }
    }

    void failure() {
        const Call kind = one_of(FAILING);
        // The module also allocates what only makes it faster: which allocation is the nth cannot be told.
        const uint32_t nth = kind == Call::alloc ? 1 : 1 + below(4);
        const bool from_then_on = kind == Call::alloc || chance(25);
        fake().fail(kind, nth, from_then_on);
        model.plans[kind] = {nth, from_then_on};
        model.memory = model.memory && kind != Call::alloc;
    }

    void recovery() {
        fake().fail_none();
        model.plans.clear();
        model.memory = true;
    }

    // What the module shows of somebody.
    Shown look(const Who &who) {
        Shown shown;
        const atc_entry_t *flow = atc_entry_get(ATC_DIRECTION_RX, who.vlan, who.port, who.cls->id);
        const atc_stat_t *stat = flow != nullptr && who.source == 0 ? &flow->stat : nullptr;
        if (flow != nullptr && who.source != 0) {
            each_record<atc_src_entry_t>(flow->src_tree, [&](const atc_src_entry_t *src) {
                stat = number_of(src) == who.source ? &src->stat : stat;
            });
        }
        if (stat != nullptr) {
            shown = {true,
                     stat->sw_deny_on == 1,
                     {stat->fp_pass == state()->fp_pass, stat->lp_pass == state()->lp_pass},
                     {stat->fp_threshold, stat->lp_threshold}};
        }
        atc_list_each<atc_hw_deny_t>(&state()->hw_deny_list, [&](const atc_hw_deny_t *record) {
            const atc_src_entry_t *src = record->src_entry;
            const atc_entry_t *owner = src != nullptr ? src->entry : record->entry;
            if (owner->port == who.port && owner->vlan == who.vlan && owner->protocol == who.cls->id &&
                (src != nullptr ? number_of(src) : 0) == who.source) {
                shown.has_rule = true;
                shown.in_chip = record->is_in_chip;
                shown.check_due = is_due(record->timer);
            }
        });
        return shown;
    }

    static bool is_due(const atc_timer_t &timer) {
        const timer_expire_t now = {static_cast<int32_t>(fake().monotonic_ns / ns_per_second),
                                    static_cast<int32_t>(fake().monotonic_ns % ns_per_second)};
        return timer.link.next != &timer.link && timer_compare(&timer.expire, &now) <= 0;
    }

    void show_module() {
        model.look = [this](const Who &who) { return look(who); };
        model.is_running = [](uint32_t period) {
            return period == DAY ? g_atc_timer_24h.link.next == &g_atc_timer_24h.link : state()->pass == period + 1;
        };
        model.is_due = [](uint32_t period) {
            return is_due(period == FAST ? g_atc_timer_fp : period == LONG ? g_atc_timer_lp : g_atc_timer_24h);
        };
        model.is_discarding = [] { return state()->discards != 0; };
        model.members_of = [](uint32_t id) {
            const auto *trunk = atc_list_find<atc_trunk_t>(
                &state()->trunk_list, [id](const atc_trunk_t *one) { return one->trunk_id == id; });
            return trunk != nullptr ? std::vector<uint32_t>(trunk->members, trunk->members + ATC_TRUNK_MEMBERS)
                                    : std::vector<uint32_t>();
        };
        fake().on_delay = [this] {
            if (is_in_pause_) {
                return;  // one thing in the other is enough
            }
            is_in_pause_ = true;
            follow_();
            for (uint32_t steps = below(3); steps > 0; --steps) {
                take_step();
            }
            pauses_++;
            is_in_pause_ = false;
        };
    }

    // Returns what it was. In a pause nothing that needs the monitor task; and a clear of one during the sweep would
    // say nothing of whether the sweep had been there before.
    const char *take_step() {
        using M = HwDenyModel;
        static constexpr struct {
            uint32_t share;  // of 1000
            const char *name;
            void (M::*take)();
        } kinds[] = {
            {640, "packets", &M::packets},   {60, "counters", &M::counters},
            {70, "time", &M::time},          {100, "setting", &M::setting},
            {4, "period", &M::period},       {30, "clear one", &M::clear_one},
            {1, "clear all", &M::clear_all}, {15, "clear rules", &M::clear_rules},
            {40, "trunk", &M::trunk},        {20, "failure", &M::failure},
            {20, "recovery", &M::recovery},
        };
        const auto *one = kinds;
        for (uint32_t drawn = below(1000); drawn >= one->share; ++one) {
            drawn -= one->share;
        }
        if (!is_in_pause_ || (one->take != &M::time && !(one->take == &M::clear_one && model.passing == DAY))) {
            (this->*one->take)();
        }
        return one->name;
    }

    void TearDown() override {
        fake().on_delay = nullptr;
        ModuleTest::TearDown();
    }

    std::function<void()> follow_;  // brings the model to where the module is in its step
    bool is_in_pause_ = false;
    uint64_t pauses_ = 0;
    Model model;
    std::mt19937_64 random_{test_seed() + GetParam()};
    bool flood_ = GetParam() % 2 == 1;  // rules come and stay, so that there are as many as there can be
};

TEST_P(HwDenyModel, AgreesOverRandomSteps) {
    for (const PacketClass &cls : CLASSES) {
        atc_api_set_protocol_hw_deny_enable(cls.id, 1);  // floods from the first step on
    }
    show_module();
    constexpr uint64_t steps = 5000;
    for (uint64_t step = 1; step <= steps; ++step) {
        state()->hold.limit = chance(50) ? ATC_HOLD_LIMIT : 1 + below(200);
        follow_ = [] {};
        const char *name = take_step();
        const bool everything = step % 100 == 0 || step == steps;
        EXPECT_EQ(alarms(), std::exchange(model.log, {}));
        EXPECT_EQ(of_module(everything), of_model(everything));
        EXPECT_EQ(everything ? state_problems() : "", "");
        ASSERT_FALSE(HasFailure()) << "ATC_TEST_SEED=" << test_seed() << ", step " << step << ": " << name;
    }
    EXPECT_GT(model.rules_made, steps / 200) << "hardly a rule was made: the run shows little";
    EXPECT_GT(pauses_, steps / 50) << "hardly anything was cut: the run shows little";
}

// Each life begins with a new module and a new card.
uint32_t lives() {
    const char *given = std::getenv("ATC_MODEL_LIVES");
    return given != nullptr ? static_cast<uint32_t>(std::strtoul(given, nullptr, 0)) : 4;
}

INSTANTIATE_TEST_SUITE_P(Seeds, HwDenyModel, ::testing::Range(1U, lives() + 1));

}  // namespace
