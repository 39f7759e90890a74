/* SPDX-License-Identifier: Apache-2.0 */
/* faulty.c: the card on Linux with one fault, the one that the argument names, under the check. Without an argument: a
 * line "fault:functions" for each. The linker leads the check's calls through __wrap_* here; __real_* is the card's. */
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "anti_cpu/card_check.h"
#include "anti_cpu/platform.h"

/* WRAP(result, function, parameters): declares the card's and begins ours. */
#define WRAP(result, function, ...)        \
    result __real_##function(__VA_ARGS__); \
    result __wrap_##function(__VA_ARGS__); \
    result __wrap_##function(__VA_ARGS__)
#define AT const char *file, int line
#define RULE uint32_t a, uint32_t b, const void *m, uint32_t ml, const void *o, uint32_t ol, const void *p, uint32_t pl
#define GIVEN a, b, m, ml, o, ol, p, pl

static const char *fault = "";

static bool has(const char *name) {
    return strcmp(fault, name) == 0;
}

WRAP(void *, bep_mallocEx, uint32_t size, AT) {
    static uint8_t shared[64];
    uint8_t *block = has("blocks overlap") && size < 24 ? shared : __real_bep_mallocEx(size + 8, file, line);
    return has("blocks are misaligned") ? block + 8 : block;
}
WRAP(void *, bep_callocEx, uint32_t count, uint32_t size, AT) {
    if (has("product wraps") && count > 3) {
        return __real_bep_mallocEx(1, file, line);
    }
    void *block = __real_bep_callocEx(count, size, file, line);
    return has("no zeros") && count <= 3 ? memset(block, 1, size) : block;
}
WRAP(void, bep_freeEx, void *ptr, AT) {
    if (has("null is not freed") && ptr == NULL) {
        abort();
    }
    if (!has("blocks are misaligned") && !has("blocks overlap")) {
        __real_bep_freeEx(ptr, file, line);
    }
}
WRAP(void *, bep_memSetEx, void *dst, int value, uint32_t size) {
    return __real_bep_memSetEx(dst, value, has("fills one more") ? size + 1 : size);
}
WRAP(void *, bep_memCpyEx, void *dst, const void *src, uint32_t size) {
    return has("copies a text") ? strncpy(dst, src, size) : __real_bep_memCpyEx(dst, src, size);
}
WRAP(int, bep_memCmp, const void *a, const void *b, uint32_t size) {
    return has("compares texts") ? strncmp(a, b, size) : __real_bep_memCmp(a, b, size);
}
WRAP(char *, bep_StrNCpy, char *dst, const char *src, uint32_t size) {
    return has("no padding") ? memcpy(dst, src, strlen(src) < size ? strlen(src) : size)
                             : __real_bep_StrNCpy(dst, src, size);
}
WRAP(int, bep_StrNCmp, const char *a, const char *b, uint32_t len) {
    return has("compares behind the end") ? memcmp(a, b, len) : __real_bep_StrNCmp(a, b, len);
}
WRAP(uint32_t, bep_semMCreateEx, uint32_t options, AT) {
    return has("no mutex") ? 0 : __real_bep_semMCreateEx(options, file, line);
}
static _Thread_local bool rests;
WRAP(int, bep_taskDelayEx, uint32_t ticks) {
    rests = true;
    return __real_bep_taskDelayEx(has("half the delay") ? ticks / 2 : ticks);
}
static atomic_bool taken;
WRAP(int, bep_semTakeEx, uint32_t sem, int timeout, AT) {
    if (has("nobody is kept out")) {
        return 0;
    }
    /* A task that rests at times and finds it taken looks again much later; the card's take would wait a little even
     * without a timeout. */
    if (has("starves") && atomic_exchange(&taken, true) && rests) {
        __real_bep_taskDelayEx(2500);
    }
    return __real_bep_semTakeEx(sem, timeout, file, line);
}
WRAP(int, bep_semGiveEx, uint32_t sem, AT) {
    if (has("keeps the mutex") || has("nobody is kept out")) {
        return 0;
    }
    taken = false;
    return __real_bep_semGiveEx(sem, file, line);
}
WRAP(uint32_t, bep_msgQCreateEx, uint32_t messages, uint32_t size, uint32_t options, AT) {
    return __real_bep_msgQCreateEx(has("never full") ? 99 * messages : messages, size, options, file, line);
}
WRAP(int, bep_msgQSendEx, uint32_t msgq, const void *message, uint32_t size, int timeout, uint32_t priority, AT) {
    static uint32_t sent;
    return __real_bep_msgQSendEx(msgq, message, size, has("waits when full") ? 2500 : timeout,
                                 has("newest first") ? ++sent : priority, file, line);
}
WRAP(int, bep_msgQReceiveEx, uint32_t msgq, void *message, uint32_t size, int ticks, AT) {
    return __real_bep_msgQReceiveEx(msgq, message, size, has("does not wait") ? 0 : ticks, file, line);
}
WRAP(uint32_t, bep_sysClkRateGetEx, void) {
    static uint32_t asked;
    return __real_bep_sysClkRateGetEx() + (has("rate changes") ? asked++ : 0);
}
WRAP(int, norv_task_spawn, const char *name, int priority, int options, uint32_t stack, int (*entry)(void),
     uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5, uintptr_t a6, uintptr_t a7, uintptr_t a8,
     uintptr_t a9, uintptr_t a10, uintptr_t a11) {
    return has("task within the call") ? entry()
                                       : __real_norv_task_spawn(name, priority, options, stack, entry, a1, a2, a3, a4,
                                                                a5, a6, a7, a8, a9, a10, a11);
}
WRAP(int, setModVersion, uint32_t mod_id, uint32_t kind, const char *version) {
    return has("no versions") ? -1 : __real_setModVersion(mod_id, kind, version);
}
WRAP(void, syslog_get_timestamp, char *text, uint32_t size) {
    __real_syslog_get_timestamp(text, has("time text is too long") ? size + 8 : size);
}
WRAP(const char *, inet_ntop6, const void *address, char *text, uint32_t size) {
    const char *result = __real_inet_ntop6(address, text, size);
    return has("address text always fits") ? text : result;
}
WRAP(int, xftp_upload_base, const char *server, const char *user, const char *passwd, const char *name,
     const void *data, uint32_t length, uint32_t type, void *result) {
    const int sent = __real_xftp_upload_base(server, user, passwd, name, data, length, type, result);
    return has("all files arrive") ? 0 : sent;
}
WRAP(int, hw_driver_set_stream_qos_item, RULE, void *unused) {
    const int result = __real_hw_driver_set_stream_qos_item(GIVEN, unused);
    return has("takes every rule") ? 0 : has("refuses with 1") && result < 0 ? 1 : result;
}
WRAP(int, hw_driver_delete_qos_item_by_stream, RULE, void *unused) {
    const int result = __real_hw_driver_delete_qos_item_by_stream(GIVEN, unused);
    return has("removes what is not there") ? 0 : result;
}
WRAP(int, hw_driver_lookup_entry_by_stream, RULE, uint32_t *id) {
    const int result = __real_hw_driver_lookup_entry_by_stream(GIVEN, id);
    *id = has("every rule is 7") && result == 0 ? 7 : has("unknown is 0") && result != 0 ? 0 : *id;
    return result;
}
WRAP(int, hw_driver_lookup_stat_id_by_stream, RULE, uint32_t *id) {
    const int result = __real_hw_driver_lookup_stat_id_by_stream(GIVEN, id);
    static uint32_t asked;
    *id += has("another number each time") && result == 0 ? ++asked : 0;
    return result;
}
WRAP(int, hw_driver_get_stat_by_stat_id, uint32_t id, atc_stat_hw_t *stat) {
    const int result = __real_hw_driver_get_stat_by_stat_id(id, stat);
    stat->packets += has("counts from 5") && result == 0 ? 5 : 0;
    return result;
}
WRAP(void, hss_get_device_mac, uint8_t *mac) {
    __real_hss_get_device_mac(mac);
    mac[0] |= has("address of a group") ? 1 : 0;
}
WRAP(int, br_comm_transfer_portindex_2slotport, uint32_t port, uint32_t *slot, uint32_t *slot_port) {
    return __real_br_comm_transfer_portindex_2slotport(port, slot, has("no slot port") ? &(uint32_t){0} : slot_port);
}
WRAP(int, hal_register_trunk_handler, int (*handler)(uint32_t, uint32_t, uint32_t, uint32_t)) {
    return has("no trunks") ? -1 : __real_hal_register_trunk_handler(handler);
}

