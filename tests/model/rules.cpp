// rules.cpp: the model's automatic rules, configured filters, trunks and timers.
#include "atc/state/records.h"
#include "model.h"

constexpr uint32_t RULES_MAX = 100;
constexpr uint32_t NEVER_PORT = 255;

// ---- Automatic rules ------------------------------------------------------------------------------------------------

// 'source' owns the rule, or the flow itself; the rule is like the packet, which 'packet_source' sent.
void Model::deny(Flow &flow, std::optional<uint32_t> source, uint32_t packet_source) {
    const Limits &limit = limits[flow.cls->id];
    Owner &owner = source ? flow.sources.at(*source) : flow;
    if ((source ? limit.src_hw_deny : limit.hw_deny) != 1 || owner.record != nullptr || flow.port == NEVER_PORT) {
        return;
    }
    if (records.size() >= RULES_MAX) {
        seen->at_limit++;
        return;
    }
    Rule rule{flow.port, match_text(*flow.cls, flow.vlan, packet_source, source.has_value()), AUTOMATIC};
    const int result = install(rule);
    if (result < 0) {
        return;
    }
    if (result > 0 || !allocate()) {
        remove(rule);
        return;
    }
    records.push_front({rule, &flow, source});
    owner.record = &records.front();
    arm(records.front());
    seen->installed++;
}

// Its timer has fired and is off the list.
void Model::expire(Record &record) {
    record.timer = timers.end();
    const InChip *rule = by_stat(record.rule.stat_id);
    const uint64_t stopped = call(Call::chip_counters) || rule == nullptr ? 0 : rule->packets;
    uint32_t interval = 0;
    if (stopped != 0) {
        interval = static_cast<uint32_t>(stopped - record.last_packets);
        record.last_packets = stopped;
    }
    if (interval < fp_threshold(*record.flow, record.source.has_value())) {
        withdraw(owner_of(record));
        seen->expired++;
    } else {
        arm(record);
        seen->kept++;
    }
}

Model::Records::iterator Model::withdraw(Records::iterator record) {
    remove(record->rule);
    return forget(record);
}

Model::Records::iterator Model::forget(Records::iterator record) {
    owner_of(*record).record = nullptr;
    if (record->timer != timers.end()) {
        timers.erase(record->timer);
    }
    live--;
    return records.erase(record);
}

void Model::withdraw(const Owner &owner) {
    if (owner.record != nullptr) {
        withdraw(std::ranges::find_if(records, [&](const Record &record) { return &record == owner.record; }));
    }
}

Owner &Model::owner_of(const Record &record) const {
    return record.source ? record.flow->sources.at(*record.source) : *record.flow;
}

void Model::arm(Record &record) {
    record.timer = timers.insert({now + fast_period, {TimerKind::record, &record}});
}

// ---- Configured filters and trunks ----------------------------------------------------------------------------------

int Model::add_filter(Filter filter, bool valid, uint32_t *sdk_id) {
    const bool taken = std::ranges::any_of(filters, [&](const Filter &other) { return other.id == filter.id; });
    if (taken || !valid || install(filter.rule) < 0) {
        return -1;
    }
    if (!allocate()) {
        remove(filter.rule);
        return -1;
    }
    *sdk_id = filter.rule.sdk_id;
    filters.push_front(filter);
    return 0;
}

int Model::delete_filter(uint32_t id) {
    auto filter = std::ranges::find_if(filters, [id](const Filter &other) { return other.id == id; });
    if (filter == filters.end() || remove(filter->rule) < 0) {
        return -1;
    }
    filters.erase(filter);
    live--;
    return 0;
}

void Model::handle(const Message &message) {
    if (message.type == ATC_MSG_UPLOAD) {
        if (upload_enable == 1 && call(Call::upload)) {
            log();
        }
        live--;
        return;
    }
    const bool joins = message.type == ATC_MSG_TRUNK_JOIN;
    auto trunk = trunks.find(message.trunk);
    if (trunk == trunks.end()) {
        if (joins && allocate()) {
            move_rules(message.trunk, [&] { trunks[message.trunk] = {message.member}; });
        }
        return;
    }
    auto &members = trunk->second;
    const auto held = std::ranges::find(members, message.member);
    const auto slot = joins ? std::ranges::find(members, 0U) : held;
    if (slot != members.end() && (!joins || held == members.end())) {
        move_rules(message.trunk, [&] { *slot = joins ? message.member : 0; });
    }
}

// Every rule of the port is taken out, the membership changes, and the rules are put back; an automatic one that does
// not go back is given up.
template <typename change_t>
void Model::move_rules(uint32_t trunk, change_t change) {
    const auto each = [trunk](auto &list, auto visit) {
        for (auto &item : list) {
            if (item.rule.port == trunk) {
                visit(item.rule);
            }
        }
    };
    const auto take_out = [this](Rule &rule) { remove(rule); };
    each(filters, take_out);
    each(records, take_out);
    change();
    each(filters, [this](Rule &rule) { install(rule); });
    for (auto record = records.begin(); record != records.end();) {
        const bool lost = record->rule.port == trunk && install(record->rule) < 0;
        seen->given_up += lost ? 1 : 0;
        record = lost ? forget(record) : std::next(record);
    }
}

// ---- The monitor task -----------------------------------------------------------------------------------------------

void Model::turn() {
    if (!call(Call::receive) && !queue.empty()) {
        const Message message = queue.front();
        queue.pop_front();
        handle(message);
    }
    while (timers.begin()->first <= now) {
        const Timer timer = timers.begin()->second;
        timers.erase(timers.begin());
        switch (timer.kind) {
            case TimerKind::fast:
                fast_pass();
                break;
            case TimerKind::slow:
                long_pass();
                break;
            case TimerKind::day:
                day_pass();
                break;
            case TimerKind::record:
                expire(*timer.record);
                break;
        }
    }
}

// A period's timer; one that runs is moved.
void Model::arm(TimerKind kind, uint32_t seconds) {
    std::erase_if(timers, [kind](const auto &timer) { return timer.second.kind == kind; });
    timers.insert({now + seconds, {kind, nullptr}});
}
