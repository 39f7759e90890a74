// packets.cpp: the model's counting, period passes and clears.
#include "atc/state/records.h"
#include "model.h"

constexpr uint32_t UNTRACKED_VLAN = 4089;
constexpr uint32_t BUFFER_SIZE = 102400;
constexpr uint32_t CAPTURES_MAX = 10;

int Model::receive(uint32_t port, uint32_t vlan, const PacketClass &cls, uint32_t source, uint32_t len) {
    if (enabled != 1) {
        return 0;
    }
    rx.count++;
    if (!count(vlans, vlan)) {
        return -1;
    }
    if (vlan == UNTRACKED_VLAN) {
        return 0;
    }
    if (!count(ports, port) || !count(rx_protocols, cls.id)) {
        return -1;
    }
    auto found = flows.find({port, vlan, cls.id});
    if (found == flows.end()) {
        if (!allocate()) {
            return -1;
        }
        found = flows.emplace(FlowKey{port, vlan, cls.id}, Flow{{}, port, vlan, &cls, {}}).first;
    }
    Flow &flow = found->second;
    flow.count++;
    const int verdict = flow.sw_deny ? -1 : 0;
    capture(flow, len);
    const bool over = flow.count - flow.fast.start >= fp_threshold(flow, false);
    if (over) {
        deny(flow, std::nullopt, source);
    }
    return cls.src_type != ATC_SRC_NONE && (over || flow.fp_alarm) ? count_source(flow, source, len, verdict) : verdict;
}

int Model::count_source(Flow &flow, uint32_t source, uint32_t len, int verdict) {
    if (!flow.sources.contains(source) && !allocate()) {
        return -1;
    }
    Owner &owner = flow.sources[source];
    if (owner.count++ - owner.fast.start > fp_threshold(flow, true)) {
        deny(flow, source, source);
    }
    capture(owner, len);
    return owner.sw_deny ? -1 : verdict;
}

int Model::send(const PacketClass &cls) {
    if (enabled != 1) {
        return 0;
    }
    tx.count++;
    return count(tx_protocols, cls.sent_id) ? 0 : -1;
}

bool Model::count(Index &index, uint32_t key) {
    if (!index.contains(key) && !allocate()) {
        return false;
    }
    index[key].count++;
    return true;
}

void Model::capture(Owner &owner, uint32_t len) {
    if (!owner.cap_on) {
        return;
    }
    if (owner.cap_len + len + 16 < BUFFER_SIZE) {
        owner.cap_len += len + 16;
        return;
    }
    if (upload_enable == 1 && allocate() && !post({ATC_MSG_UPLOAD, 0, 0})) {
        live--;
    }
    log();
    owner.cap_on = false;
}

void Model::release_capture(Owner &owner) {
    if (owner.cap_len != 0) {
        owner.cap_on = false;
        owner.cap_len = 0;
        captures--;
        live--;
    }
}

// An enable (in the order of the setters) was set to 0.
void Model::end(const PacketClass &cls, uint32_t enable) {
    const bool of_sources = enable % 2 == 1;
    for (auto &[key, flow] : flows) {
        if (enable > 1 || flow.cls != &cls) {
            continue;
        }
        flow.sw_deny = flow.sw_deny && of_sources;
        for (auto &[number, source] : flow.sources) {
            source.sw_deny = source.sw_deny && !of_sources;
        }
    }
    if (enable >= 4) {
        withdraw_if(
            [&](const Record &record) { return record.flow->cls == &cls && record.source.has_value() == of_sources; });
    }
}

// ---- Clears ---------------------------------------------------------------------------------------------------------

void Model::clear(Owner &owner) {
    release_capture(owner);
    static_cast<Counter &>(owner) = {};
}

std::map<uint32_t, Owner>::iterator Model::discard(Flow &flow, std::map<uint32_t, Owner>::iterator source) {
    withdraw(source->second);
    release_capture(source->second);
    live--;
    return flow.sources.erase(source);
}

std::map<FlowKey, Flow>::iterator Model::discard(std::map<FlowKey, Flow>::iterator flow) {
    for (auto source = flow->second.sources.begin(); source != flow->second.sources.end();) {
        source = discard(flow->second, source);
    }
    withdraw(flow->second);
    release_capture(flow->second);
    live--;
    return flows.erase(flow);
}

void Model::clear_all() {
    for (auto flow = flows.begin(); flow != flows.end();) {
        flow = discard(flow);
    }
    each_index([this](Index &index) {
        live -= index.size();
        index.clear();
    });
    rx = {};
    tx = {};
}

// ---- Passes ---------------------------------------------------------------------------------------------------------

void Model::fast_pass() {
    for (auto &[key, flow] : flows) {
        judge_fast(flow, flow, false);
        for (auto &[number, source] : flow.sources) {
            judge_fast(flow, source, true);
        }
    }
    each_index([](Index &index) {
        for (auto &[key, counter] : index) {
            counter.fast.close(counter.count);
        }
    });
    rx.fast.close(rx.count);
    tx.fast.close(tx.count);
    arm(TimerKind::fast, fast_period);
}

void Model::judge_fast(Flow &flow, Owner &owner, bool is_source) {
    const uint32_t n = owner.fast.close(owner.count);
    const Limits &limit = limits[flow.cls->id];
    if (n <= fp_threshold(flow, is_source)) {
        if (owner.fp_alarm) {
            owner.fp_alarm = owner.sw_deny = owner.cap_on = false;
            log();
        }
        return;
    }
    if (!owner.fp_alarm) {
        owner.fp_alarm = true;
        seen->alarms++;
        log();
    }
    owner.sw_deny = owner.sw_deny || (is_source ? limit.src_deny : limit.deny) == 1;
    const bool wanted = (is_source ? limit.src_cap : limit.cap) == 1;
    if (wanted && owner.cap_len == 0 && captures < CAPTURES_MAX && allocate()) {
        owner.cap_on = true;
        owner.cap_len = 24;
        captures++;
    }
}

void Model::long_pass() {
    for (auto &[key, flow] : flows) {
        judge_long(flow, flow, false, flow.slow.close(flow.count));
        for (auto source = flow.sources.begin(); source != flow.sources.end();) {
            const uint32_t n = source->second.slow.close(source->second.count);
            judge_long(flow, source->second, true, n);
            seen->aged += n == 0 ? 1 : 0;
            source = n == 0 ? discard(flow, source) : std::next(source);
        }
    }
    each_index([](Index &index) {
        for (auto &[key, counter] : index) {
            counter.slow.close(counter.count);
        }
    });
    rx.slow.close(rx.count);
    tx.slow.close(tx.count);
    arm(TimerKind::slow, long_period);
}

void Model::judge_long(Flow &flow, Owner &owner, bool is_source, uint32_t n) {
    if (owner.lp_alarm != (n > lp_threshold(flow, is_source))) {
        owner.lp_alarm = !owner.lp_alarm;
        log();
    }
}

void Model::day_pass() {
    for (auto flow = flows.begin(); flow != flows.end();) {
        auto &sources = flow->second.sources;
        for (auto source = sources.begin(); source != sources.end();) {
            release_capture(source->second);
            source = source->second.count == 0 ? discard(flow->second, source) : std::next(source);
        }
        release_capture(flow->second);
        flow = flow->second.count == 0 ? discard(flow) : std::next(flow);
    }
    each_index([this](Index &index) {
        live -= std::erase_if(index, [](const auto &entry) { return entry.second.count == 0; });
    });
    arm(TimerKind::day, 86400);
}
