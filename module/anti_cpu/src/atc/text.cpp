#include "atc/text.h"

#include <arpa/inet.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

int format_at_end(const atc_text_t *text, const char *format, va_list arguments);
bool fits(const atc_text_t *text, int needed);
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
    const int needed = format_at_end(text, format, arguments);
    va_end(arguments);
    if (fits(text, needed)) {
        text->len += static_cast<uint32_t>(needed);
        return true;
    }
    text->len += static_cast<uint32_t>(strlen(text->buf + text->len));
    return false;
}

bool atc_text_append_whole(atc_text_t *text, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int needed = format_at_end(text, format, arguments);
    va_end(arguments);
    if (fits(text, needed)) {
        text->len += static_cast<uint32_t>(needed);
        return true;
    }
    text->buf[text->len] = '\0';
    return false;
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
    if (inet_ntop(AF_INET, &network_order, buf, size) == nullptr) {
        buf[0] = '\0';
    }
}

namespace {

// Formats at the end of the text. Returns the characters that the whole text needs, or a negative number.
int format_at_end(const atc_text_t *text, const char *format, va_list arguments) {
    return vsnprintf(text->buf + text->len, text->size - text->len, format, arguments);
}

bool fits(const atc_text_t *text, int needed) {
    return needed >= 0 && static_cast<uint32_t>(needed) < text->size - text->len;
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
