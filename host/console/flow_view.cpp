// SPDX-License-Identifier: Apache-2.0
#include "console/flow_view.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>

#include "alarm_listing.h"
#include "module_tables.h"
#include "report_data.h"
#include "text_table.h"
#include "verdict/words.h"

namespace host::console {

namespace {

constexpr auto kLeft = TextTable::Align::kLeft;
constexpr auto kRight = TextTable::Align::kRight;

template <typename Use>
void each_chosen(const Run &run, const FlowFilter &filter, Use use) {
    const AlarmListing alarms = list_alarms(run.alarms());
    each_chosen_row(
        run.flows(), alarms.standing, [&filter](const FlowKey &flow) { return filter.chooses(flow); }, filter.only_over,
        use);
}

// What the module counted, by whatever has a row.
std::vector<TextTable::Column> with_figures(std::vector<TextTable::Column> columns) {
    for (const char *heading : {"packets", "last-period/s", "peak-period/s"}) {
        columns.push_back({heading, kRight});
    }
    columns.push_back({"peak-time", kLeft});
    return columns;
}

std::vector<std::string> with_figures(std::vector<std::string> cells, const TableFigures &figures) {
    cells.insert(cells.end(), {std::to_string(figures.packets), std::to_string(figures.speed_pps),
                               std::to_string(figures.peak_pps), figures.peak_time});
    return cells;
}

std::vector<TextTable::Column> line_columns() {
    auto columns = with_figures({{"protocol", kLeft}, {"port", kRight}, {"vlan", kRight}, {"source", kLeft}});
    columns.push_back({"limit/s", kRight});
    columns.push_back({"over-limit", kLeft});
    return columns;
}

std::vector<std::string> line_cells(const FlowLine &line) {
    const auto &[flow, source] = line.subject;
    auto cells = with_figures({protocol_name(flow.protocol), std::to_string(flow.port), std::to_string(flow.vlan),
                               source.type == ATC_SRC_NONE ? "(all)" : source_text(source)},
                              line.figures);
    cells.push_back(std::to_string(line.limit_pps));
    cells.emplace_back(line.over_limit ? "yes" : "no");
    return cells;
}

// The greatest of however many, in memory for a few.
class Greatest {
public:
    explicit Greatest(size_t count) : count_(count) {}

    void add(const FlowLine &line) {
        sum_ += line.figures.packets;
        lines_.push_back(line);
        if (lines_.size() >= 2 * count_ + kAtLeast) {
            cut();
        }
    }

    const std::vector<FlowLine> &lines() {
        cut();
        return lines_;
    }
    uint64_t sum() const { return sum_; }  // of the packets of all that were added

private:
    void cut() {
        std::ranges::sort(lines_, [](const FlowLine &a, const FlowLine &b) {
            return std::tuple(b.figures.packets, a.subject.flow) < std::tuple(a.figures.packets, b.subject.flow) ||
                   (std::tuple(b.figures.packets, a.subject.flow) == std::tuple(a.figures.packets, b.subject.flow) &&
                    comes_before(a.subject.source, b.subject.source));
        });
        lines_.resize(std::min(lines_.size(), count_));
    }

    static constexpr size_t kAtLeast = 100;
    size_t count_;
    uint64_t sum_ = 0;
    std::vector<FlowLine> lines_;
};

Greatest greatest_lines(const Run &run, TopOf of, size_t count) {
    Greatest greatest(count);
    if (of == TopOf::kClasses) {
        for (const TableRow &row : protocol_rows(ATC_DIRECTION_RX)) {
            FlowLine line;
            line.subject.flow.protocol = row.key;
            line.figures = row.figures;
            greatest.add(line);
        }
        return greatest;
    }
    each_chosen(run, {}, [&](const FlowRow &row) {
        if (of == TopOf::kFlows) {
            greatest.add(row.flow);
        } else {
            std::ranges::for_each(row.sources, [&greatest](const FlowLine &line) { greatest.add(line); });
        }
    });
    return greatest;
}

}  // namespace

bool FlowFilter::chooses(const FlowKey &flow) const {
    return protocol.value_or(flow.protocol) == flow.protocol && port.value_or(flow.port) == flow.port &&
           vlan.value_or(flow.vlan) == flow.vlan;
}

void print_chosen(const Run &run, const FlowFilter &filter) {
    TextTable table(line_columns());
    size_t lines = 0;
    each_chosen(run, filter, [&](const FlowRow &row) {
        table.add(line_cells(row.flow));
        std::ranges::for_each(row.sources, [&table](const FlowLine &line) { table.add(line_cells(line)); });
        lines++;
    });
    if (lines == 0) {
        std::printf("(none)\n");
    } else {
        table.print(stdout);
    }
}

void write_chosen(JsonWriter &json, const Run &run, const FlowFilter &filter) {
    each_chosen(run, filter, [&json](const FlowRow &row) { json.add(flow_row_json(row)); });
}

void print_top(const Run &run, TopOf of, size_t count) {
    Greatest greatest = greatest_lines(run, of, count);
    if (greatest.lines().empty()) {
        std::printf("(none%s)\n",
                    of == TopOf::kSources ? ": senders are told apart where a flow is over its limit" : "");
        return;
    }
    const bool of_classes = of == TopOf::kClasses;
    auto columns = of_classes ? with_figures({{"protocol", kLeft}}) : line_columns();
    // Behind the packets.
    const auto place = static_cast<std::ptrdiff_t>(of_classes ? 2 : 5);
    columns.insert(columns.begin() + place, {"share", kRight});
    TextTable table(columns);
    for (const FlowLine &line : greatest.lines()) {
        auto cells =
            of_classes ? with_figures({protocol_name(line.subject.flow.protocol)}, line.figures) : line_cells(line);
        cells.insert(cells.begin() + place, percent(line.figures.packets, greatest.sum()));
        table.add(std::move(cells));
    }
    table.print(stdout);
}

Json top_json(const Run &run, TopOf of, size_t count) {
    Greatest greatest = greatest_lines(run, of, count);
    Json json = Json::array();
    for (const FlowLine &line : greatest.lines()) {
        Json entry = flow_line_json(line);
        if (of == TopOf::kClasses) {
            entry.erase("port");
            entry.erase("vlan");
            entry.erase("over_limit");
        } else if (of == TopOf::kSources) {
            entry = flow_key_json(line.subject.flow);
            entry.update(flow_line_json(line));
        }
        json.push_back(std::move(entry));
    }
    return json;
}

}  // namespace host::console
