// model.cpp: see model.h.
#include "model.h"

#include <algorithm>

#include "atc/state/records.h"

constexpr uint32_t UNTRACKED_VLAN = 4089;
constexpr uint32_t RULES_MAX = 100;
constexpr size_t QUEUE_CAPACITY = 256;
constexpr uint32_t NEVER_PORT = 255;

Model::Model() {
    for (const PacketClass &cls : CLASSES) {
        limits[cls.id] = {{cls.limit, cls.limit}};
    }
    arm(&Model::fast_pass, fast_period);
    arm(&Model::long_pass, long_period);
    arm(&Model::day_pass, 86400);
}

int Model::receive(uint32_t port, uint32_t vlan, const PacketClass &cls, uint32_t source) {
    rx++;
    if (!count(indexes[1], vlan)) {
        return -1;
    }
    if (vlan == UNTRACKED_VLAN) {
        return 0;
    }
    if (!count(indexes[0], port) || !count(indexes[2], cls.id) || (!flows.contains({port, vlan, cls.id}) && !memory)) {
        return -1;
    }
    Flow &flow = flows.try_emplace({port, vlan, cls.id}, Flow{{}, port, vlan, &cls, {}}).first->second;
    const bool over = ++flow.count - flow.fast_start >= threshold(flow, false);
    if (over) {
        deny(flow, 0);
    }
    if (cls.src_type == ATC_SRC_NONE || (!over && !flow.alarm)) {
        return 0;
    }
    if (!flow.sources.contains(source) && !memory) {
        return -1;
    }
    Owner &owner = flow.sources[source];
    if (owner.count++ - owner.fast_start > threshold(flow, true)) {
        deny(flow, source);
    }
    return 0;
}

bool Model::count(Index &index, uint32_t key) {
    if (!memory && !index.contains(key)) {
        return false;
    }
    index[key]++;
    return true;
}

uint32_t Model::threshold(const Flow &flow, bool is_source) const {
    return fast_period * limits.at(flow.cls->id).pps[is_source];
}

// A packet of the flow, or of this source, is over the threshold.
void Model::deny(Flow &flow, uint32_t source) {
    const auto same = [&](const Record &record) { return record.flow == &flow && record.source == source; };
    if (limits[flow.cls->id].hw_deny[source != 0] != 1 || std::ranges::any_of(records, same) ||
        flow.port == NEVER_PORT) {
        return;
    }
    if (records.size() >= RULES_MAX) {
        seen["refused at the limit"]++;
    } else if (Record record{&flow, source}; install(record)) {
        if (!memory) {
            return remove(record);
        }
        records.push_front(record);
        timers.insert({now + fast_period, {nullptr, &records.front()}});
        seen["installed"]++;
    }
}

bool Model::install(Record &record) {
    const std::optional<RuleKey> rule = key(record);
    if (!rule || fails(Call::chip_set) || chip.contains(*rule)) {
        return false;
    }
    const uint32_t nth = rules_made++;
    chip[*rule] = {FakePlatform::first_entry_id + nth, FakePlatform::first_stat_id + nth, 0};
    record.sdk_id = fails(Call::chip_entry_id) ? 0 : FakePlatform::first_entry_id + nth;
    record.stat_id = fails(Call::chip_stat_id) ? 0 : FakePlatform::first_stat_id + nth;
    return true;
}

// A rule whose delete fails stays in the chip, and in the way of another like it.
void Model::remove(Record &record) {
    const std::optional<RuleKey> rule = key(record);
    if (rule && !fails(Call::chip_delete) && chip.erase(*rule) != 0) {
        record.sdk_id = 0;
    }
}

// The rule as the chip knows it: its ports are those of this moment. None when no port is left.
std::optional<Model::RuleKey> Model::key(const Record &record) const {
    const Flow &flow = *record.flow;
    std::vector<uint32_t> members{flow.port};
    if (auto trunk = trunks.find(flow.port); trunk != trunks.end()) {
        members.assign(trunk->second.begin(), trunk->second.end());
        std::erase(members, 0U);
    }
    if (members.empty()) {
        return std::nullopt;
    }
    return RuleKey{flow.cls->rule, flow.vlan, flow.cls->names_source ? record.source : 0, members};
}

void Model::forget(const Record &record) {
    std::erase_if(timers, [&](const auto &timer) { return timer.second.record == &record; });
    records.remove_if([&](const Record &other) { return &other == &record; });
}

// Its timer has fired and is off the list.
void Model::expire(Record &record) {
    const InChip *rule = by_stat(record.stat_id);
    const uint64_t stopped = fails(Call::chip_counters) || rule == nullptr ? 0 : rule->packets;
    uint32_t interval = 0;
    if (stopped != 0) {
        interval = static_cast<uint32_t>(stopped - record.last_packets);
        record.last_packets = stopped;
    }
    if (interval < threshold(*record.flow, record.source != 0)) {
        remove(record);
        forget(record);
        seen["withdrawn at a check"]++;
    } else {
        timers.insert({now + fast_period, {nullptr, &record}});
        seen["kept at a check"]++;
    }
}

