// SPDX-License-Identifier: Apache-2.0
// commands_diagnose.cpp: "debug" and "capture": traces and the manual capture, and captures into files.
#include <cerrno>
#include <system_error>

#include "anti_cpu/anti_cpu.h"
#include "console/command_rows.h"

namespace host::console {

namespace {

Status debug_start(Session &, const Arguments &arguments) {
    return done_if_zero(static_cast<uint32_t>(atc_api_set_debug_start(&arguments.rule(), arguments.number("count"))),
                        "the trace cannot be started");
}

Status debug_stop(Session &, const Arguments &) {
    return done_if_zero(static_cast<uint32_t>(atc_api_set_debug_stop()), "the trace cannot be stopped");
}

Status capture_start(Session &, const Arguments &arguments) {
    return done_if_zero(static_cast<uint32_t>(atc_api_set_cap_start(&arguments.rule(), arguments.number("count"))),
                        "the capture cannot be started");
}

Status capture_stop(Session &, const Arguments &) {
    return done_if_zero(static_cast<uint32_t>(atc_api_set_cap_disable()), "the capture cannot be stopped");
}

// Wherever the operator says: through a link too.
bool write_file(const std::string &path, const std::string &content) {
    std::FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    const bool written = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    return std::fclose(file) == 0 && written;
}

Status capture_save(Session &, const Arguments &arguments) {
    CaptureKey key;
    if (arguments.has("flow")) {
        const FlowName flow = flow_name(arguments);
        key = {flow.direction, flow.subject()};
    }
    const auto content = capture_content(key);
    if (!content) {
        return failed("there is no such capture");
    }
    const std::string &path = arguments.text("file");
    if (!write_file(path, *content)) {
        return failed((path + " cannot be written: " + std::generic_category().message(errno)).c_str());
    }
    std::printf("%s: %zu bytes\n", path.c_str(), content->size());
    return Status::kDone;
}

}  // namespace

std::vector<Command> diagnose_rows() {
    return {
        {"debug start <count:trace-count> {match}", "Print the next packets that match", debug_start},
        {"debug stop", "End the trace", debug_stop},
        {"capture start <count> {match}", "Record the next packets that match into the manual capture", capture_start},
        {"capture stop", "End the manual capture and keep its file", capture_stop},
        {"capture save <file> [flow " ATC_FLOW_SOURCE "]",
         "Write the manual capture, or that of a flow or source, into a file", capture_save},
    };
}

}  // namespace host::console
