/* SPDX-License-Identifier: Apache-2.0 */
/* card.c: the least that a process brings to run libanti_cpu.so: one mutex, one queue, one task, no switching chip, no
 * trunks, no file server. It floods the module with ARP requests until that logs the alarm. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "anti_cpu/anti_cpu.h"
#include "anti_cpu/platform.h"

#pragma GCC diagnostic ignored "-Wunused-parameter" /* a small card has no use for most of them */
#define AT const char *file, int line
#define RULE uint32_t a, uint32_t b, const void *m, uint32_t ml, const void *o, uint32_t ol, const void *p, uint32_t pl
enum { ARP = 6, PORT = 3, VLAN = 100, TICKS = 1000 };

static pthread_mutex_t module_mutex = PTHREAD_MUTEX_INITIALIZER;
static atomic_int room; /* messages that the queue still takes */
static int queue[2], (*task_entry)(void);
static atomic_bool alarm_logged;

void *bep_mallocEx(uint32_t size, AT) { return malloc(size); }
void *bep_callocEx(uint32_t count, uint32_t size, AT) { return calloc(count, size); }
void bep_freeEx(void *ptr, AT) { free(ptr); }
void *bep_memSetEx(void *dst, int value, uint32_t size) { return memset(dst, value, size); }
void *bep_memCpyEx(void *dst, const void *src, uint32_t size) { return memcpy(dst, src, size); }
int bep_memCmp(const void *a, const void *b, uint32_t size) { return memcmp(a, b, size); }
char *bep_StrNCpy(char *dst, const char *src, uint32_t size) { return strncpy(dst, src, size); }
int bep_StrNCmp(const char *a, const char *b, uint32_t len) { return strncmp(a, b, len); }
uint32_t bep_semMCreateEx(uint32_t options, AT) { return 1; }
int bep_semTakeEx(uint32_t sem, int timeout, AT) { return pthread_mutex_lock(&module_mutex); }
int bep_semGiveEx(uint32_t sem, AT) { return pthread_mutex_unlock(&module_mutex); }
uint32_t bep_msgQCreateEx(uint32_t max_messages, uint32_t size, uint32_t options, AT) {
    room = (int)max_messages; /* of less than 256 bytes: the kernel has room for 64 KiB */
    return pipe(queue) == 0 && fcntl(queue[1], F_SETFL, O_NONBLOCK) == 0 ? 1 : 0;
}
int bep_msgQSendEx(uint32_t msgq, const void *message, uint32_t size, int timeout, uint32_t priority, AT) {
    if (atomic_fetch_sub(&room, 1) > 0 && write(queue[1], message, size) == (ssize_t)size) {
        return 0; /* whole or not at all, and never waits */
    }
    room++;
    return -1;
}
int bep_msgQReceiveEx(uint32_t msgq, void *message, uint32_t size, int timeout_ticks, AT) {
    struct pollfd filled = {queue[0], POLLIN, 0};
    const int length = poll(&filled, 1, timeout_ticks) == 1 ? (int)read(queue[0], message, size) : 0;
    room += length > 0;
    return length;
}
int bep_taskDelayEx(uint32_t ticks) { return poll(NULL, 0, (int)ticks); }
uint32_t bep_sysClkRateGetEx(void) { return TICKS; } /* a second: poll takes milliseconds */
static void *run_task(void *unused) { return task_entry() == 0 ? NULL : unused; }
int norv_task_spawn(const char *name, int priority, int options, uint32_t stack, int (*entry)(void), uintptr_t a1,
                    uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5, uintptr_t a6, uintptr_t a7, uintptr_t a8,
                    uintptr_t a9, uintptr_t a10, uintptr_t a11) {
    task_entry = entry;
    return pthread_create(&(pthread_t){0}, NULL, run_task, NULL) == 0 ? 0 : -1;
}
uint32_t modInitRegister(const char *name, uint32_t a, uint32_t b, uint32_t c, uint32_t d) { return 1; }
int setModVersion(uint32_t mod_id, uint32_t kind, const char *version) { return 0; }
int ulogPrintf(uint32_t mod_id, uint32_t level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int written = vprintf(format, arguments);
    va_end(arguments);
    alarm_logged |= strstr(format, "over fast period limit") != NULL;
    return written < 0 ? -1 : 0;
}
void syslog_get_timestamp(char *text, uint32_t size) { snprintf(text, size, "%lld", (long long)time(NULL)); }
int xftp_upload_base(const char *server, const char *user, const char *passwd, const char *name, const void *data,
                     uint32_t length, uint32_t ftp_type, void *result) {
    return -1;
}
int hw_driver_set_stream_qos_item(RULE, void *unused) { return -1; }
int hw_driver_delete_qos_item_by_stream(RULE, void *unused) { return -1; }
int hw_driver_lookup_entry_by_stream(RULE, uint32_t *entry_id) { return -1; }
int hw_driver_lookup_stat_id_by_stream(RULE, uint32_t *stat_id) { return -1; }
int hw_driver_get_stat_by_stat_id(uint32_t stat_id, atc_stat_hw_t *stat) { return -1; }
void hss_get_device_mac(uint8_t *mac) { memcpy(mac, "\x02\0\0\0\0\1", 6); }
int hal_register_trunk_handler(int (*handler)(uint32_t, uint32_t, uint32_t, uint32_t)) { return 0; }
int br_comm_transfer_portindex_2slotport(uint32_t port, uint32_t *slot, uint32_t *slot_port) {
    *slot = 1, *slot_port = port;
    return 0;
}
uint32_t get_bakup_core_card_cardnumber(void) { return 0; }
const char *inet_ntop6(const void *ip, char *text, uint32_t size) { return inet_ntop(AF_INET6, ip, text, size); }

int main(void) {
    static const uint8_t request[60] = "\xff\xff\xff\xff\xff\xff\0\x11\x22\x33\x44\x55\x08\x06";
    atc_init();
    atc_api_set_fast_period_time(1);
    atc_api_set_protocol_fp_limit(ARP, 10);
    while (!alarm_logged) {
        atc_api_receive_packet(request, sizeof(request), PORT, VLAN);
        bep_taskDelayEx(1);
    }
    return 0;
}
