// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <algorithm>
#include <cinttypes>
#include <span>

#include "alarm_listing.h"
#include "anti_cpu/anti_cpu.h"
#include "chip/chip.h"
#include "clock/clock.h"
#include "module_tables.h"
#include "module_text.h"
#include "os/os.h"
#include "services/services.h"
#include "text_table.h"

namespace host {

namespace {

constexpr auto kLeft = TextTable::Align::kLeft;
constexpr auto kRight = TextTable::Align::kRight;
constexpr size_t kFlowVerdictsShown = 500;  // a flood that varies everything has flows without end

void print_title(std::FILE *out, const char *title) {
    std::fprintf(out, "\n== %s ==\n", title);
}

// The first line of a module's table is its header; a table of nothing else is empty.
void print_table(std::FILE *out, const char *title, const std::string &text) {
    const size_t header_end = text.find('\n');
    print_title(out, title);
    const bool has_rows = header_end != std::string::npos && header_end + 1 < text.size();
    std::fputs(has_rows ? text.c_str() : "(none)\n", out);
}

// A module's text, and how many rows it had no room for.
std::string with_missing_rows(std::string text, size_t missing) {
    if (missing > 0) {
        text += "... and " + std::to_string(missing) +
                " lines more, for which the module's text has no room; as data all are shown\n";
    }
    return text;
}

// Of 'rows' those that do not stand below the header.
std::string table_of(int (*report)(char **text), size_t rows) {
    std::string text = report_text(report);
    const auto lines = static_cast<size_t>(std::ranges::count(text, '\n'));
    return with_missing_rows(std::move(text), lines > 0 && rows > lines - 1 ? rows - (lines - 1) : 0);
}

// The address in a line of the module's flow table, "3/100/tcp-syn/ip 10.0.0.1    12 ...", and whose flow it is.
std::pair<std::string, Source> ipv4_of(const std::string &line) {
    const std::string key = line.substr(0, line.find("/ip "));
    if (key.size() == line.size()) {
        return {};
    }
    const size_t begin = key.size() + 4;
    const auto source = parse_source(line.substr(begin, line.find(' ', begin) - begin));
    return source ? std::pair(key, *source) : std::pair<std::string, Source>();
}

// The module lists the IPv4 sources of a flow as their bytes lie in memory.
std::string with_sources_in_order(const std::string &text) {
    std::vector<std::pair<std::pair<std::string, Source>, std::string>> run;  // lines of one flow's IPv4 sources
    std::string ordered;
    const auto end_run = [&] {
        std::ranges::stable_sort(run, comes_before, [](const auto &line) { return line.first.second; });
        for (const auto &[key, line] : run) {
            ordered += line;
        }
        run.clear();
    };
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        const std::string line = text.substr(begin, end - begin);
        begin = end;
        auto key = ipv4_of(line);
        if (run.empty() || key.first != run.back().first.first) {
            end_run();
        }
        if (key.first.empty()) {
            ordered += line;
        } else {
            run.emplace_back(std::move(key), line);
        }
    }
    end_run();
    return ordered;
}

// Of every port.
void print_ports(std::FILE *out, const Run &run) {
    TextTable table({{"port", kRight},
                     {"offered", kRight},
                     {"stopped-in-chip", kRight},
                     {"dropped-in-software", kRight},
                     {"passed", kRight}});
    for (const auto &[port, counts] : run.ports()) {
        table.add({std::to_string(port), std::to_string(counts.offered), std::to_string(counts.stopped),
                   std::to_string(counts.dropped), std::to_string(counts.passed)});
    }
    table.print(out);
}

}  // namespace

double Summary::simulated_time_s() const {
    return static_cast<double>(replay.now_ns() - replay.start_ns()) / static_cast<double>(card::kNanosecondsPerSecond);
}

double Summary::packets_per_second() const {
    return real_time_s > 0 ? static_cast<double>(replay.packets()) / real_time_s : 0;
}

void print_report(std::FILE *out, const Summary &summary) {
    const card::BudgetScope no_budget_for_a_report(false);
    print_table(out, "Protocols, received", report_text(atc_api_get_rx_protocol_stat_brief));
    print_table(out, "Protocols, sent", report_text(atc_api_get_tx_protocol_stat_brief));
    print_table(out, "Ports", ports_text(summary.replay));
    print_table(out, "VLANs", report_text(atc_api_get_rx_vlan_stat_brief));
    print_table(out, "Flows and their sources", flows_text(summary.replay));
    const std::string alarms = alarms_text(summary.replay);
    print_title(out, "Alarms that stand at the end");
    std::fputs(alarms.empty() ? "(none)\n" : alarms.c_str(), out);
    print_title(out, "Hardware deny rules of the module");
    print_hw_deny(out);
    print_title(out, "Rules in the switching chip");
    print_chip_rules(out);
    print_title(out, "What became of received packets");
    print_verdicts(out, summary.replay);
    print_title(out, "Summary");
    print_summary(out, summary);
    if (summary.verdict != nullptr) {
        print_title(out, "Verdict");
        summary.verdict->print(out, Verdict::Floods::kAll);
    }
}

