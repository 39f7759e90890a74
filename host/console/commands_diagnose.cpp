// commands_diagnose.cpp: "debug" and "capture": traces and the manual capture, and captures into files.
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

Status capture_save(Session &, const Arguments &arguments) {
    FlowName flow{0, 0, 0, 0, {}};
    if (arguments.has("flow")) {
        flow = flow_name(arguments);
    }
    void *data = nullptr;
    uint32_t len = 0;
    if (atc_api_get_port_capture(flow.direction, flow.vlan, flow.port, flow.protocol, flow.source.type, flow.address(),
                                 &data, &len) != 0) {
        return failed("there is no such capture");
    }
    std::string error;
    const bool written = write_file(arguments.text("file"), data, len, error);
    atc_api_free_buffer(data);
    if (!written) {
        return failed((arguments.text("file") + " cannot be written: " + error).c_str());
    }
    std::printf("%s: %u bytes\n", arguments.text("file").c_str(), len);
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
