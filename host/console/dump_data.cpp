// SPDX-License-Identifier: Apache-2.0
#include "console/dump_data.h"

#include <cinttypes>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

#include "anti_cpu/anti_cpu.h"
#include "console/match_fields.h"
#include "module_text.h"

namespace host::console {

namespace {

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

// Without blanks at both ends.
std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string with_underscores(std::string text) {
    for (char &c : text) {
        c = c == '-' || c == ' ' ? '_' : c;
    }
    return text;
}

void add_number(Json &json, const char *key, uint32_t number) {
    if (number != 0) {
        json[key] = number;
    }
}

void add_address(Json &json, const char *key, uint32_t type, const void *bytes, size_t size, uint32_t length) {
    Source source;
    source.type = type;
    std::memcpy(source.bytes.data(), bytes, size);
    if (source.bytes != SourceBytes{}) {
        json[key] = source_text(source);
        add_number(json, (std::string(key) + "_prefix").c_str(), length);
    }
}

// Only what takes part in the match.
Json match_json(const atc_filter_rule_t &rule) {
    Json json = Json::object();
    if (rule.direction != 0) {
        json["direction"] = rule.direction == ATC_DIRECTION_RX ? "rx" : "tx";
    }
    add_number(json, "port", rule.port);
    add_number(json, "vlan", rule.vlan);
    if (rule.protocol != 0) {
        json["protocol"] = protocol_name(rule.protocol);
    }
    add_number(json, "eth_type", rule.eth_type);
    add_number(json, "ip_protocol", rule.ip_protocol);
    add_address(json, "source_mac", ATC_SRC_MAC, rule.src_mac, sizeof(rule.src_mac), rule.src_mac_masklen);
    add_address(json, "dest_mac", ATC_SRC_MAC, rule.dst_mac, sizeof(rule.dst_mac), rule.dst_mac_masklen);
    add_address(json, "source_ipv4", ATC_SRC_IPV4, &rule.src_ipv4, sizeof(rule.src_ipv4), rule.src_ipv4_masklen);
    add_address(json, "dest_ipv4", ATC_SRC_IPV4, &rule.dst_ipv4, sizeof(rule.dst_ipv4), rule.dst_ipv4_masklen);
    add_address(json, "source_ipv6", ATC_SRC_IPV6, rule.src_ipv6, sizeof(rule.src_ipv6), rule.src_ipv6_masklen);
    add_address(json, "dest_ipv6", ATC_SRC_IPV6, rule.dst_ipv6, sizeof(rule.dst_ipv6), rule.dst_ipv6_masklen);
    add_number(json, "source_port", rule.src_port);
    add_number(json, "dest_port", rule.dst_port);
    add_number(json, "longer_than", rule.pkt_len);
    add_number(json, "aux", rule.aux_match);
    return json;
}

// Safe while no rule is added or deleted: the console is the only one that does.
void add_software_filters(Json &json, uint32_t list) {
    const atc_filter_node_t *node = atc_api_cfg_filter_rule_get_first(list);
    const atc_filter_node_t *const head = node->prev;
    for (; node != head; node = node->next) {
        const char *const actions[] = {"none", "deny", "permit"};
        const uint32_t action = node->rule.action <= ATC_ACTION_PERMIT ? node->rule.action : 0;
        json.push_back(
            {{"list", list}, {"id", node->rule.id}, {"action", actions[action]}, {"match", match_json(node->rule)}});
    }
}

// The address lines of a dumped rule.
void read_addresses(const std::string *lines, atc_filter_rule_t &rule) {
    char source[64] = "";
    char dest[64] = "";
    const auto copy = [](const char *text, void *place, size_t size) {
        if (const auto address = parse_source(text)) {
            std::memcpy(place, address->bytes.data(), size);
        }
    };
    if (std::sscanf(lines[0].c_str(), "src mac %63s dest mac %63s", source, dest) == 2) {
        copy(source, rule.src_mac, sizeof(rule.src_mac));
        copy(dest, rule.dst_mac, sizeof(rule.dst_mac));
    }
    std::sscanf(lines[1].c_str(), "src ipv4 %x dest ipv4 %x", &rule.src_ipv4, &rule.dst_ipv4);
    if (std::sscanf(lines[2].c_str(), "src ipv6 %63s dest ipv6 %63s", source, dest) == 2) {
        copy(source, rule.src_ipv6, sizeof(rule.src_ipv6));
        copy(dest, rule.dst_ipv6, sizeof(rule.dst_ipv6));
    }
    std::sscanf(lines[3].c_str(), "src port %hu dest port %hu", &rule.src_port, &rule.dst_port);
}

// "filter id 1 sdk_id 2 port 3 vlan 0 eth_type 0x0806 ip_protocol 0 action 1" and four lines of addresses behind it.
// The dump tells no prefix lengths.
void add_hardware_filters(Json &json) {
    const std::vector<std::string> lines = lines_of(printed_text(atc_filter_show));
    for (size_t i = 0; i + 4 < lines.size(); i++) {
        atc_filter_rule_t rule{};
        if (std::sscanf(lines[i].c_str(),
                        "filter id %u sdk_id %u port %u vlan %hu eth_type 0x%hx ip_protocol %hhu action %u", &rule.id,
                        &rule.sdk_id, &rule.port, &rule.vlan, &rule.eth_type, &rule.ip_protocol, &rule.action) != 7) {
            continue;
        }
        read_addresses(&lines[i + 1], rule);
        json.push_back(
            {{"id", rule.id}, {"entry_id", rule.sdk_id}, {"action", rule.action}, {"match", match_json(rule)}});
    }
}

constexpr const char *kLimitTitle = "protcol name ";
constexpr std::string_view kPasswordLabel = "server passwd";

}  // namespace

Json filters_json() {
    Json json = {{"software", Json::array()}, {"hardware", Json::array()}};
    add_software_filters(json["software"], 0);
    add_software_filters(json["software"], 1);
    add_hardware_filters(json["hardware"]);
    return json;
}

Json limits_json() {
    Json json = Json::array();
    for (const std::string &line : lines_of(printed_text(atc_limit_show))) {
        if (line.starts_with(kLimitTitle)) {
            json.push_back({{"protocol", trimmed(line.substr(std::strlen(kLimitTitle)))}});
            continue;
        }
        char label[32] = "";
        int32_t value = 0;
        if (!json.empty() && std::sscanf(line.c_str(), "%31s %" SCNd32, label, &value) == 2) {
            json.back()[with_underscores(label)] = static_cast<uint32_t>(value);
        }
    }
    return json;
}

std::string settings_text() {
    std::string text;
    for (const std::string &line : lines_of(printed_text(atc_config_show))) {
        const bool is_secret = line.starts_with(kPasswordLabel) && !trimmed(line.substr(kPasswordLabel.size())).empty();
        text += (is_secret ? std::string(kPasswordLabel) + " ***" : line) + "\n";
    }
    return text;
}

Json settings_json() {
    const char *const labels[] = {"global enable", "upload enable",   "server ip",     "server user",
                                  "server passwd", "fast time",       "long time",     "ipattack",
                                  "icmpattack",    "icmpattack_size", "rule_hw_count", "protocol_cap_cnt"};
    Json json;
    for (const std::string &line : lines_of(printed_text(atc_config_show))) {
        for (const std::string label : labels) {
            if (!line.starts_with(label + " ")) {
                continue;
            }
            const std::string value = trimmed(line.substr(label.size()));
            Json &place = json[with_underscores(label)];
            if (label == "server ip") {
                Source source;
                source.type = ATC_SRC_IPV4;
                const auto number = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 16));
                std::memcpy(source.bytes.data(), &number, sizeof(number));
                place = source_text(source);
            } else if (label == kPasswordLabel) {
                place = value.empty() ? "" : "***";
            } else if (label == "server user") {
                place = value;
            } else {
                place = static_cast<uint32_t>(std::strtoll(value.c_str(), nullptr, 10));
            }
        }
    }
    return json;
}

// " trunk id 40 member:3 4 "
Json trunks_json() {
    Json json = Json::array();
    for (const std::string &line : lines_of(printed_text(atc_trunk_show))) {
        uint32_t trunk = 0;
        const size_t colon = line.find(':');
        if (std::sscanf(line.c_str(), " trunk id %u member", &trunk) != 1 || colon == std::string::npos) {
            continue;
        }
        Json members = Json::array();
        std::istringstream ports(line.substr(colon + 1));
        uint32_t port = 0;
        while (ports >> port) {
            members.push_back(port);
        }
        json.push_back({{"trunk", trunk}, {"members", std::move(members)}});
    }
    return json;
}

Json port_map_json(int32_t highest) {
    Json json = Json::array();
    const std::string text = printed_text([highest] { atc_log_port_show(highest); });
    for (const std::string &line : lines_of(text)) {
        uint32_t port = 0;
        uint32_t slot = 0;
        uint32_t slot_port = 0;
        if (std::sscanf(line.c_str(), "log port %u ---->slot %u port %u", &port, &slot, &slot_port) == 3) {
            json.push_back({{"port", port}, {"slot", slot}, {"slot_port", slot_port}});
        }
    }
    return json;
}

}  // namespace host::console
