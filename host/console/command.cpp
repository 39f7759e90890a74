// SPDX-License-Identifier: Apache-2.0
#include "console/command.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "console/command_rows.h"

namespace host::console {

bool Arguments::has(std::string_view word) const {
    return std::ranges::find(words_, word) != words_.end();
}

uint32_t Arguments::number_or(const std::string &name, uint32_t otherwise) const {
    return given(name) ? number(name) : otherwise;
}

const std::vector<Command> &commands() {
    static const std::vector<Command> all = [] {
        std::vector<Command> rows;
        for (const auto &part : {show_rows(), statistic_rows(), clear_rows(), set_rows(), filter_rows(),
                                 diagnose_rows(), upload_rows(), card_rows(), session_rows()}) {
            rows.insert(rows.end(), part.begin(), part.end());
        }
        return rows;
    }();
    return all;
}

Status failed(const char *reason) {
    std::printf("failed: %s\n", reason);
    return Status::kFailed;
}

Status done_if_zero(uint32_t result, const char *reason) {
    return result == 0 ? Status::kDone : failed(reason);
}

bool as_json(const Session &session, const Arguments &arguments) {
    return session.json || arguments.has("json");
}

Status print_json(const Json &json) {
    host::print_json(stdout, json);
    return Status::kDone;
}

FlowName flow_name(const Arguments &arguments) {
    FlowName flow{arguments.number("direction"),
                  arguments.number("vlan"),
                  arguments.number("port"),
                  arguments.number("protocol"),
                  {}};
    if (arguments.given("address")) {
        flow.source = arguments.value("address").prefix.address;
    }
    return flow;
}

}  // namespace host::console
