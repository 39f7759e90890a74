// SPDX-License-Identifier: Apache-2.0
#include "deny_widths.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "addresses.h"

namespace host {

namespace {

constexpr DenyRow kRows[] = {
#include "deny_widths.inc"
};

std::string name_of(const DenyRow &row) {
    return protocol_name(row.protocol) + (*row.kind != '\0' ? std::string(" ") + row.kind : std::string());
}

// Which source a source's rule names.
std::string source_cell(const DenyRow &row) {
    if (!row.has_source_rule) {
        return "no rule";
    }
    if (row.source.stops_other_source) {
        return "none: stops every source";
    }
    return std::strstr(row.source.fields, "src-mac") != nullptr ? "src-mac" : "src-ip";
}

// "a, b and c"
std::string listed(const std::vector<std::string> &names) {
    std::string text;
    for (size_t i = 0; i < names.size(); i++) {
        text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    }
    return text;
}

std::string vlan_0_text() {
    size_t without_vlan = 0;
    std::vector<std::string> empty;
    for (const DenyRow &row : kRows) {
        without_vlan += std::strstr(row.fields_in_vlan_0, "vlan") == nullptr ? 1 : 0;
        if (*row.fields_in_vlan_0 == '\0') {
            empty.push_back("`" + protocol_name(row.protocol) + "`" + (*row.kind != '\0' ? ", " : "") + row.kind);
        }
    }
    return "A packet of VLAN 0 (`--vlan 0`, or a tag that carries nothing but a priority) gives a rule without a VLAN, "
           "in " +
           std::to_string(without_vlan) + " of the\n" + std::to_string(std::size(kRows)) +
           " rows above. Such a rule stops what it names in every VLAN of the port. Nothing at all is left of the rule "
           "for\n" +
           listed(empty) + ": it stops the whole port.\n";
}

// One rule in a line.
std::string sentence(const DenyRow &row, bool per_source) {
    const DenyWidth &width = per_source ? row.source : row.flow;
    std::string text = "hw-deny " + protocol_name(row.protocol) + (per_source ? " source" : "") +
                       (*row.kind != '\0' ? std::string(" (") + row.kind + ")" : std::string());
    if (per_source && !row.has_source_rule) {
        return text + ": no rule comes of it\n";
    }
    text +=
        std::string(": a rule stops what has the flood's port") + (*width.fields != '\0' ? ", " : "") + width.fields;
    text += per_source && width.stops_other_source ? ", from whatever source" : "";
    return text + (*width.others != '\0' ? std::string("; with it ") + width.others : std::string()) + "\n";
}

}  // namespace

std::span<const DenyRow> deny_rows() {
    return kRows;
}

std::string denies_page() {
    std::string page =
        "# How wide a deny is\n\n"
        "This page is drawn by `anti-cpu denies > docs/denies.md`. Its rows were made while the program was built: "
        "the\n"
        "module was flooded with a frame of each kind until it installed its rule, and the switching chip told which\n"
        "fields that rule carries and which other frames it stops.\n\n"
        "A rule stops every frame on its port that has all of its fields, of whatever class the module would count "
        "it.\n"
        "`set hw-deny CLASS on` allows rules with the fields of the second column, `set hw-deny CLASS source on` such\n"
        "rules with the source of the third beside them. The last column names the classes of which a station's\n"
        "ordinary frames have the same fields; a source's rule stops them only from that source, where it names one.\n"
        "Over IPv6 an EtherType of 0x0800 is 0x86dd, and what comes from a server's port has that as src-port. For\n"
        "ICMPv6, src-port is type * 256 + code. 0x1234, 50 and 44 stand for any that the module does not know.\n\n"
        "| class | fields of a flow's rule | source | stops with it |\n|---|---|---|---|\n";
    for (const DenyRow &row : kRows) {
        page +=
            "| " + name_of(row) + " | " + row.flow.fields + " | " + source_cell(row) + " | " + row.flow.others + " |\n";
    }
    return page + "\n## VLAN 0\n\n" + vlan_0_text();
}

std::string deny_width_text(uint32_t protocol, bool per_source) {
    const DenyRow *plain = std::ranges::find(kRows, protocol, &DenyRow::protocol);
    if (plain == std::end(kRows)) {
        return {};
    }
    // Of its other kinds, the one of which the rule is widest.
    const auto width_of = [per_source](const DenyRow &row) {
        const DenyWidth &width = per_source ? row.source : row.flow;
        return width.other_count + (width.stops_other_source ? 1 : 0);
    };
    const DenyRow *widest = plain;
    for (const DenyRow &row : kRows) {
        if (row.protocol == protocol && width_of(row) > width_of(*widest)) {
            widest = &row;
        }
    }
    return sentence(*plain, per_source) + (widest != plain ? sentence(*widest, per_source) : std::string());
}

}  // namespace host
