// SPDX-License-Identifier: Apache-2.0
// commands_card.cpp: "show card" and "trunk": the card's ports, and what it reports to the module.
#include <array>
#include <nlohmann/json.hpp>

#include "console/command_rows.h"
#include "text_table.h"

namespace host::console {

namespace {

Status trunk_change(Session &session, const Arguments &arguments) {
    const bool taken =
        session.run.trunk_change(arguments.number("trunk"), arguments.number("port"), arguments.has("join"));
    return taken ? Status::kDone : failed("nobody has registered for trunk changes");
}

struct StateColumn {
    const char *name;
    uint64_t (*value)(const PortState &);
};
constexpr std::array<StateColumn, 8> kStateColumns = {{
    {"offered", [](const PortState &state) { return state.counts.offered; }},
    {"stopped", [](const PortState &state) { return state.counts.stopped; }},
    {"dropped", [](const PortState &state) { return state.counts.dropped; }},
    {"passed", [](const PortState &state) { return state.counts.passed; }},
    {"sent", [](const PortState &state) { return state.sent; }},
    {"transit", [](const PortState &state) { return state.transit; }},
    {"blind", [](const PortState &state) { return state.blind; }},
    {"lost", [](const PortState &state) { return state.lost; }},
}};

std::vector<OutputState> outputs_of(const Session &session) {
    return session.outputs ? session.outputs() : std::vector<OutputState>();
}

// What is lost of what the card tells.
void print_lost(const Session &session) {
    for (const OutputState &output : outputs_of(session)) {
        if (output.counts.lost > 0) {
            std::printf("%s for %s: %llu lost, they were not read in time\n", output.kind.c_str(), output.name.c_str(),
                        static_cast<unsigned long long>(output.counts.lost));
        }
    }
}

Status show_card(Session &session, const Arguments &arguments) {
    const std::vector<PortState> states = session.run.port_states();
    if (as_json(session, arguments)) {
        Json rows = Json::array();
        for (const PortState &state : states) {
            Json row = {{"port", state.port}, {"interface", state.interface}, {"state", state.state}};
            for (const StateColumn &column : kStateColumns) {
                row[column.name] = column.value(state);
            }
            rows.push_back(row);
        }
        return print_json(rows);
    }
    std::vector<TextTable::Column> columns = {
        {"port", TextTable::Align::kRight}, {"interface", TextTable::Align::kLeft}, {"state", TextTable::Align::kLeft}};
    for (const StateColumn &column : kStateColumns) {
        columns.push_back({column.name, TextTable::Align::kRight});
    }
    TextTable table(std::move(columns));
    for (const PortState &state : states) {
        std::vector<std::string> row = {std::to_string(state.port), state.interface, state.state};
        for (const StateColumn &column : kStateColumns) {
            row.push_back(std::to_string(column.value(state)));
        }
        table.add(std::move(row));
    }
    table.print(stdout);
    print_lost(session);
    return Status::kDone;
}

Status show_outputs(Session &session, const Arguments &arguments) {
    const std::vector<OutputState> outputs = outputs_of(session);
    if (as_json(session, arguments)) {
        Json rows = Json::array();
        for (const auto &[kind, name, counts] : outputs) {
            rows.push_back({{"kind", kind},
                            {"name", name},
                            {"written", counts.written},
                            {"waiting", counts.waiting},
                            {"lost", counts.lost}});
        }
        return print_json(rows);
    }
    TextTable table({{"what", TextTable::Align::kLeft},
                     {"to", TextTable::Align::kLeft},
                     {"written", TextTable::Align::kRight},
                     {"waiting", TextTable::Align::kRight},
                     {"lost", TextTable::Align::kRight}});
    for (const auto &[kind, name, counts] : outputs) {
        table.add(
            {kind, name, std::to_string(counts.written), std::to_string(counts.waiting), std::to_string(counts.lost)});
    }
    table.print(stdout);
    return Status::kDone;
}

}  // namespace

std::vector<Command> card_rows() {
    return {
        {"show card", "The card's ports, and what became of their packets", show_card},
        {"show outputs", "Where events and messages go, and what was lost on the way to a slow reader", show_outputs},
        {"trunk <trunk:number> (join | leave) <port>",
         "A port joins or leaves a trunk; packets on members are the trunk's", trunk_change},
    };
}

}  // namespace host::console
