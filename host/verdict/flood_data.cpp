// SPDX-License-Identifier: Apache-2.0
#include "verdict/flood_data.h"

#include <nlohmann/json.hpp>

#include "services/services.h"
#include "verdict/rule_words.h"

namespace host {

namespace {

Json sources_json(const Flood &flood, const FloodSources &sources) {
    Json list = Json::array();
    for (const FloodSource &source : sources.busiest) {
        const Traffic &traffic = *source.traffic;
        const char *const types[] = {"none", "mac", "ipv4", "ipv6"};
        list.push_back({{"type", types[source.source.type]},
                        {"address", source_text(source.source)},
                        {"packets", traffic.packets},
                        {"share", static_cast<double>(traffic.packets) / static_cast<double>(flood.traffic->packets)},
                        {"peak_second_packets", traffic.second.peak()},
                        {"stopped_in_chip", traffic.stopped},
                        {"dropped_in_software", traffic.dropped}});
    }
    return {{"number", sources.number.number}, {"number_is_exact", sources.number.exact}, {"busiest", std::move(list)}};
}

}  // namespace

Json flood_json(const Flood &flood) {
    const Traffic &traffic = *flood.traffic;
    Json json = {{"port", flood.flow.port},
                 {"vlan", flood.flow.vlan},
                 {"protocol", flood.flow.protocol == 0 ? Json(nullptr) : Json(protocol_name(flood.flow.protocol))},
                 {"first", card::time_text(flood.first_ns())},
                 {"last", card::time_text(flood.last_ns())},
                 {"seconds_over_limit", static_cast<double>(flood.over->length_ns()) / OverLimit::kSecondNs},
                 {"times", flood.over->times()},
                 {"packets", traffic.packets},
                 {"bytes", traffic.bytes},
                 {"packets_while_over_limit", flood.over->packets()},
                 {"peak_second_packets", traffic.second.peak()},
                 {"average_pps", flood.average_pps()},
                 {"limit_pps", flood.limit_pps},
                 {"source_limit_pps", flood.source_limit_pps},
                 {"stopped_in_chip", traffic.stopped},
                 {"dropped_in_software", traffic.dropped},
                 {"passed", traffic.passed()},
                 {"alarms_raised", flood.alarms.raised},
                 {"alarms_standing", flood.alarms.standing},
                 {"hidden_by_period", flood.is_hidden()},
                 {"outside_the_limiter", flood.is_outside()},
                 {"moment", flood.is_moment()},
                 {"sources_over_limit", flood.sources_over}};
    json["rules"] = flow_rules_json(flood.rules);
    json["addresses"] = sources_json(flood, flood.addresses);
    json["macs"] = sources_json(flood, flood.macs);
    return json;
}

}  // namespace host
