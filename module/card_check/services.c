/* SPDX-License-Identifier: Apache-2.0 */
/* services.c: time, tasks, registry, log, texts, and what the card says of itself. */
#define _POSIX_C_SOURCE 200809L
#include <stdatomic.h>
#include <string.h>

#include "anti_cpu/platform.h"
#include "check.h"

enum {
    STACK = 65536,
    STACK_USED = 49152,
    LOG_LEVEL = 13,
    GUARD = 0x5a
};

void check_clock(void) {
    check_promise("bep_sysClkRateGetEx", "at least 1, always the same");
    const uint32_t rate = bep_sysClkRateGetEx();
    check_that(rate >= 1, "0 ticks a second");
    check_that(bep_sysClkRateGetEx() == rate, "%u, then %u", rate, bep_sysClkRateGetEx());
    check_note("%u", rate);
    check_promise("bep_taskDelayEx", "the ticks given, by CLOCK_MONOTONIC");
    const uint32_t ticks = rate / 5 + 1;
    const double expected = (double)ticks / (rate > 0 ? rate : 1);
    const double start = check_seconds();
    check_that(bep_taskDelayEx(0) == 0, "0 ticks are refused");
    check_that(bep_taskDelayEx(ticks) == 0, "is refused");
    const double waited = check_seconds() - start;
    check_that(waited > 0.9 * expected && waited < expected + 2, "%.3f s instead of %.3f s", waited, expected);
}

static atomic_bool has_come_back, has_run, ran_inside;

/* The monitor task's stack, nearly all of it; then waits for the call that started it to come back. */
static int run_task(void) {
    volatile uint8_t used[STACK_USED];
    for (unsigned i = 0; i < STACK_USED; i += 256) {
        used[i] = (uint8_t)i;
    }
    const double start = check_seconds();
    while (!has_come_back && check_seconds() - start < 2) {
        bep_taskDelayEx(1);
    }
    ran_inside = !has_come_back;
    has_run = used[0] == 0;
    return 0;
}

