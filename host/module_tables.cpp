#include "module_tables.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <unordered_map>

#include "anti_cpu/anti_cpu.h"
#include "module_text.h"

namespace host {

namespace {

constexpr size_t kKeyWidth = 44;    // of the flow table
constexpr size_t kKeyLongest = 63;  // characters; longer ones are cut
// The flow table ends at the last line that has room: one that comes within a line's length of that may be cut.
constexpr size_t kFlowTableSize = 2097152;  // bytes
constexpr size_t kFlowLineLongest = 256;    // bytes

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<std::string> body_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    std::getline(stream, line);  // header
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

// The columns behind the key. A flow's line ends with YES or NO.
TableRow read_columns(const std::string &key, const char *columns, bool of_flow) {
    TableRow row;
    row.key = key;
    uint32_t *const numbers[] = {&row.packets, &row.speed_pps, &row.peak_packets, &row.peak_pps};
    for (uint32_t *number : numbers) {
        char *end = nullptr;
        *number = static_cast<uint32_t>(std::strtoll(columns, &end, 10));
        columns = end;
    }
    row.peak_time = trimmed(columns);
    if (of_flow) {
        const size_t blank = row.peak_time.find_last_of(' ');
        const std::string last = blank == std::string::npos ? row.peak_time : row.peak_time.substr(blank + 1);
        row.over_limit = last == "YES";
        row.peak_time = blank == std::string::npos ? std::string() : trimmed(row.peak_time.substr(0, blank));
    }
    return row;
}

// A flow's own line of the flow table; its sources' lines are none.
bool read_flow(const std::string &line, FlowRow &flow) {
    char name[32] = "";
    char rest[8] = "";
    if (std::sscanf(line.c_str(), "%u/%u/%31[^/]/%5s", &flow.port, &flow.vlan, name, rest) != 4 ||
        std::strcmp(rest, "NULL") != 0) {
        return false;
    }
    flow.protocol = parse_protocol(name);
    flow.figures = read_columns("", line.c_str() + kKeyWidth, true);
    return true;
}

// Source of each key text that the flow table can show for this flow.
std::unordered_map<std::string, Source> source_keys(const FlowRow &flow) {
    std::unordered_map<std::string, Source> keys;
    const std::string front =
        std::to_string(flow.port) + "/" + std::to_string(flow.vlan) + "/" + protocol_name(flow.protocol) + "/";
    const char *const words[] = {"", "mac ", "ip ", "ipv6 "};
    for (const CountedSource &counted : flow_sources(ATC_DIRECTION_RX, flow.vlan, flow.port, flow.protocol)) {
        const std::string key = front + words[counted.source.type] + source_text(counted.source);
        keys.emplace(key.substr(0, kKeyLongest), counted.source);
    }
    return keys;
}

// A key of the column's width or more touches the number behind it: only the known keys tell where it ends.
bool read_source(const std::string &line, const std::unordered_map<std::string, Source> &keys, SourceRow &row) {
    size_t length = std::min(line.size(), kKeyLongest);
    while (length > 0) {
        const std::string key = line.substr(0, length);
        const auto found = keys.find(key);
        if (found != keys.end()) {
            row.source = found->second;
            row.figures = read_columns(source_text(row.source), line.c_str() + length, true);
            return true;
        }
        length--;
    }
    return false;
}

}  // namespace

std::vector<TableRow> table_rows(int (*report)(char **text)) {
    std::vector<TableRow> rows;
    for (const std::string &line : body_lines(report_text(report))) {
        const size_t end = std::min(line.find(' '), line.size());
        rows.push_back(read_columns(line.substr(0, end), line.c_str() + end, false));
    }
    return rows;
}

std::vector<FlowRow> flow_rows() {
    std::vector<FlowRow> flows;
    std::unordered_map<std::string, Source> keys;
    bool keys_known = false;
    for (const std::string &line : body_lines(report_text(atc_api_get_stat_brief))) {
        FlowRow flow;
        if (read_flow(line, flow)) {
            flows.push_back(std::move(flow));
            keys_known = false;
        } else if (!flows.empty()) {
            if (!keys_known) {
                keys = source_keys(flows.back());
                keys_known = true;
            }
            SourceRow row;
            if (read_source(line, keys, row)) {
                flows.back().sources.push_back(std::move(row));
            }
        }
    }
    return flows;
}

FlowCounts flow_counts() {
    const std::string text = report_text(atc_api_get_stat_brief);
    const std::vector<std::string> lines = body_lines(text);
    const size_t module_size = text.size() + lines.size();  // it ends its lines with "\r\n"
    FlowCounts counts{{}, module_size + kFlowLineLongest < kFlowTableSize};
    for (const std::string &line : lines) {
        FlowRow flow;
        if (read_flow(line, flow)) {
            counts.packets[{flow.port, flow.vlan, flow.protocol}] += flow.figures.packets;
        }
    }
    return counts;
}

std::vector<CountedSource> flow_sources(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol) {
    std::vector<uint32_t> types(ATC_SOURCES_PER_FLOW);
    std::vector<atc_src_stat_t> records(ATC_SOURCES_PER_FLOW);
    uint32_t count = 0;
    std::vector<CountedSource> sources;
    if (atc_api_get_src_statistic(direction, vlan, port, protocol, types.data(), &count, records.data()) != 0) {
        return sources;
    }
    for (uint32_t i = 0; i < count; i++) {
        CountedSource counted{{types[i] <= ATC_SRC_IPV6 ? types[i] : uint32_t{ATC_SRC_NONE}, {}}, records[i].count};
        std::memcpy(counted.source.bytes.data(), records[i].addr, sizeof(records[i].addr));
        sources.push_back(counted);
    }
    return sources;
}

}  // namespace host
