// frame.cpp: frames through the whole module, with rules, a trace and a capture armed, limits of one packet a second.
//
// Input: u8 protocol that is armed (none or all beyond 58), u8 rules, each a place and a record (rule_of); then steps.
#include "module_run.h"

namespace {

void place_rule(Input &input) {
    const uint32_t place = input.u8();
    atc_filter_rule_t rule = rule_of(input);
    place % 6 == 0   ? atc_api_set_cap_start(&rule, place)
    : place % 6 == 1 ? atc_api_filter_rule_add(&rule)
    : place % 6 == 2 ? atc_api_cfg_hw_filter_rule_add(&rule)
    : place % 6 == 3 ? atc_api_set_debug_start(&rule, place)
                     : atc_api_cfg_filter_rule_add(&rule, place % 2);
}

// Frames unless something else: packets as often as the upper bits say.
void take_step(Input &input, ModuleRun &module) {
    const uint32_t step = input.u8() % 8, much = input.u8();
    if (step == 0) {
        module.pass_seconds(1 + much % 32);
    } else if (step == 1) {
        fake().fail(static_cast<Call>(much % static_cast<uint32_t>(Call::clock)), 1 + much % 4);
    } else if (step == 2) {
        atc_api_trunk_member_pro(0, 100, much % 4, much / 4 % 3);
    } else if (step == 3) {
        module.tx(input.block());
    } else {
        module.rx_n(1 + much / 32, input.block(), much % 4, step);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    ModuleRun module;
    const uint32_t armed = input.u8();
    arm_protocols(armed);
    atc_api_set_fast_period_time(1 + armed % 4);
    for (uint32_t rules = input.u8() % 8; rules > 0; rules--) {
        place_rule(input);
    }
    while (!input.empty()) {
        take_step(input, module);
    }
    return 0;
}
