// SPDX-License-Identifier: Apache-2.0
// description.cpp: reading the driver buffers, refusing whatever is not as laid down.
#include "chip/description.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <span>

namespace card {

namespace {

constexpr size_t kItemSize = 88;
constexpr size_t kValueSlot = 32;       // bytes of an item's value, and of its mask
constexpr size_t kItemHead = 8;         // bytes in front of them
constexpr size_t kItemReserved = 16;    // bytes behind them
constexpr size_t kOperationValue = 18;  // a value of an operation with its length

// How the text of a field's value looks.
enum class Form {
    kMac,
    kDecimal,
    kHex,
    kIp,
};

struct FieldRow {
    uint16_t code;
    uint16_t length;  // bytes of the value
    Field field;
    bool is_number;  // in the processor's byte order
    Form form;
    const char *name;
};
constexpr std::array<FieldRow, kFieldCount> kFields = {{
    {0, 6, Field::kSourceMac, false, Form::kMac, "src-mac"},
    {1, 6, Field::kDestinationMac, false, Form::kMac, "dst-mac"},
    {2, 4, Field::kSourceIpv4, false, Form::kIp, "src-ip"},
    {2, 16, Field::kSourceIpv6, false, Form::kIp, "src-ip"},
    {3, 4, Field::kDestinationIpv4, false, Form::kIp, "dst-ip"},
    {3, 16, Field::kDestinationIpv6, false, Form::kIp, "dst-ip"},
    {4, 2, Field::kVlan, true, Form::kDecimal, "vlan"},
    {5, 2, Field::kEtherType, true, Form::kHex, "eth-type"},
    {6, 1, Field::kIpProtocol, false, Form::kDecimal, "ip-protocol"},
    {9, 2, Field::kSourcePort, true, Form::kDecimal, "src-port"},
    {10, 2, Field::kDestinationPort, true, Form::kDecimal, "dst-port"},
}};

struct OperationRow {
    uint16_t code;
    uint16_t values;  // each of 4 bytes
    bool is_action;
};
constexpr uint16_t kAutomatic = 121;  // goes with every rule that the module makes by itself
constexpr std::array<OperationRow, 5> kOperations = {{
    {static_cast<uint16_t>(Action::kDeny), 0, true},
    {static_cast<uint16_t>(Action::kCount), 0, true},
    {static_cast<uint16_t>(Action::kCountToo), 0, true},
    {kAutomatic, 0, false},
    {113, 1, false},
}};

const char *read_match(std::span<const uint8_t> list, Description *description);
const char *read_item(std::span<const uint8_t> item, Description *description);
const char *read_operations(std::span<const uint8_t> list, Description *description);
void keep_to_link_layer(Pattern &pattern);
const char *read_ports(std::span<const uint8_t> list, Kind expected, Description *description);
std::string headline(const Description &description);
void append_field(std::string &text, const FieldRow &row, const uint8_t *value, const uint8_t *mask);

uint16_t number_at(std::span<const uint8_t> bytes, size_t offset) {
    uint16_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

bool all_zero(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

std::span<const uint8_t> bytes_of(Buffer buffer) {
    return {static_cast<const uint8_t *>(buffer.bytes), buffer.len};
}

}  // namespace

bool Description::covers_port(uint32_t port) const {
    return std::find(ports.begin(), ports.end(), static_cast<uint16_t>(port)) != ports.end();
}

const char *read_description(Buffer match, Buffer operations, Buffer ports, Kind expected, Description *description) {
    *description = Description{};
    if (match.bytes == nullptr || operations.bytes == nullptr || ports.bytes == nullptr) {
        return "null buffer";
    }
    for (const char *fault :
         {read_match(bytes_of(match), description), read_operations(bytes_of(operations), description),
          read_ports(bytes_of(ports), expected, description)}) {
        if (fault != nullptr) {
            return fault;
        }
    }
    description->text.insert(0, headline(*description));
    const auto append = [&](std::span<const uint8_t> bytes) {
        description->identity.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    };
    append(bytes_of(match));
    append(bytes_of(operations));
    append(bytes_of(ports).subspan(sizeof(uint16_t)));
    return nullptr;
}

namespace {

const char *read_match(std::span<const uint8_t> list, Description *description) {
    if (list.size() < 2 || list.size() != 2 + kItemSize * number_at(list, 0)) {
        return "match list: length disagrees with its count";
    }
    for (size_t at = 2; at < list.size(); at += kItemSize) {
        if (const char *fault = read_item(list.subspan(at, kItemSize), description); fault != nullptr) {
            return fault;
        }
    }
    return nullptr;
}

const char *read_item(std::span<const uint8_t> item, Description *description) {
    const uint16_t code = number_at(item, 0);
    const uint16_t length = number_at(item, 4);
    if (std::none_of(kFields.begin(), kFields.end(), [&](const FieldRow &row) { return row.code == code; })) {
        return "match list: unknown field code";
    }
    const auto row = std::find_if(kFields.begin(), kFields.end(), [&](const FieldRow &candidate) {
        return candidate.code == code && candidate.length == length;
    });
    if (row == kFields.end()) {
        return "match list: wrong value length";
    }
    if (number_at(item, 2) != 0 || number_at(item, 6) != kValueSlot) {
        return "match list: wrong flag or mask length";
    }
    const auto value = item.subspan(kItemHead, kValueSlot);
    const auto mask = item.subspan(kItemHead + kValueSlot, kValueSlot);
    if (!all_zero(value.subspan(length)) || !all_zero(item.last(kItemReserved))) {
        return "match list: bytes that must be 0 are not";
    }
    Pattern &pattern = description->pattern;
    const KeyBits before = pattern.mask;
    set_presence(pattern.value, row->field);
    set_presence(pattern.mask, row->field);
    if (std::memcmp(&before, &pattern.mask, sizeof(before)) == 0) {
        return "match list: a field twice";
    }
    std::array<uint8_t, kValueSlot> network_value{};
    std::array<uint8_t, kValueSlot> network_mask{};
    std::copy_n(value.begin(), length, network_value.begin());
    std::copy_n(mask.begin(), length, network_mask.begin());
    if (row->is_number && std::endian::native == std::endian::little) {
        std::reverse(network_value.begin(), network_value.begin() + length);
        std::reverse(network_mask.begin(), network_mask.begin() + length);
    }
    const uint8_t offset = field_place(row->field).offset;
    std::copy_n(network_value.begin(), length, pattern.value.bytes + offset);
    std::copy_n(network_mask.begin(), length, pattern.mask.bytes + offset);
    append_field(description->text, *row, network_value.data(), network_mask.data());
    return nullptr;
}

const char *read_operations(std::span<const uint8_t> list, Description *description) {
    if (list.size() < 2) {
        return "operation list: length disagrees with its count";
    }
    size_t at = 2;
    int actions = 0;
    bool is_automatic = false;
    for (uint16_t left = number_at(list, 0); left > 0; --left) {
        if (list.size() - at < 4) {
            return "operation list: length disagrees with its count";
        }
        const uint16_t code = number_at(list, at);
        const auto row = std::find_if(kOperations.begin(), kOperations.end(),
                                      [&](const OperationRow &candidate) { return candidate.code == code; });
        if (row == kOperations.end()) {
            return "operation list: unknown operation code";
        }
        const uint16_t values = number_at(list, at + 2);
        at += 4;
        if (values != row->values) {
            return "operation list: wrong number of values";
        }
        if (list.size() - at < values * kOperationValue) {
            return "operation list: length disagrees with its count";
        }
        if (values == 1 && number_at(list, at) != sizeof(uint32_t)) {
            return "operation list: wrong value length";
        }
        at += values * kOperationValue;
        is_automatic |= code == kAutomatic;
        if (row->is_action) {
            description->action = static_cast<Action>(code);
            ++actions;
        }
    }
    if (at != list.size()) {
        return "operation list: length disagrees with its count";
    }
    if (is_automatic) {
        keep_to_link_layer(description->pattern);
    }
    return actions == 1 ? nullptr : "operation list: not just one of deny and count";
}

// A rule of the module's own that names a destination address and no type is about protocols of the link layer (STP,
// LLDP, LACP): IP and ARP frames to the same address are not meant. Else a sender who forges LLDP from a neighbour's
// address to the device's own would have all of that neighbour's frames stopped.
void keep_to_link_layer(Pattern &pattern) {
    if (is_present(pattern.mask, Field::kDestinationMac) && !is_present(pattern.mask, Field::kEtherType)) {
        set_link_layer_mark(pattern.value);
        set_link_layer_mark(pattern.mask);
    }
}

const char *read_ports(std::span<const uint8_t> list, Kind expected, Description *description) {
    if (list.size() < 4 || list.size() != 4 + sizeof(uint16_t) * number_at(list, 2)) {
        return "port list: length disagrees with its count";
    }
    if (number_at(list, 0) != static_cast<uint16_t>(expected)) {
        return "port list: another kind than asked for";
    }
    if (list.size() == 4) {
        return "port list: no port";
    }
    for (size_t at = 4; at < list.size(); at += sizeof(uint16_t)) {
        description->ports.push_back(number_at(list, at));
    }
    return nullptr;
}

std::string headline(const Description &description) {
    std::string text = description.action == Action::kDeny
                           ? "deny"
                           : "count(" + std::to_string(static_cast<unsigned>(description.action)) + ")";
    text += description.ports.size() == 1 ? " port " : " ports ";
    for (size_t i = 0; i < description.ports.size(); ++i) {
        text += (i > 0 ? "," : "") + std::to_string(description.ports[i]);
    }
    return text;
}

// " name value", and "/bits" where the mask is shorter than the field or " mask bits" where it is no prefix.
void append_field(std::string &text, const FieldRow &row, const uint8_t *value, const uint8_t *mask) {
    char value_text[INET6_ADDRSTRLEN] = "";
    const int number = row.length == 1 ? value[0] : value[0] << 8 | value[1];
    switch (row.form) {
        case Form::kMac:
            std::snprintf(value_text, sizeof(value_text), "%02x:%02x:%02x:%02x:%02x:%02x", value[0], value[1], value[2],
                          value[3], value[4], value[5]);
            break;
        case Form::kDecimal:
            std::snprintf(value_text, sizeof(value_text), "%d", number);
            break;
        case Form::kHex:
            std::snprintf(value_text, sizeof(value_text), "0x%04x", static_cast<unsigned>(number));
            break;
        case Form::kIp:
            inet_ntop(row.length == 4 ? AF_INET : AF_INET6, value, value_text, sizeof(value_text));
            break;
    }
    text += std::string(" ") + row.name + " " + value_text;

    int ones = 0;    // bits of the mask that are set
    int prefix = 0;  // of them, those before the first that is not
    for (int bit = 0; bit < row.length * 8; ++bit) {
        const bool is_set = (mask[bit / 8] >> (7 - bit % 8) & 1) != 0;
        prefix += is_set && prefix == bit ? 1 : 0;
        ones += is_set ? 1 : 0;
    }
    if (ones != prefix) {
        text += " mask ";
        for (int i = 0; i < row.length; ++i) {
            char byte_text[3];
            std::snprintf(byte_text, sizeof(byte_text), "%02x", mask[i]);
            text += byte_text;
        }
    } else if (prefix != row.length * 8) {
        text += "/" + std::to_string(prefix);
    }
}

}  // namespace

}  // namespace card
