// SPDX-License-Identifier: Apache-2.0
#include "console/kinds.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "anti_cpu/anti_cpu.h"
#include "clock/clock.h"
#include "transfer/transfer.h"

namespace host::console {

namespace {

constexpr int64_t kDaySeconds = 86400;

template <uint32_t lowest, uint32_t highest>
std::optional<Value> read_number(std::string_view word) {
    const auto number = parse_number(word, highest);
    if (!number || *number < lowest) {
        return std::nullopt;
    }
    return Value{std::string(word), *number, {}};
}

std::optional<Value> read_protocol(std::string_view word) {
    const uint32_t id = parse_protocol(word);
    if (id == 0) {
        return std::nullopt;
    }
    return Value{std::string(word), id, {}};
}

constexpr const char *kEveryProtocol = "all";

std::optional<Value> read_protocols(std::string_view word) {
    return word == kEveryProtocol ? Value{std::string(word), 0, {}} : read_protocol(word);
}

std::vector<std::string> protocol_choices() {
    std::vector<std::string> names;
    for (uint32_t id = 1; id <= ATC_PROTOCOL_COUNT; id++) {
        names.push_back(protocol_name(id));
    }
    return names;
}

std::vector<std::string> protocols_choices() {
    std::vector<std::string> names = protocol_choices();
    names.emplace_back(kEveryProtocol);
    return names;
}

// One of a few words, told by its number.
struct Choice {
    const char *word;
    uint32_t number;
};

template <const auto &choices>
std::optional<Value> read_choice(std::string_view word) {
    for (const Choice &choice : choices) {
        if (word == choice.word) {
            return Value{std::string(word), choice.number, {}};
        }
    }
    return std::nullopt;
}

template <const auto &choices>
std::vector<std::string> choice_words() {
    std::vector<std::string> words;
    for (const Choice &choice : choices) {
        words.emplace_back(choice.word);
    }
    return words;
}

constexpr Choice kDirections[] = {{"rx", ATC_DIRECTION_RX}, {"tx", ATC_DIRECTION_TX}};
constexpr Choice kSwitch[] = {{"on", 1}, {"off", 0}};
constexpr Choice kTransfers[] = {{"ftp", 0}, {"tftp", 1}, {"sftp", 2}, {"ftps", 3}};

std::optional<Value> read_address(std::string_view word) {
    const auto source = parse_source(word);
    if (!source) {
        return std::nullopt;
    }
    return Value{std::string(word), 0, {*source, 0}};
}

std::optional<Value> read_prefix(std::string_view word) {
    const auto prefix = parse_prefix(word);
    if (!prefix) {
        return std::nullopt;
    }
    return Value{std::string(word), 0, *prefix};
}

std::optional<Value> read_ipv4(std::string_view word) {
    const auto source = parse_source(word);
    if (!source || source->type != ATC_SRC_IPV4) {
        return std::nullopt;
    }
    return Value{std::string(word), ipv4_number(*source), {}};
}

// "0x0806" or decimal.
std::optional<Value> read_eth_type(std::string_view word) {
    uint16_t number = 0;
    const bool hex = word.starts_with("0x");
    const std::string_view digits = hex ? word.substr(2) : word;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, hex ? 16 : 10);
    if (error != std::errc() || end != digits.data() + digits.size() || number == 0) {
        return std::nullopt;
    }
    return Value{std::string(word), number, {}};
}

std::optional<Value> read_text(std::string_view word) {
    return card::has_control_character(word) ? std::nullopt : std::optional(Value{std::string(word), 0, {}});
}

std::optional<Value> read_file(std::string_view word) {
    return word.empty() ? std::nullopt : read_text(word);
}

std::optional<Value> read_moment(std::string_view word) {
    return read_time(word, 0) ? read_text(word) : std::nullopt;
}

}  // namespace

