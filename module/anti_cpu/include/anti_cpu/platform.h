/* SPDX-License-Identifier: Apache-2.0 */
/* platform.h: what the process that loads libanti_cpu.so provides.
 *
 * The library leaves these functions undefined; the process (or a library it links) defines every one of them with C
 * linkage. The module calls nothing else but the C library, and reads time through clock_gettime only.
 *
 * General rules:
 *  (1) 'file' and 'line' name the caller's source position for the provider's bookkeeping; 'file' is static text.
 *  (2) Functions marked [lock] are called with the module's mutex held; they must not call back into the module.
 *  (3) Any function may be called from any thread that runs module code: packet threads, management threads, the
 *      monitor task and the trunk service's thread.
 *  (4) Sizes and lengths are bytes unless a comment says otherwise.
 *  (5) libanti_cpu_card_check.a (card_check.h) tries these promises on a card, function by function.
 */
#ifndef ANTI_CPU_PLATFORM_H
#define ANTI_CPU_PLATFORM_H

#include <stdint.h>

#include "anti_cpu/types.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ATC_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#else
#define ATC_PRINTF(format_index, first_argument)
#endif

/* The library looks these functions up in the process, so they stay visible whatever -fvisibility says. */
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* ---- Memory [lock at times] ------------------------------------------------------------------------------------- */

/* Allocates 'size' bytes, aligned for any object. Returns null when there is no memory. */
void *bep_mallocEx(uint32_t size, const char *file, int line);

/* Allocates 'count' * 'size' bytes filled with zeros. Returns null when there is no memory or the product overflows. */
void *bep_callocEx(uint32_t count, uint32_t size, const char *file, int line);

/* Frees what the two above returned. Null is accepted and ignored. */
void bep_freeEx(void *ptr, const char *file, int line);

/* Fills, copies and compares memory as memset, memcpy and memcmp do. */
void *bep_memSetEx(void *dst, int value, uint32_t size);
void *bep_memCpyEx(void *dst, const void *src, uint32_t size);
int bep_memCmp(const void *a, const void *b, uint32_t size);

/* ---- Text ------------------------------------------------------------------------------------------------------- */

/* Copies 'src' into 'dst' of 'size' bytes as strncpy does (zero-padded, not terminated when 'src' fills it).
 * Returns 'dst'. */
char *bep_StrNCpy(char *dst, const char *src, uint32_t size);

/* Compares at most 'len' characters as strncmp does. */
int bep_StrNCmp(const char *a, const char *b, uint32_t len);

/* ---- Mutex, queue, tasks ---------------------------------------------------------------------------------------- */

/* Creates a mutex, not taken. The module passes options 1. Returns its handle, 0 when it cannot be created. */
uint32_t bep_semMCreateEx(uint32_t options, const char *file, int line);

/* Takes the mutex; 'timeout' in ticks, -1 = wait without limit (the only value the module passes). It need not be
 * recursive. Who waits gets it within milliseconds, also while another thread gives it and takes it again at once, as
 * packet threads do under a flood. Returns 0. */
int bep_semTakeEx(uint32_t sem, int timeout, const char *file, int line);

/* Gives it back, from the thread that took it. Returns 0. */
int bep_semGiveEx(uint32_t sem, const char *file, int line);

/* Creates a queue of at most 'max_messages' messages of 'message_size' bytes. The module makes one: 256 messages,
 * options 0. Returns its handle, 0 when it cannot be created. */
uint32_t bep_msgQCreateEx(uint32_t max_messages, uint32_t message_size, uint32_t options, const char *file, int line);

/* Copies a message of 'size' bytes into the queue [lock at times]. 'timeout' 0 = never wait (the only value the module
 * passes); 'priority' is 1. Returns 0 when the queue took it, anything else when it did not (a full queue). */
int bep_msgQSendEx(uint32_t msgq, const void *message, uint32_t size, int timeout, uint32_t priority, const char *file,
                   int line);

/* Waits at most 'timeout_ticks' for the next message, oldest first, and copies it out. Returns the bytes received;
 * 0 or a negative number when none came. */
int bep_msgQReceiveEx(uint32_t msgq, void *message, uint32_t size, int timeout_ticks, const char *file, int line);

/* Suspends the calling thread for 'ticks', measured by CLOCK_MONOTONIC as clock_gettime tells it. 0 comes between a
 * give and a take of the mutex by whoever has more to do than packets should wait for: threads that wait for the mutex
 * go first. Returns 0. */
int bep_taskDelayEx(uint32_t ticks);

/* Ticks per second, at least 1 and always the same. */
uint32_t bep_sysClkRateGetEx(void);

/* Starts a task that runs entry(). The module starts one: "atc-mon", priority 30, options 8, stack of 65536 bytes, all
 * arguments 0. It runs for the life of the process, and may run before this call returns. Returns 0 or a task id, or a
 * negative number when there is no task; the module reads neither, so a card that cannot start it says so itself. */
int norv_task_spawn(const char *name, int priority, int options, uint32_t stack_size, int (*entry)(void), uintptr_t a1,
                    uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5, uintptr_t a6, uintptr_t a7, uintptr_t a8,
                    uintptr_t a9, uintptr_t a10, uintptr_t a11);

/* ---- Module registry, log, time text ---------------------------------------------------------------------------- */

/* Registers a module by name; the further arguments are 0. Returns the handle that the log calls carry. */
uint32_t modInitRegister(const char *name, uint32_t a, uint32_t b, uint32_t c, uint32_t d);

