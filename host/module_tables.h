// module_tables.h: the module's tables as data.
//
// The module gives its figures per entry as text tables only (its queries cost a second each), so that text is read
// back here: the one place that knows its columns. Numbers of 2^31 and more are printed negative by the module and come
// out right. Used by: report (data), flow_verdicts, captures_folder (who holds a capture), the console. Thread: the
// driving one.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "flow_key.h"

namespace host {

struct TableRow {
    std::string key;  // protocol name, port or VLAN
    uint32_t packets = 0;
    uint32_t speed_pps = 0;
    uint32_t peak_packets = 0;
    uint32_t peak_pps = 0;
    std::string peak_time;    // empty = no peak yet
    bool over_limit = false;  // of a flow or source: its fast-period alarm is raised
};

struct SourceRow {
    Source source;
    TableRow figures;
};

struct FlowRow {
    uint32_t port = 0;
    uint32_t vlan = 0;
    uint32_t protocol = 0;
    TableRow figures;
    std::vector<SourceRow> sources;
};

// 'report' is one of the table operations, such as atc_api_get_rx_port_stat_brief.
std::vector<TableRow> table_rows(int (*report)(char **text));

std::vector<FlowRow> flow_rows();

// How many packets the module counted for each received flow since it was cleared. Packets without a class are counted
// with those of unknown protocol: the module shows both under one name.
struct FlowCounts {
    std::map<FlowKey, uint64_t> packets;
    bool complete;  // false: the module's text has no room for all flows
};
FlowCounts flow_counts();

// A flow's sources, busiest first, with their packet counts; empty when there are none.
struct CountedSource {
    Source source;
    uint32_t packets;
};
std::vector<CountedSource> flow_sources(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol);

}  // namespace host