const std::vector<Kind> &all_kinds() {
    static const std::string protocol = "a protocol (name, alias or 1 to " + std::to_string(ATC_PROTOCOL_COUNT) + ")";
    static const std::string protocols = protocol + " or all";
    static const std::vector<Kind> kinds = {
        {"protocol", protocol.c_str(), read_protocol, protocol_choices},
        {"protocols", protocols.c_str(), read_protocols, protocols_choices},
        {"port", "a port (0 to 4294967295)", read_number<0, UINT32_MAX>, nullptr},
        {"port-index", "the highest port (0 to 65535)", read_number<0, 65535>, nullptr},
        {"vlan", "a VLAN (0 to 4095)", read_number<0, 4095>, nullptr},
        {"direction", "a direction (rx or tx)", read_choice<kDirections>, choice_words<kDirections>},
        {"on|off", "on or off", read_choice<kSwitch>, choice_words<kSwitch>},
        {"pps", "packets per second (0 = back to the default)", read_number<0, UINT32_MAX>, nullptr},
        {"seconds", "seconds (1 to 4294967295)", read_number<1, UINT32_MAX>, nullptr},
        {"count", "a number of packets (0 to 4294967295)", read_number<0, UINT32_MAX>, nullptr},
        {"rows", "a number of rows (1 to 100000)", read_number<1, 100000>, nullptr},
        {"trace-count", "a number of packets (0 to 65535)", read_number<0, 65535>, nullptr},
        {"bytes", "a number of bytes (1 to 4294967295)", read_number<1, UINT32_MAX>, nullptr},
        {"id", "an id (1 to 4294967295)", read_number<1, UINT32_MAX>, nullptr},
        {"list", "a list of rules (0 or 1)", read_number<0, 1>, nullptr},
        {"number", "a number (0 to 4294967295)", read_number<0, UINT32_MAX>, nullptr},
        {"byte", "a number (1 to 255)", read_number<1, 255>, nullptr},
        {"l4-port", "a TCP or UDP port (1 to 65535)", read_number<1, 65535>, nullptr},
        {"eth-type", "an EtherType (0x0806 or 2054)", read_eth_type, nullptr},
        {"address", "an address (MAC, IPv4 or IPv6)", read_address, nullptr},
        {"prefix", "an address (MAC, IPv4 or IPv6), perhaps with /LENGTH", read_prefix, nullptr},
        {"ipv4", "an IPv4 address", read_ipv4, nullptr},
        {"transfer", "a kind of transfer (ftp, tftp, sftp or ftps)", read_choice<kTransfers>, choice_words<kTransfers>},
        {"time", "a time (seconds from the start, 03:47:00 of the first day or 2021-09-02T03:47:00, before 2262)",
         read_moment, nullptr},
        {"file", "a file name without control characters", read_file, nullptr},
        {"text", "a text without control characters (in \"quotes\" when it holds blanks)", read_text, nullptr},
        {"password", "a password without control characters (in \"quotes\" when it holds blanks)", read_text, nullptr,
         true},
    };
    return kinds;
}

const Kind *find_kind(std::string_view name) {
    for (const Kind &kind : all_kinds()) {
        if (name == kind.name) {
            return &kind;
        }
    }
    return nullptr;
}

std::optional<int64_t> read_time(std::string_view word, int64_t start_ns) {
    constexpr int64_t latest_s = card::kEndOfTimeNs / card::kNanosecondsPerSecond;
    const bool has_unit = word.ends_with('s');
    if (const auto seconds = parse_number(word.substr(0, word.size() - (has_unit ? 1 : 0)), UINT32_MAX)) {
        return card::time_after(start_ns, *seconds * card::kNanosecondsPerSecond);
    }
    const std::string text(word);
    std::tm parts{};
    const char *end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (end != nullptr && *end == '\0') {
        const int64_t seconds = timegm(&parts);
        return seconds > -latest_s && seconds < latest_s ? std::optional(seconds * card::kNanosecondsPerSecond)
                                                         : std::nullopt;
    }
    parts = {};
    end = strptime(text.c_str(), "%H:%M:%S", &parts);
    if (end != nullptr && *end == '\0') {
        const int64_t of_day_s = parts.tm_hour * 3600 + parts.tm_min * 60 + parts.tm_sec;
        const int64_t start_s = start_ns / card::kNanosecondsPerSecond;
        return (start_s - start_s % kDaySeconds + of_day_s) * card::kNanosecondsPerSecond;
    }
    return std::nullopt;
}

}  // namespace host::console