void print_answer(std::FILE *out, const Summary &summary) {
    summary.verdict->print(out, Verdict::Floods::kFirst);
    const Replay &replay = summary.replay;
    if (replay.sent() > 0) {
        std::fprintf(out, "Packets sent: %" PRIu64 ", dropped in software %" PRIu64 ".\n", replay.sent(),
                     replay.sent_dropped());
    }
    if (summary.captures.refused() + summary.captures.shortened() > 0) {
        std::fprintf(out, "Packets that the reader refused: %" PRIu64 "; cut short when captured: %" PRIu64 ".\n",
                     summary.captures.refused(), summary.captures.shortened());
    }
    std::fputs("\nEvery table and alarm: --all. The same as data: --json.\n", out);
}

void print_summary(std::FILE *out, const Summary &summary) {
    const Replay &replay = summary.replay;
    const PortCounts received = replay.received();
    std::fprintf(out, "packets received        %12" PRIu64 "\n", received.offered);
    std::fprintf(out, "  stopped in the chip   %12" PRIu64 "\n", received.stopped);
    std::fprintf(out, "  dropped in software   %12" PRIu64 "\n", received.dropped);
    std::fprintf(out, "  passed                %12" PRIu64 "\n", received.passed);
    std::fprintf(out, "packets sent            %12" PRIu64 "\n", replay.sent());
    std::fprintf(out, "  dropped in software   %12" PRIu64 "\n", replay.sent_dropped());
    std::fprintf(out, "refused by the reader   %12" PRIu64 "\n", summary.captures.refused());
    if (summary.captures.shortened() > 0) {
        std::fprintf(out, "cut short when captured %12" PRIu64 "\n", summary.captures.shortened());
    }
    std::fprintf(out, "alarms raised           %12" PRIu64 "\n", summary.events.alarms().raised());
    std::fprintf(out, "simulated time          %14.1f s, %s to %s UTC\n", summary.simulated_time_s(),
                 card::time_text(replay.start_ns()).c_str(), card::time_text(replay.now_ns()).c_str());
    std::fprintf(out, "real time               %15.2f s, %.0f packets a second\n", summary.real_time_s,
                 summary.packets_per_second());
}

std::string ports_text(const Run &run) {
    return table_of(atc_api_get_rx_port_stat_brief, port_rows(run.flows()).size());
}

std::string flows_text(const Run &run) {
    return with_sources_in_order(table_of(atc_api_get_stat_brief, count_flow_lines(run.flows())));
}

std::string alarms_text(const Run &run) {
    return with_missing_rows(report_text(atc_api_get_alarm_info), list_alarms(run.alarms()).beyond);
}

void print_chip_rules(std::FILE *out) {
    const std::vector<card::ChipRule> rules = card::Chip::instance().rules();
    if (rules.empty()) {
        std::fputs("(none)\n", out);
        return;
    }
    TextTable table({{"entry-id", kRight}, {"matched-packets", kRight}, {"rule", kLeft}});
    for (const card::ChipRule &rule : rules) {
        table.add({std::to_string(rule.entry_id), std::to_string(rule.packets),
                   rule.description + (rule.is_in_software ? " (in software: no room in the kernel)" : "")});
    }
    table.print(out);
}

void print_hw_deny(std::FILE *out) {
    const std::string text = report_text(atc_api_get_hw_deny_info);
    std::fputs(text.empty() ? "(none)\n" : text.c_str(), out);
}

void print_verdicts(std::FILE *out, const Run &run) {
    print_ports(out, run);
    const std::vector<FlowVerdict> flows = run.flow_verdicts().rows();
    if (flows.empty()) {
        return;
    }
    std::fputs(
        "\nFlows of which packets were stopped or dropped; offered: counted by the module or stopped in the chip\n",
        out);
    TextTable table({{"port", kRight},
                     {"vlan", kRight},
                     {"protocol", kLeft},
                     {"offered", kRight},
                     {"stopped-in-chip", kRight},
                     {"dropped-in-software", kRight},
                     {"passed", kRight}});
    const auto known = [](const std::optional<uint64_t> &count) { return count ? std::to_string(*count) : "unknown"; };
    for (const FlowVerdict &row : std::span(flows).first(std::min(flows.size(), kFlowVerdictsShown))) {
        table.add({std::to_string(row.flow.port), std::to_string(row.flow.vlan), protocol_name(row.flow.protocol),
                   known(row.offered), std::to_string(row.stopped), std::to_string(row.dropped), known(row.passed)});
    }
    table.print(out);
    if (flows.size() > kFlowVerdictsShown) {
        std::fprintf(out, "... and %zu flows more; as data all are shown\n", flows.size() - kFlowVerdictsShown);
    }
}

}  // namespace host
