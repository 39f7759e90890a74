// SPDX-License-Identifier: Apache-2.0
#include "module_settings.h"

#include <nlohmann/json.hpp>

#include "console/dump_data.h"

namespace host {

ModuleSettings module_settings() {
    const Json general = console::settings_json();
    ModuleSettings settings;
    settings.enabled = general.at("global_enable") == 1;
    settings.fast_period_s = general.at("fast_time");
    settings.long_period_s = general.at("long_time");
    uint32_t id = 1;
    for (const Json &row : console::limits_json()) {
        settings.protocols.at(id++) = {row.at("fp_limit"),     row.at("lp_limit"),        row.at("src_fp_limit"),
                                       row.at("src_lp_limit"), row.at("deny") == 1,       row.at("src_deny") == 1,
                                       row.at("hw_deny") == 1, row.at("src_hw_deny") == 1};
    }
    return settings;
}

FastLimits fast_limits(const ModuleSettings &settings) {
    FastLimits limits;
    for (uint32_t id = 0; id < FastLimits::kSlots; id++) {
        const ProtocolSettings &of = settings.protocols.at(id != 0 ? id : uint32_t{ATC_PROTOCOL_COUNT});
        limits.flow.at(id) = of.fast_limit;
        limits.source.at(id) = of.source_fast_limit;
    }
    return limits;
}

}  // namespace host
