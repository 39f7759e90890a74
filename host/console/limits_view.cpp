// SPDX-License-Identifier: Apache-2.0
#include "console/limits_view.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "console/dump_data.h"
#include "text_table.h"

namespace host::console {

namespace {

constexpr const char *kMark = "*";

// Marked cells line up with the others.
std::string cell(const std::string &text, bool is_default) {
    return text + (is_default ? " " : kMark);
}

std::string limit_cell(const Json &row, const char *key, uint32_t otherwise) {
    const uint32_t limit = row.at(key);
    return cell(std::to_string(limit), limit == otherwise);
}

// Every reaction is off by default.
std::string switch_cell(const Json &row, const char *key) {
    const bool on = row.at(key) == 1;
    return cell(on ? "on" : "off", !on);
}

}  // namespace

void print_limits(uint32_t protocol, const ModuleSettings &defaults) {
    std::vector<TextTable::Column> columns{{"packets/s", TextTable::Align::kLeft}};
    for (const char *heading :
         {"fast", "long", "deny", "hw-deny", "capture", "source:fast", "long", "deny", "hw-deny", "capture"}) {
        columns.push_back({heading, TextTable::Align::kRight});
    }
    TextTable table(columns);
    const Json all = limits_json();
    for (uint32_t id = 1; id <= all.size(); id++) {
        if (protocol != 0 && id != protocol) {
            continue;
        }
        const Json &row = all.at(id - 1);
        const ProtocolSettings &by_default = defaults.protocols.at(id);
        table.add({row.at("protocol"), limit_cell(row, "fp_limit", by_default.fast_limit),
                   limit_cell(row, "lp_limit", by_default.long_limit), switch_cell(row, "deny"),
                   switch_cell(row, "hw_deny"), switch_cell(row, "cap"),
                   limit_cell(row, "src_fp_limit", by_default.source_fast_limit),
                   limit_cell(row, "src_lp_limit", by_default.source_long_limit), switch_cell(row, "src_deny"),
                   switch_cell(row, "src_hw_deny"), switch_cell(row, "src_cap")});
    }
    table.print(stdout);
    std::printf(
        "fast, long: packets a second, of each flow (port, VLAN, protocol) and, from source: on, of each of its "
        "senders,\naveraged over a fast or a long period. %s differs from the default.\n",
        kMark);
}

}  // namespace host::console
