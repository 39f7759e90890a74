// SPDX-License-Identifier: Apache-2.0
// commands_card.cpp: "trunk": what the card reports to the module.
#include "console/command_rows.h"

namespace host::console {

namespace {

Status trunk_change(Session &session, const Arguments &arguments) {
    const bool taken =
        session.run.trunk_change(arguments.number("trunk"), arguments.number("port"), arguments.has("join"));
    return taken ? Status::kDone : failed("nobody has registered for trunk changes");
}

}  // namespace

std::vector<Command> card_rows() {
    return {
        {"trunk <trunk:number> (join | leave) <port>",
         "A port joins or leaves a trunk; packets on members are the trunk's", trunk_change},
    };
}

}  // namespace host::console
