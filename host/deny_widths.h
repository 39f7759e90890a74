// SPDX-License-Identifier: Apache-2.0
// deny_widths.h: how wide the deny rules of each class are: the fields that they carry, the classes they stop with it.
//
// The rows are drawn while the program is built (draw_denies): the module installs its rules, the switching chip tries
// them. Used by: main (the page), the console ("set hw-deny"). Pure.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace host {

// One rule as the chip has it.
struct DenyWidth {
    const char *fields;       // beside the port: "vlan, eth-type 0x0800, src-ip"; empty = everything on the port
    const char *others;       // other classes that it stops: "unknown-tcp, bgp", "all others"; empty = none
    uint32_t other_count;     // how many these are
    bool stops_other_source;  // frames of its class from somewhere else too
};

// The rules of some frames of a class.
struct DenyRow {  // NOLINT(clang-analyzer-optin.performance.Padding): the rows are drawn in this order
    uint16_t protocol;
    const char *kind;              // which frames; empty = its plain ones
    DenyWidth flow;                // the rule for the whole flow
    DenyWidth source;              // the rule for one source
    bool has_source_rule;          // the device's own frames have none
    const char *fields_in_vlan_0;  // of the flow's rule
};

// In order of classes; of each the plain frames first.
std::span<const DenyRow> deny_rows();

// The page on all of them, in Markdown.
std::string denies_page();

// What an operator who allows such rules has to know, in one or two lines.
std::string deny_width_text(uint32_t protocol, bool per_source);

}  // namespace host
