// SPDX-License-Identifier: Apache-2.0
#include "atc/text.h"

#include <arpa/inet.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

bool append(atc_text_t *text, const char *format, va_list arguments);
void mac_text(const uint8_t *mac, char separator, char *buf, uint32_t size);
uint32_t ipv4_of(const uint8_t *addr);

}  // namespace

void atc_text_init(atc_text_t *text, char *buf, uint32_t size) {
    *text = {buf, size, 0};
    buf[0] = '\0';
}

bool atc_text_append(atc_text_t *text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const bool is_whole = append(text, format, arguments);
    va_end(arguments);
    if (!is_whole) {
        text->len += static_cast<uint32_t>(strlen(text->buf + text->len));
    }
    return is_whole;
}

bool atc_text_append_whole(atc_text_t *text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const bool is_whole = append(text, format, arguments);
    va_end(arguments);
    if (!is_whole) {
        text->buf[text->len] = '\0';
    }
    return is_whole;
}

void atc_src_text(uint32_t src_type, const uint8_t *addr, char *buf, uint32_t size) {
    char address[INET6_ADDRSTRLEN] = "";
    buf[0] = '\0';
    switch (src_type) {
        case ATC_SRC_MAC:
            mac_text(addr, ':', address, sizeof(address));
            snprintf(buf, size, "mac %s", address);
            break;
        case ATC_SRC_IPV4:
            atc_ipv4_text(ipv4_of(addr), address, sizeof(address));
            snprintf(buf, size, "ip %s", address);
            break;
        case ATC_SRC_IPV6:
            inet_ntop6(addr, address, sizeof(address));
            snprintf(buf, size, "ipv6 %s", address);
            break;
        default:
            break;
    }
}

void atc_src_file_text(uint32_t src_type, const uint8_t *addr, char *buf, uint32_t size) {
    buf[0] = '\0';
    switch (src_type) {
        case ATC_SRC_MAC:
            mac_text(addr, '-', buf, size);
            break;
        case ATC_SRC_IPV4:
            atc_ipv4_text(ipv4_of(addr), buf, size);
            break;
        case ATC_SRC_IPV6:
            inet_ntop(AF_INET6, addr, buf, size);
            break;
        default:
            break;
    }
}

void atc_ipv4_text(uint32_t address, char *buf, uint32_t size) {
    const in_addr network_order = {htonl(address)};
    inet_ntop(AF_INET, &network_order, buf, size);
}

namespace {

// Formats at the end of the text. Returns false, with a cut text behind the end, when it does not fit.
bool append(atc_text_t *text, const char *format, va_list arguments) {
    const uint32_t room = text->size - text->len;
    const int needed = vsnprintf(text->buf + text->len, room, format, arguments);
    if (static_cast<uint32_t>(needed) >= room) {  // what cannot be formatted (-1) neither
        return false;
    }
    text->len += static_cast<uint32_t>(needed);
    return true;
}

void mac_text(const uint8_t *mac, char separator, char *buf, uint32_t size) {
    snprintf(buf, size, "%02x%c%02x%c%02x%c%02x%c%02x%c%02x", mac[0], separator, mac[1], separator, mac[2], separator,
             mac[3], separator, mac[4], separator, mac[5]);
}

// A source entry keeps an IPv4 address as a word in processor byte order.
uint32_t ipv4_of(const uint8_t *addr) {
    uint32_t address;
    memcpy(&address, addr, sizeof(address));
    return address;
}

}  // namespace
