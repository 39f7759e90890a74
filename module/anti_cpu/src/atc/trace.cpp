// SPDX-License-Identifier: Apache-2.0
#include "atc/trace.h"

#include <stdarg.h>
#include <stdio.h>

#include "atc/rule_match.h"
#include "atc/state/context.h"

namespace {

constexpr uint32_t DUMP_MAX = 64;       // bytes of a packet that are shown
constexpr uint32_t DUMP_LINE = 16;      // bytes a line
constexpr uint32_t OUTPUT_SIZE = 256;   // bytes of a console text with its terminator
constexpr uint32_t DUMP_BYTE_TEXT = 3;  // characters of one byte: two digits and a blank

void dump_line(const uint8_t *data, uint32_t len);

}  // namespace

int atc_debug_check(const atc_pkt_info_t *pkt) {
    if (g_atc_global.debug_enable != 1 || g_atc_global.debug_count == 0) {
        return 0;
    }
    return atc_rule_match(&g_atc_global.debug_filter, pkt) ? 1 : 0;
}

void atc_debug_packet(const uint8_t *buf, uint32_t len, const atc_pkt_info_t *pkt) {
    char name[ATC_NAME_SIZE] = {};
    atc_protocol_id_to_name(pkt->protocol, name, sizeof(name));
    atc_output("\r\n");
    atc_output("++%s %s packet from port %d vlan %d len %d++\r\n",
               pkt->direction == ATC_DIRECTION_RX ? "receive" : "send", name, pkt->port, pkt->vlan, len);
    atc_debug_out(buf, static_cast<int32_t>(len < DUMP_MAX ? len : DUMP_MAX));
    atc_output("++++++++++++++++++++++end++++++++++++++++++++++++\r\n\n");
    g_atc_global.debug_count--;
    if (g_atc_global.debug_count == 0) {
        g_atc_global.debug_enable = 0;
    }
}

void atc_debug_out(const uint8_t *data, int32_t len) {
    const uint32_t bytes = len < 0 ? 0 : static_cast<uint32_t>(len);
    const uint32_t shown = bytes < DUMP_MAX ? bytes : DUMP_MAX;
    for (uint32_t i = 0; i < shown; i += DUMP_LINE) {
        dump_line(data + i, shown - i < DUMP_LINE ? shown - i : DUMP_LINE);
    }
}

int atc_output(const char *format, ...) {
    char text[OUTPUT_SIZE] = {};
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (written < 0) {
        return -1;
    }
    printf("%s", text);
    return written;
}

namespace {

void dump_line(const uint8_t *data, uint32_t len) {
    static constexpr char digits[] = "0123456789abcdef";
    char text[DUMP_LINE * DUMP_BYTE_TEXT + 1] = {};
    for (uint32_t i = 0; i < len; i++) {
        text[i * DUMP_BYTE_TEXT] = digits[data[i] >> 4];
        text[i * DUMP_BYTE_TEXT + 1] = digits[data[i] & 0x0F];
        text[i * DUMP_BYTE_TEXT + 2] = ' ';
    }
    atc_output("%s\r\n", text);
}

}  // namespace
