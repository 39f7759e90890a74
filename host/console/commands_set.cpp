// SPDX-License-Identifier: Apache-2.0
// commands_set.cpp: "set": the module's settings.
#include "anti_cpu/anti_cpu.h"
#include "chip/chip.h"
#include "console/command_rows.h"
#include "deny_widths.h"
#include "options.h"
#include "os/os.h"

namespace host::console {

namespace {

constexpr const char *kRefused = "the module refuses the value";

using ProtocolSetter = uint32_t (*)(uint32_t id, uint32_t value);
using Setter = uint32_t (*)(uint32_t value);

template <Setter setter>
Status set_switch(Session &, const Arguments &arguments) {
    return done_if_zero(setter(arguments.number("on|off")), kRefused);
}

template <Setter setter>
Status set_number(Session &, const Arguments &arguments) {
    return done_if_zero(setter(arguments.number("number")), kRefused);
}

Status set_fast_period(Session &session, const Arguments &arguments) {
    const uint32_t seconds = arguments.number("seconds");
    if (atc_api_set_fast_period_time(seconds) != 0) {
        return failed(kRefused);
    }
    session.run.fast_period_set(seconds);
    return Status::kDone;
}

Status set_long_period(Session &session, const Arguments &arguments) {
    const uint32_t seconds = arguments.number("seconds");
    if (atc_api_set_long_period_time(seconds) != 0) {
        return failed(kRefused);
    }
    session.run.journal().set_period(AlarmEvent::Period::kLong, seconds);
    return Status::kDone;
}

// Of one protocol or of all, up to the first that the module refuses.
Status set_protocols(ProtocolSetter setter, const Arguments &arguments, uint32_t value) {
    const uint32_t only = arguments.number("protocols");
    for (uint32_t id = only == 0 ? 1 : only; id <= (only == 0 ? uint32_t{ATC_PROTOCOL_COUNT} : only); id++) {
        if (setter(id, value) != 0) {
            return failed((protocol_name(id) + ": " + kRefused).c_str());
        }
    }
    return Status::kDone;
}

Status set_limit(Session &, const Arguments &arguments) {
    const ProtocolSetter flow_setter =
        arguments.has("fast") ? atc_api_set_protocol_fp_limit : atc_api_set_protocol_lp_limit;
    const ProtocolSetter source_setter =
        arguments.has("fast") ? atc_api_set_protocol_src_fp_limit : atc_api_set_protocol_src_lp_limit;
    const ProtocolSetter setter = arguments.has("source") ? source_setter : flow_setter;
    return set_protocols(setter, arguments, arguments.number("pps"));
}

template <ProtocolSetter flow_setter, ProtocolSetter source_setter>
Status set_reaction(Session &, const Arguments &arguments) {
    const ProtocolSetter setter = arguments.has("source") ? source_setter : flow_setter;
    return set_protocols(setter, arguments, arguments.number("on|off"));
}

// Tells what else such rules stop, to who reads it.
Status set_hw_deny(Session &session, const Arguments &arguments) {
    const Status status =
        set_reaction<atc_api_set_protocol_hw_deny_enable, atc_api_set_protocol_src_hw_deny_enable>(session, arguments);
    if (status == Status::kDone && arguments.number("on|off") == 1 && !session.json) {
        const uint32_t id = arguments.number("protocols");
        std::fputs(id == 0 ? "what each rule stops besides its class: anti-cpu denies\n"
                           : deny_width_text(id, arguments.has("source")).c_str(),
                   stdout);
    }
    return status;
}

Status set_chip_rules(Session &, const Arguments &arguments) {
    card::Chip::instance().set_capacity(arguments.number("number"));
    return Status::kDone;
}

Status set_memory_budget(Session &, const Arguments &arguments) {
    card::set_memory_budget(arguments.number("megabytes") * kBytesPerMegabyte);
    return Status::kDone;
}

}  // namespace

std::vector<Command> set_rows() {
    return {
        {"set enable <on|off>", "Switch the module on or off; off, every packet passes uncounted",
         set_switch<atc_api_set_global_enable>},
        {"set fast-period <seconds>", "Length of the fast period; a new one starts now", set_fast_period},
        {"set long-period <seconds>", "Length of the long period; a new one starts now", set_long_period},
        {"set limit <protocols> [source] (fast | long) <pps>", "Limit of a protocol's flows, or of their sources",
         set_limit},
        {"set deny <protocols> [source] <on|off>", "Drop what is over its fast limit, in software",
         set_reaction<atc_api_set_protocol_deny_enable, atc_api_set_protocol_src_deny_enable>},
        {"set hw-deny <protocols> [source] <on|off>", "Have the switching chip drop what is over its fast limit",
         set_hw_deny},
        {"set capture <protocols> [source] <on|off>", "Capture what is over its fast limit",
         set_reaction<atc_api_set_protocol_cap_enable, atc_api_set_protocol_src_cap_enable>},
        {"set ipattack <number>", "A word that only \"show settings\" shows", set_number<atc_api_set_ipattack>},
        {"set icmpattack <number>", "A word that only \"show settings\" shows", set_number<atc_api_set_icmpattack>},
        {"set icmpattack-size <number>", "A word that only \"show settings\" shows",
         set_number<atc_api_set_icmpattack_size>},
        {"set memory-budget <megabytes:number>",
         "Memory that the module may use; beyond it no new flows and sources (0 = no limit)", set_memory_budget},
        {"set chip-rules <number>", "Rules that the switching chip has room for", set_chip_rules},
    };
}

}  // namespace host::console
