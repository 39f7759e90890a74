// SPDX-License-Identifier: Apache-2.0
#include "module_tables.h"

#include <algorithm>
#include <cstring>

#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"
#include "figures.h"

namespace host {

namespace {

constexpr uint32_t kVlans = 4096;
constexpr uint32_t kBitsPerByte = 8;

TableFigures columns(const Figures &figures) {
    return {figures.count, figures.fast.latest_pps, figures.fast.peak, figures.fast.peak_pps, figures.fast.peak_time};
}

// A row for each key that ask(key, figures) knows; true when it does.
template <typename Ask>
bool add_row(std::vector<TableRow> &rows, uint32_t key, Ask ask) {
    const card::SleeplessScope now;
    Figures figures;
    const bool found = ask(key, figures);
    if (found) {
        rows.push_back({key, columns(figures)});
    }
    return found;
}

template <typename Ask>
std::vector<TableRow> rows_below(uint32_t end, Ask ask) {
    std::vector<TableRow> rows;
    for (uint32_t key = 0; key < end; key++) {
        add_row(rows, key, ask);
    }
    return rows;
}

bool read_line(const Subject &subject, const StandingAlarms &alarms, FlowLine &line) {
    const card::SleeplessScope now;
    Figures figures;
    if (!flow_figures(ATC_DIRECTION_RX, subject, figures)) {
        return false;
    }
    line = {subject, columns(figures), figures.fast.limit_pps, alarms.contains(subject), figures.cap_len};
    return true;
}

}  // namespace

std::vector<TableRow> protocol_rows(uint32_t direction) {
    return rows_below(ATC_PROTOCOL_COUNT + 1,
                      [direction](uint32_t id, Figures &figures) { return protocol_figures(direction, id, figures); });
}

std::vector<TableRow> port_rows(FlowAccount &account) {
    std::vector<TableRow> rows;
    account.each_port([&rows](uint32_t port) {
        return add_row(rows, port,
                       [](uint32_t key, Figures &figures) { return port_figures(ATC_DIRECTION_RX, key, figures); });
    });
    return rows;
}

std::vector<TableRow> vlan_rows() {
    return rows_below(kVlans,
                      [](uint32_t id, Figures &figures) { return vlan_figures(ATC_DIRECTION_RX, id, figures); });
}

bool read_flow_row(const FlowKey &flow, const StandingAlarms &alarms, FlowRow &row) {
    if (!read_line({flow, {}}, alarms, row.flow)) {
        return false;
    }
    for (const CountedSource &counted : flow_sources(ATC_DIRECTION_RX, flow)) {
        FlowLine line;
        if (read_line({flow, counted.source}, alarms, line)) {
            row.sources.push_back(std::move(line));
        }
    }
    std::ranges::sort(row.sources, comes_before, [](const FlowLine &line) { return line.subject.source; });
    return true;
}

size_t count_flow_lines(FlowAccount &account) {
    size_t lines = 0;
    account.each_flow([&lines](const FlowKey &flow) {
        const bool is_there = is_known({flow, {}});
        lines += is_there ? 1 + flow_sources(ATC_DIRECTION_RX, flow).size() : 0;
        return is_there;
    });
    return lines;
}

uint32_t flow_packets(const FlowKey &flow) {
    const card::SleeplessScope now;
    Figures figures;
    return flow_figures(ATC_DIRECTION_RX, {flow, {}}, figures) ? figures.count : 0;
}

std::vector<CountedSource> flow_sources(uint32_t direction, const FlowKey &flow) {
    // Room for all that there can be; asked for every flow in turn.
    static uint32_t types[ATC_SOURCES_PER_FLOW];
    static atc_src_stat_t records[ATC_SOURCES_PER_FLOW];
    uint32_t count = 0;
    std::vector<CountedSource> sources;
    if (atc_api_get_src_statistic(direction, flow.vlan, flow.port, flow.protocol, types, &count, records) != 0) {
        return sources;
    }
    sources.reserve(count);
    for (uint32_t i = 0; i < count; i++) {
        CountedSource counted{{types[i], {}}, records[i].count};
        std::memcpy(counted.source.bytes.data(), records[i].addr, address_bits(types[i]) / kBitsPerByte);
        sources.push_back(counted);
    }
    return sources;
}

}  // namespace host
