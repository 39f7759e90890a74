// chip_text.h: the driver's buffers as one line of text, so that a test names a whole rule in its expected value.
//
// "4=100 2=0a000001 5=2048/0 | 100 121 113:80001 | 3 4": match items as code=value (numbers decimal, addresses hex, a
// mask that is no exact one as /bits), operations with their values, ports. Anything that is not laid out as the driver
// expects it adds a word with '!'. Knows the layout on its own, from nothing of the module.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fake_platform.h"

template <typename number_t>
number_t chip_number(const Bytes &bytes, size_t at) {
    number_t number = 0;
    if (at + sizeof(number) <= bytes.size()) {
        std::memcpy(&number, bytes.data() + at, sizeof(number));
    }
    return number;
}

// Bits of a prefix mask, -1 for any other.
inline int chip_mask_bits(const uint8_t *mask) {
    int bits = 0;
    while (bits < 256 && (mask[bits / 8] & (0x80 >> (bits % 8))) != 0) {
        ++bits;
    }
    int ones = 0;
    for (int i = 0; i < 32; ++i) {
        ones += std::popcount(mask[i]);
    }
    return ones == bits ? bits : -1;
}

inline std::string chip_item_text(const uint8_t *item) {
    uint16_t head[4];  // code, flag, value length, mask length
    std::memcpy(head, item, sizeof(head));
    const bool is_address = head[0] <= 3;
    uint16_t number = item[8];
    if (head[2] == 2) {
        std::memcpy(&number, item + 8, sizeof(number));
    }
    std::string text = std::to_string(head[0]) + "=" + (is_address ? "" : std::to_string(number));
    for (int i = 0; i < 32; ++i) {
        char hex[3];
        std::snprintf(hex, sizeof(hex), "%02x", item[8 + i]);
        text += i >= head[2] ? (item[8 + i] == 0 ? "" : " !value") : is_address ? hex : "";
    }
    text += is_address || head[2] == (head[0] == 6 ? 1 : 2) ? "" : " !value-length";
    const int bits = chip_mask_bits(item + 40);
    text += bits == 256 ? "" : bits < 0 ? " !mask" : "/" + std::to_string(bits);
    for (int i = 72; i < 88; ++i) {
        text += item[i] == 0 ? "" : " !tail";
    }
    return text + (head[1] == 0 ? "" : " !flag") + (head[3] == 32 ? "" : " !mask-length") + " ";
}

inline std::string chip_text(const ChipRule &rule) {
    std::string text;
    for (size_t at = 2; at + 88 <= rule.match.size(); at += 88) {
        text += chip_item_text(rule.match.data() + at);
    }
    text += rule.match.size() == 2 + 88U * chip_number<uint16_t>(rule.match, 0) ? "|" : "!items |";
    uint16_t ops = 0;
    for (size_t at = 2; at < rule.op.size(); ++ops) {
        text += " " + std::to_string(chip_number<uint16_t>(rule.op, at));
        const uint16_t values = chip_number<uint16_t>(rule.op, at + 2);
        at += 4;
        for (uint16_t i = 0; i < values; ++i, at += 18) {
            text += ":" + std::to_string(chip_number<uint32_t>(rule.op, at + 2));
            text += chip_number<uint16_t>(rule.op, at) == 4 ? "" : " !value-length";
        }
    }
    text += chip_number<uint16_t>(rule.op, 0) == ops ? " |" : " !operations |";
    for (size_t at = 4; at + 2 <= rule.port.size(); at += 2) {
        text += " " + std::to_string(chip_number<uint16_t>(rule.port, at));
    }
    return text;
}

// Every rule in the chip, by entry id.
inline std::vector<std::string> chip_texts() {
    std::vector<std::string> texts;
    for (const ChipRule &rule : fake().chip()) {
        texts.push_back(chip_text(rule));
    }
    return texts;
}
