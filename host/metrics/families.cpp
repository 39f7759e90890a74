// SPDX-License-Identifier: Apache-2.0
#include "metrics/families.h"

#include <set>
#include <string>
#include <utility>

#include "addresses.h"
#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"

namespace host {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

// Of one name; leaves what has no rows out.
class Family {
public:
    Family(std::vector<MetricFamily> &all, MetricType type, const char *name, const char *help) : all_(all) {
        family_.name = std::string("anti_cpu_") + name;
        family_.help = help;
        family_.type = type;
    }
    ~Family() {
        if (!family_.metric.empty()) {
            all_.push_back(std::move(family_));
        }
    }
    Family(const Family &) = delete;
    Family &operator=(const Family &) = delete;

    template <typename Number>
    Family &add(Labels labels, Number value) {
        ClientMetric &metric = family_.metric.emplace_back();
        metric.label = std::move(labels);
        metric.counter.value = metric.gauge.value = static_cast<double>(value);
        return *this;
    }

private:
    std::vector<MetricFamily> &all_;
    MetricFamily family_;
};

constexpr MetricType kCounter = MetricType::Counter;
constexpr MetricType kGauge = MetricType::Gauge;

std::string class_name(uint32_t protocol) {
    return protocol == 0 ? "none" : protocol_name(protocol);
}

Labels port_class(const PortClass &key) {
    return {{"port", std::to_string(key.port)}, {"class", class_name(key.protocol)}};
}

Labels packet_labels(const PortClass &key, const char *verdict, const char *direction) {
    return {{"port", std::to_string(key.port)},
            {"direction", direction},
            {"class", class_name(key.protocol)},
            {"verdict", verdict}};
}

constexpr double seconds(int64_t ns) {
    return static_cast<double>(ns) / static_cast<double>(card::kNanosecondsPerSecond);
}

constexpr struct {
    Fate fate;
    const char *verdict;
    const char *direction;
} kFateLabels[] = {{Fate::kPassed, "passed", "rx"},
                   {Fate::kDropped, "dropped", "rx"},
                   {Fate::kFiltered, "filtered", "rx"},
                   {Fate::kSent, "sent", "tx"}};

void add_packets(std::vector<MetricFamily> &all, const Snapshot &snapshot) {
    Family packets(all, kCounter, "packets_total",
                   "Packets for and from this processor by class: stopped by a rule of the chip, dropped by a software "
                   "deny, filtered by an operator's filter, passed to the system, sent. Class none: of no class, or "
                   "stopped by a filter in the chip.");
    Family bytes(all, kCounter, "bytes_total", "Bytes of the same, without those that the chip stopped.");
    for (const auto &[key, row] : snapshot.classes) {
        if (row.stopped > 0) {
            packets.add(packet_labels(key, "stopped", "rx"), row.stopped);
        }
        for (const auto &[fate, verdict, direction] : kFateLabels) {
            const PacketCount &count = row.fates.at(static_cast<size_t>(fate));
            if (count.packets > 0) {
                packets.add(packet_labels(key, verdict, direction), count.packets);
                bytes.add(packet_labels(key, verdict, direction), count.bytes);
            }
        }
    }
}

void add_ports(std::vector<MetricFamily> &all, const Snapshot &snapshot) {
    Family packets(
        all, kCounter, "port_packets_total",
        "Packets of a port as the kernel counts them, as show card has them: stopped, dropped, passed, "
        "transit (not for this processor), blind (let through while the process did not show itself), sent.");
    Family lost(all, kCounter, "lost_copies_total",
                "Packets that were passed or stopped without a copy for the limiter, because the ring was full.");
    Family is_protected(all, kGauge, "port_protected", "1: the kernel's program is attached to the port's interface.");
    for (const PortSnapshot &port : snapshot.ports) {
        const PortState &state = port.state;
        const std::string number = std::to_string(state.port);
        const std::pair<const char *, uint64_t> received[] = {{"stopped", state.counts.stopped},
                                                              {"dropped", state.counts.dropped},
                                                              {"passed", state.counts.passed},
                                                              {"transit", state.transit},
                                                              {"blind", state.blind}};
        for (const auto &[verdict, count] : received) {
            packets.add({{"port", number}, {"direction", "rx"}, {"verdict", verdict}}, count);
        }
        packets.add({{"port", number}, {"direction", "tx"}, {"verdict", "sent"}}, state.sent);
        lost.add({{"port", number}}, state.lost);
        is_protected.add({{"port", number}, {"interface", state.interface}}, port.is_protected ? 1 : 0);
    }
}

void add_floods(std::vector<MetricFamily> &all, const Snapshot &snapshot) {
    Family flows(all, kGauge, "flows_over_limit", "Flows (port, VLAN, class) whose fast-period alarm stands.");
    Family senders(all, kGauge, "sources_over_limit", "Senders whose fast-period alarm stands.");
    for (const auto &[key, over] : snapshot.over_limit) {
        flows.add(port_class(key), over.flows);
        senders.add(port_class(key), over.sources);
    }
    Family named(all, kGauge, "flooding_source_packets_per_second",
                 "Rate of a sender that floods, as the limiter or the chip's rule against it measured it last. At most "
                 "10 senders a port and 100 in all are named.");
    for (const FloodingSource &source : snapshot.sources) {
        Labels labels = port_class({source.subject.flow.port, source.subject.flow.protocol});
        labels.push_back({"vlan", std::to_string(source.subject.flow.vlan)});
        labels.push_back({"source", source_text(source.subject.source)});
        named.add(std::move(labels), source.rate_pps);
    }
    Family(all, kGauge, "flooding_sources_unnamed", "Senders that flood, beyond those named.")
        .add({}, snapshot.sources_left_out);
    Family alarms(all, kCounter, "alarms_total", "Alarms raised, by class and by the period whose limit was passed.");
    for (uint32_t id = 0; id < snapshot.alarms.size(); id++) {
        for (const auto &[slot, period] : {std::pair{0U, "fast"}, std::pair{1U, "long"}}) {
            if (const uint64_t raised = snapshot.alarms.at(id).at(slot); raised > 0) {
                alarms.add({{"class", class_name(id)}, {"period", period}}, raised);
            }
        }
    }
}

// Of the classes that there have been packets of.
void add_limits(std::vector<MetricFamily> &all, const Snapshot &snapshot) {
    std::set<uint32_t> classes;
    for (const auto &[key, row] : snapshot.classes) {
        classes.insert(key.protocol);
    }
    classes.erase(0);
    Family limits(all, kGauge, "limit_packets_per_second", "What each flow, or each sender of it, may have.");
    for (const uint32_t id : classes) {
        const ProtocolSettings &of = snapshot.settings.protocols.at(id);
        const auto add = [&](const char *scope, const char *period, uint32_t limit) {
            limits.add({{"class", class_name(id)}, {"scope", scope}, {"period", period}}, limit);
        };
        add("flow", "fast", of.fast_limit);
        add("flow", "long", of.long_limit);
        add("source", "fast", of.source_fast_limit);
        add("source", "long", of.source_long_limit);
    }
    Family rates(all, kGauge, "class_packets_per_second",
                 "What the limiter was shown of a class in the last whole fast period, all flows together.");
    for (const auto &[direction, of_classes] : snapshot.class_rates) {
        for (const uint32_t id : classes) {
            rates.add({{"class", class_name(id)}, {"direction", direction == ATC_DIRECTION_RX ? "rx" : "tx"}},
                      of_classes.at(id));
        }
    }
    Family(all, kGauge, "limiter_enabled", "1: the limiter judges packets; 0: it has been switched off.")
        .add({}, snapshot.settings.enabled ? 1 : 0);
    Family(all, kGauge, "fast_period_seconds", "Length of a fast period.").add({}, snapshot.settings.fast_period_s);
}

void add_chip(std::vector<MetricFamily> &all, const Snapshot &snapshot) {
    const ChipSnapshot &chip = snapshot.chip;
    const card::ChipUse &use = chip.use;
    Family(all, kGauge, "chip_rules", "Rules in the chip: the limiter's own, and the operator's filters.")
        .add({{"kind", "automatic"}}, chip.automatic)
        .add({{"kind", "filter"}}, chip.filters);
    Family(all, kGauge, "chip_rules_free", "Rules that the chip has room for.")
        .add({}, use.capacity > use.in_chip ? use.capacity - use.in_chip : 0);
    Family(all, kGauge, "chip_rules_peak", "The most that were in the chip at once.").add({}, use.most_in_chip);
    Family(all, kGauge, "chip_rules_in_software", "Those among them that found no room and are software denies.")
        .add({}, use.in_software);
    Family(all, kCounter, "chip_rules_installed_total", "Rules that went into the chip.")
        .add({}, snapshot.rules.installed);
    Family(all, kCounter, "chip_rules_withdrawn_total", "Rules that were taken out of it.")
        .add({}, snapshot.rules.withdrawn);
    Family(all, kCounter, "chip_rules_refused_total", "Rules that it refused, each once until it was installed.")
        .add({}, snapshot.rules.refused);
    Family(all, kGauge, "software_denies", "Flows and senders that are dropped in front of the system's stack.")
        .add({}, chip.software_denies);
    Family(all, kGauge, "software_denies_peak", "The most at once.").add({}, chip.most_software_denies);
    Family(all, kCounter, "software_denies_refused_total", "Those that found no room in the kernel.")
        .add({}, chip.software_denies_refused);
}

void add_process(std::vector<MetricFamily> &all, const Snapshot &snapshot) {
    const ProcessSnapshot &process = snapshot.process;
    Family(all, kGauge, "ring_size_bytes", "Room for copies on their way to the limiter.").add({}, process.ring_size);
    Family(all, kGauge, "ring_used_bytes", "What of it is in use.").add({}, process.ring_used);
    Family(all, kGauge, "ring_peak_bytes", "The most that was in use in the last minute or two.")
        .add({}, process.ring_peak);
    Family(
        all, kGauge, "longest_packet_wait_seconds",
        "The longest that a copy waited for the limiter in the last minute or two, of those measured (one in 64). The "
        "packet itself has not waited.")
        .add({}, seconds(process.longest_wait_ns));
    Family(all, kGauge, "memory_bytes", "Memory of the limiter.").add({}, process.memory);
    Family(all, kGauge, "memory_budget_bytes", "What it may use; 0: no limit.").add({}, process.memory_budget);
    Family(all, kCounter, "memory_refused_blocks_total",
           "Blocks that the budget forbade: flows and senders not counted.")
        .add({}, process.memory_refused);
    const CaptureTotals &captures = snapshot.captures;
    Family(all, kCounter, "captures_total", "Captures that became full, and files that were written of them.")
        .add({{"event", "full"}}, captures.full)
        .add({{"event", "written"}}, captures.written);
    Family(all, kCounter, "capture_written_bytes_total", "Bytes of the files.").add({}, captures.written_bytes);
    Family(all, kCounter, "uploads_total", "Files handed to a server.")
        .add({{"result", "arrived"}}, captures.uploaded)
        .add({{"result", "failed"}}, captures.upload_failed);
    Family lost(all, kCounter, "lost_lines_total",
                "Events and messages that found no room, because who reads is slow.");
    for (const OutputState &output : snapshot.outputs) {
        lost.add({{"output", output.kind}}, output.counts.lost);
    }
    Family(all, kGauge, "scrape_work_seconds", "What the scrape before this one took of the thread that reads copies.")
        .add({}, seconds(process.gathering_ns));
    Family(all, kGauge, "scrape_longest_slice_seconds", "The longest that it kept that thread from copies.")
        .add({}, seconds(process.longest_slice_ns));
    Family(all, kGauge, "build_info", "1; the version of the limiter's library.").add({{"version", atc_version()}}, 1);
}

}  // namespace

std::vector<MetricFamily> families(const Snapshot &snapshot) {
    std::vector<MetricFamily> all;
    add_packets(all, snapshot);
    add_ports(all, snapshot);
    add_floods(all, snapshot);
    add_limits(all, snapshot);
    add_chip(all, snapshot);
    add_process(all, snapshot);
    return all;
}

}  // namespace host