/* Records the version text of a module; 'kind' is 1. Returns 0. */
int setModVersion(uint32_t mod_id, uint32_t kind, const char *version);

/* Logs one message [lock, but for two: an upload that failed, a trunk change that the queue refused]. 'level' is 11
 * (alarms and errors) or 13 (notices); the text ends in "\r\n". The result is not read. */
int ulogPrintf(uint32_t mod_id, uint32_t level, const char *format, ...) ATC_PRINTF(3, 4);

/* Writes the present time as text, at most 'size' bytes with its terminator [lock]. */
void syslog_get_timestamp(char *text, uint32_t size);

/* ---- File transfer ---------------------------------------------------------------------------------------------- */

/* Transfers 'length' bytes of 'data' to 'server' under 'file_name'; may take long, and is never called with the mutex
 * held. 'ftp_type' is the host's own number, handed through. 'result' points to 24 zeroed bytes that the module does
 * not read. Returns 0 when the file arrived, anything else when it did not. */
int xftp_upload_base(const char *server, const char *user, const char *passwd, const char *file_name, const void *data,
                     uint32_t length, uint32_t ftp_type, void *result);

/* ---- Switching chip [lock] -------------------------------------------------------------------------------------- */

/* A rule is identified by its whole description: the match list, the operation list and the ports of the port list,
 * byte for byte the same in every call about it; only the kind of the port list tells a removal (0) from the others
 * (1). 'a' and 'b' are 0. A chip that has no room, or knows no such rule, says so by its result and stays as it was.
 *
 * The three buffers. Numbers are 16 bits in processor byte order, IP addresses as in the packet, unused bytes 0:
 *   match list      number of items; for each: field code, flag 0, value length, mask length 32, 32 bytes of value,
 *                   32 bytes of mask (a 1 bit must match), 16 bytes of 0
 *   field codes     0, 1 source and destination MAC address; 2, 3 source and destination IP address, 4 or 16 bytes;
 *                   4 VLAN; 5 EtherType, SNAP type or DSAP; 6 IP protocol or next header; 9, 10 source and
 *                   destination port (9 with ICMPv6: type * 256 + code)
 *   operation list  number of operations; for each: code, number of values; for each value: length, 16 bytes
 *   port list       kind; number of ports; the low 16 bits of each logical port
 * What the operations ask of the chip:
 *   100             deny: a frame that matches does not reach the CPU
 *   121             goes with every automatic deny, whose matches the chip counts; beyond that it is the chip's own
 *   113             names what the rule is for, in one value of 4 bytes: 80001 an automatic deny (100, 121, 113),
 *                   80002 to 80004 an operator's filter of action 1 to 3 (100, 101 or 106, then 113)
 *   101, 106        the operator's actions 2 and 3: what they do is the chip's own (platform/chip counts the frames)
 * The bytes of a real rule stand in formats.md, which is installed with these headers' other pages. */

/* Installs a rule. Returns 0; a negative number when the chip refuses it, or has a rule of this description already. A
 * positive number is taken for a refusal of an automatic rule, which is then removed again. */
int hw_driver_set_stream_qos_item(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                  uint32_t op_len, const void *port, uint32_t port_len, void *unused);

/* Removes the rule of this description. Returns 0, or a negative number when there is none. */
int hw_driver_delete_qos_item_by_stream(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                        uint32_t op_len, const void *port, uint32_t port_len, void *unused);

/* Write the entry id, or the statistics id, of the rule of this description; leave the word alone when there is none.
 * Entry ids are not 0, and no two rules share one: operators clear rules by them. Return 0, or a negative number; the
 * module reads the word only. */
int hw_driver_lookup_entry_by_stream(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                     uint32_t op_len, const void *port, uint32_t port_len, uint32_t *entry_id);
int hw_driver_lookup_stat_id_by_stream(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                       uint32_t op_len, const void *port, uint32_t port_len, uint32_t *stat_id);

/* Fills '*stat' with the counters of a rule, which count since its installation; leaves it alone when there is no such
 * rule. Returns 0, or a negative number; the module reads the record only. */
int hw_driver_get_stat_by_stat_id(uint32_t stat_id, atc_stat_hw_t *stat);

/* ---- Card ------------------------------------------------------------------------------------------------------- */

/* Writes the device's own MAC address, 6 bytes as in a frame. */
void hss_get_device_mac(uint8_t *mac);

/* Registers the function that the card calls on every trunk membership change: 'op' 1 when 'member' joins 'trunk',
 * anything else when it leaves. The module knows only what it is told here: no change is left out, and the members that
 * trunks have already are told right after registration. Packets that come in on a member are handed over with the
 * trunk's id as their port: by the member's they would be counted, and denied, beside the trunk. The handler may be
 * called from any thread, without the module's mutex. Returns 0. */
int hal_register_trunk_handler(int (*handler)(uint32_t unused, uint32_t trunk, uint32_t member, uint32_t op));

/* Turns a logical port into its slot and its port on that slot [lock at times]. Returns 0 when translated; otherwise it
 * leaves both words alone: the port is then shown as 0/0, and taken for one that is not on the backup core card. */
int br_comm_transfer_portindex_2slotport(uint32_t port, uint32_t *slot, uint32_t *slot_port);

/* Slot number of the backup core card, 0 when there is none [lock]. */
uint32_t get_bakup_core_card_cardnumber(void);

/* Writes the textual form (RFC 5952) of the 16 address bytes into 'text' of 'size' bytes [lock at times].
 * Returns 'text', or null when it does not fit. */
const char *inet_ntop6(const void *address, char *text, uint32_t size);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