void check_task(void) {
    check_promise("norv_task_spawn", "runs entry() beside its caller, with the stack asked for");
    has_come_back = has_run = ran_inside = false;
    const int task = norv_task_spawn("check", 30, 8, STACK, run_task, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    has_come_back = true;
    if (!check_that(task >= 0, "result %d", task)) {
        return;
    }
    const double start = check_seconds();
    while (!has_run && check_seconds() - start < 5) {
        bep_taskDelayEx(1);
    }
    check_that(has_run, "5 s later it has not run");
    check_that(!ran_inside, "it runs before the call comes back, and the monitor task has no end");
}

static void *log_lines(void *mod_id) {
    for (int i = 0; i < 3; i++) {
        ulogPrintf(*(uint32_t *)mod_id, LOG_LEVEL, "card check: line %d of %s, %u%%\r\n", i, "one thread", 100u);
    }
    return NULL;
}

static void check_log(void) {
    check_promise("modInitRegister", "comes back");
    uint32_t mod_id = modInitRegister("card-check", 0, 0, 0, 0);
    check_note("handle %u", mod_id);
    check_promise("setModVersion", "0");
    const int result = setModVersion(mod_id, 1, "Sep  2 2021 03:46:20");
    check_that(result == 0, "%d", result);
    check_promise("ulogPrintf", "comes back; long lines, and several threads at once");
    ulogPrintf(mod_id, LOG_LEVEL, "card check: a line of 256 characters %0222d\r\n", 0);
    check_in_threads(CHECK_THREADS, log_lines, &mod_id);
}

static void check_texts(void) {
    char text[64];
    check_promise("syslog_get_timestamp", "a text that ends within the size");
    for (uint32_t size = sizeof(text); size > 0; size /= 4) {
        memset(text, GUARD, sizeof(text));
        syslog_get_timestamp(text, size);
        check_that(memchr(text, '\0', size) != NULL, "no end within %u bytes", size);
        check_that(check_filled(text + size, GUARD, (uint32_t)sizeof(text) - size), "writes behind %u bytes", size);
    }
    static const struct {
        uint8_t address[16];
        const char *text;
    } rows[] = {
        {{0}, "::"},
        {{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}, "2001:db8::7"},
        {{0x20, 0x01, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}, "2001:0:1::1:0"},
        {{0xfe, 0x80, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 0xab, 0xcd}, "fe80:100:200:300:400:500:600:abcd"},
    };
    check_promise("inet_ntop6", "RFC 5952; null when it does not fit");
    for (unsigned i = 0; i < sizeof(rows) / sizeof(rows[0]); i++) {
        memset(text, GUARD, sizeof(text));
        const char *result = inet_ntop6(rows[i].address, text, sizeof(text));
        check_that(result == text && memchr(text, '\0', sizeof(text)) != NULL && strcmp(text, rows[i].text) == 0,
                   "%s has another text, or another address is returned", rows[i].text);
        const uint32_t size = (uint32_t)strlen(rows[i].text);
        memset(text, GUARD, sizeof(text));
        check_that(inet_ntop6(rows[i].address, text, size) == NULL, "%s fits in %u bytes", rows[i].text, size);
        check_that(check_filled(text + size, GUARD, (uint32_t)sizeof(text) - size), "writes behind %u bytes", size);
    }
}

void check_services(void) {
    check_log();
    check_texts();
    check_promise("xftp_upload_base", "not 0 when nothing arrived");
    char result[24] = {0};
    check_that(xftp_upload_base("", "", "", "card-check.cap", "data", 4, 0, result) != 0, "0 without a server");
    check_note("asked without a server; that files arrive is yours to try");
}

static int ignore_trunks(uint32_t unused, uint32_t trunk, uint32_t member, uint32_t op) {
    return (int)(0 * (unused + trunk + member + op));
}

void check_card(void) {
    uint8_t mac[8];
    uint8_t again[6];
    check_promise("hss_get_device_mac", "6 bytes, a device's own address, always the same");
    memset(mac, GUARD, sizeof(mac));
    hss_get_device_mac(mac);
    memset(again, 0, sizeof(again));
    hss_get_device_mac(again);
    check_that(memcmp(mac, again, sizeof(again)) == 0, "two addresses");
    check_that(check_filled(mac + 6, GUARD, 2), "writes more than 6 bytes");
    check_that((mac[0] & 1) == 0 && !check_filled(mac, 0, 6), "a group's address, or none");
    check_note("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);

    check_promise("br_comm_transfer_portindex_2slotport", "both words when it returns 0, always the same");
    unsigned translated = 0;
    for (uint32_t port = 0; port < 256; port++) {
        uint32_t words[2][2] = {{UINT32_MAX, UINT32_MAX}, {UINT32_MAX - 1, UINT32_MAX - 1}};
        const int first = br_comm_transfer_portindex_2slotport(port, &words[0][0], &words[0][1]);
        const int second = br_comm_transfer_portindex_2slotport(port, &words[1][0], &words[1][1]);
        check_that(first == second, "port %u: %d, then %d", port, first, second);
        check_that(first != 0 || memcmp(words[0], words[1], sizeof(words[0])) == 0, "port %u: %u/%u, then %u/%u", port,
                   words[0][0], words[0][1], words[1][0], words[1][1]);
        translated += first == 0;
    }
    check_that(translated > 0, "none of the ports 0 to 255");
    check_note("%u of the ports 0 to 255", translated);
    check_promise("get_bakup_core_card_cardnumber", "comes back");
    check_note("%u", get_bakup_core_card_cardnumber());
    check_promise("hal_register_trunk_handler", "0");
    const int registered = hal_register_trunk_handler(ignore_trunks);
    check_that(registered == 0, "%d", registered);
    check_note("that it is called for every change is yours to try");
}