#define MUTEX "bep_semTakeEx, bep_semGiveEx"
#define QUEUE "bep_msgQSendEx, bep_msgQReceiveEx"

static const char *const faults[] = {
    "blocks are misaligned:bep_mallocEx",
    "blocks overlap:bep_mallocEx, bep_mallocEx, bep_freeEx",
    "no zeros:bep_callocEx",
    "product wraps:bep_callocEx",
    "null is not freed:bep_freeEx",
    "fills one more:bep_memSetEx",
    "copies a text:bep_memCpyEx",
    "compares texts:bep_memCmp",
    "no padding:bep_StrNCpy",
    "compares behind the end:bep_StrNCmp",
    "no mutex:bep_semMCreateEx",
    "half the delay:bep_taskDelayEx",
    "nobody is kept out:" MUTEX,
    "starves:" MUTEX,
    "keeps the mutex:" MUTEX,
    "never full:bep_msgQSendEx",
    "waits when full:bep_msgQSendEx",
    "newest first:bep_msgQReceiveEx, " QUEUE,
    "does not wait:bep_msgQReceiveEx, " QUEUE,
    "rate changes:bep_sysClkRateGetEx",
    "task within the call:norv_task_spawn",
    "no versions:setModVersion",
    "time text is too long:syslog_get_timestamp",
    "address text always fits:inet_ntop6",
    "all files arrive:xftp_upload_base",
    "takes every rule:hw_driver_set_stream_qos_item, hw_driver_delete_qos_item_by_stream",
    "refuses with 1:hw_driver_set_stream_qos_item",
    "removes what is not there:hw_driver_delete_qos_item_by_stream",
    "every rule is 7:hw_driver_lookup_entry_by_stream",
    "unknown is 0:hw_driver_lookup_entry_by_stream, hw_driver_set_stream_qos_item",
    "another number each time:hw_driver_lookup_stat_id_by_stream, hw_driver_get_stat_by_stat_id",
    "counts from 5:hw_driver_get_stat_by_stat_id",
    "address of a group:hss_get_device_mac",
    "no slot port:br_comm_transfer_portindex_2slotport",
    "no trunks:hal_register_trunk_handler",
};

int main(int argc, char **argv) {
    for (size_t i = 0; argc < 2 && i < sizeof(faults) / sizeof(faults[0]); i++) {
        puts(faults[i]);
    }
    fault = argc < 2 ? "" : argv[1];
    return argc < 2 ? 0 : atc_card_check() == 0 ? 0 : 1;
}