// A call of this kind is made: whether it fails by plan.
bool Model::fails(Call kind) {
    Plan &plan = plans[kind];
    if (plan.in == 0 || --plan.in > 0) {
        return false;
    }
    plan.in = plan.from_then_on ? 1 : 0;
    return true;
}

void Model::post(const TrunkChange &change) {
    if (!fails(Call::send) && queue.size() < QUEUE_CAPACITY) {
        queue.push_back(change);
    }
}

InChip *Model::by_stat(uint32_t stat_id) {
    auto found = std::ranges::find_if(chip, [&](const auto &rule) { return rule.second.stat_id == stat_id; });
    return found != chip.end() ? &found->second : nullptr;
}

void Model::handle(const TrunkChange &change) {
    const bool known = trunks.contains(change.trunk);
    if (!known && !(change.joins && memory)) {
        return;
    }
    Members members = known ? trunks[change.trunk] : Members{};
    const auto held = std::ranges::find(members, change.member);
    const auto slot = change.joins ? std::ranges::find(members, 0U) : held;
    if (slot != members.end() && (!change.joins || held == members.end())) {
        *slot = change.joins ? change.member : 0;
        move_rules(change.trunk, members);
    }
}

// Every rule of the port is taken out, the membership changes, the rules are put back; one that does not go back is
// given up.
void Model::move_rules(uint32_t trunk, const Members &members) {
    for (Record &record : records) {
        if (record.flow->port == trunk) {
            remove(record);
        }
    }
    trunks[trunk] = members;
    for (auto record = records.begin(); record != records.end();) {
        Record &moved = *record++;
        if (moved.flow->port == trunk && !install(moved)) {
            forget(moved);
            seen["given up at a trunk's change"]++;
        }
    }
}

void Model::turn() {
    if (!fails(Call::receive) && !queue.empty()) {
        const TrunkChange change = queue.front();
        queue.pop_front();
        handle(change);
    }
    while (timers.begin()->first <= now) {
        const Timer timer = timers.begin()->second;
        timers.erase(timers.begin());
        timer.record != nullptr ? expire(*timer.record) : (this->*timer.pass)();
    }
}

// A period's timer; one that runs is moved.
void Model::arm(void (Model::*pass)(), uint32_t seconds) {
    std::erase_if(timers, [pass](const auto &timer) { return timer.second.pass == pass; });
    timers.insert({now + seconds, {pass, nullptr}});
}

void Model::fast_pass() {
    const auto judge = [](Owner &owner, uint32_t most) {
        owner.alarm = owner.count - owner.fast_start > most;
        owner.fast_start = owner.count;
    };
    for (auto &[key, flow] : flows) {
        judge(flow, threshold(flow, false));
        for (auto &[number, source] : flow.sources) {
            judge(source, threshold(flow, true));
        }
    }
    arm(&Model::fast_pass, fast_period);
}

// Sources that were silent for a long period are forgotten, but for those that the chip silences.
void Model::long_pass() {
    for (auto &[key, flow] : flows) {
        discard_sources(flow, [&, &of = flow](uint32_t number, Owner &source) {
            const bool is_stopped = std::ranges::any_of(
                records, [&](const Record &record) { return record.flow == &of && record.source == number; });
            const bool silent = source.count == source.slow_start;
            source.slow_start = source.count;
            seen[is_stopped ? "silenced sources" : "silent sources"] += silent ? 1 : 0;
            return silent && !is_stopped;
        });
    }
    arm(&Model::long_pass, long_period);
}

// What was cleared and has not been heard of since is forgotten.
void Model::day_pass() {
    for (auto next = flows.begin(); next != flows.end();) {
        const auto flow = next++;
        discard_sources(flow->second, [](uint32_t, const Owner &source) { return source.count == 0; });
        if (flow->second.count == 0) {
            discard_rules(flow->second);
            flows.erase(flow);
        }
    }
    arm(&Model::day_pass, 86400);
}

void Model::clear_all() {
    for (const auto &[key, flow] : flows) {
        discard_rules(flow);
    }
    flows.clear();
    indexes = {};
    rx = 0;
}

template <typename gone_t>
void Model::discard_sources(Flow &flow, gone_t gone) {
    for (auto next = flow.sources.begin(); next != flow.sources.end();) {
        if (const auto source = next++; gone(source->first, source->second)) {
            discard(flow, source->first);
            flow.sources.erase(source);
        }
    }
}

void Model::discard_rules(const Flow &flow) {
    for (const auto &[number, source] : flow.sources) {
        discard(flow, number);
    }
    discard(flow, 0);
}

// The owner's rule, if there is one.
void Model::discard(const Flow &flow, uint32_t source) {
    withdraw_if([&](const Record &record) { return record.flow == &flow && record.source == source; });
}
