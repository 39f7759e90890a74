/* SPDX-License-Identifier: Apache-2.0 */
/* anti_cpu.h: the operations of libanti_cpu.so, the protection of a line card's CPU.
 *
 * The process that loads the library provides the functions of platform.h, calls atc_init once, then hands over every
 * packet and drives settings, queries and diagnostics from any thread.
 *
 * General rules:
 *  (1) Null pointers are refused with the operation's failure value and never dereferenced, except where a comment
 *      allows them.
 *  (2) Results: 0 = success, -1 = failure; uint32_t results fail with all bits set. The packet entry points return
 *      0 = let the packet go on, -1 = drop it.
 *  (3) Protocol ids are 1..58 (protocols.h); an operation given another id fails and changes nothing.
 *  (4) Directions are ATC_DIRECTION_RX and ATC_DIRECTION_TX. One flow is named by direction, VLAN, port and protocol,
 *      in that order; one of its sources by source type and address besides (see ATC_SRC_*). A null address goes with
 *      source type 0 only.
 *  (5) Numbers and IPv4 addresses are in the processor's byte order; MAC and IPv6 addresses as in the packet.
 *  (6) Counters are 32 bits and wrap. Rates are packets per second, a period's count divided by its length in whole
 *      seconds, truncated. Texts print both as signed numbers: 2^31 and more come out negative.
 *  (7) Text and capture data that an operation hands out belong to the caller, who frees them with atc_api_free_buffer.
 *  (8) Unless said otherwise an operation may be called from any thread after atc_init, and takes the module's mutex
 *      itself. It must not be called from within a function of platform.h.
 */
#ifndef ANTI_CPU_ANTI_CPU_H
#define ANTI_CPU_ANTI_CPU_H

#include <stdint.h>

#include "anti_cpu/types.h"
#include "anti_cpu/version.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ATC_API __attribute__((visibility("default")))
#else
#define ATC_API
#endif

/* ---- Version (pure: no state, no mutex) -------------------------------------------------------------------------- */

/* The version of the library that runs, "0.1.0"; ATC_VERSION is that of the headers. Callable before atc_init. The text
 * lives as long as the library. */
ATC_API const char *atc_version(void);

/* ---- Start-up and packets --------------------------------------------------------------------------------------- */

/* Starts the module: mutex, queue, indexes, defaults, the monitor task. Called once, before anything else; returns 0
 * always. Thread safety: no other call may run at the same time. */
ATC_API int atc_init(void);

/* Judges one frame that the switching chip sent up to the CPU. 'buf' is the frame from its destination MAC address on,
 * 'len' its length in bytes, 'port' the logical port (of a trunk's member the trunk's id), 'vlan' the VLAN it came in
 * on (its low 12 bits count; the frame's own outermost tag goes before it). Returns 0 or -1; 0 while the module is not
 * started or not enabled, and for null. Ownership: nothing of the frame is kept. */
ATC_API int atc_api_receive_packet(const uint8_t *buf, uint32_t len, uint32_t port, uint32_t vlan);

/* Judges one frame that the CPU sends. As atc_api_receive_packet, with port 0 and VLAN 0 unless the frame is tagged. */
ATC_API int atc_api_global_send_packet(const uint8_t *buf, uint32_t len);

/* ---- Protocol names (pure: no state, no mutex) ------------------------------------------------------------------ */

/* Copies the name of protocol 'id' into 'buf' of 'size' bytes, padded with zeros and cut when 'size' is short;
 * "unknown-packet" for an id outside 1..57. 20 bytes hold every name. */
ATC_API void atc_protocol_id_to_name(uint32_t id, char *buf, uint32_t size);

/* Stores the id of the first protocol whose name or alias equals 'name' in its first 'len' characters, compared as by
 * strncmp, through 'id': strlen(name) + 1 asks for that name, less for the first one that begins so. Leaves '*id' alone
 * when there is none, so set it to 0 before. */
ATC_API void atc_protocol_name_to_id(uint32_t *id, const char *name, uint32_t len);

/* ---- Settings --------------------------------------------------------------------------------------------------- */

/* Switches the module on (1) or off (any other value): the packet entry points then return 0 and count nothing.
 * Effect: from the next packet on. */
ATC_API uint32_t atc_api_set_global_enable(uint32_t value);

/* Set the length of the fast and of the long period, in seconds. Fail for 0. Effect: at once: a new period starts now,
 * and the thresholds of all flows and sources follow. */
ATC_API uint32_t atc_api_set_fast_period_time(uint32_t seconds);
ATC_API uint32_t atc_api_set_long_period_time(uint32_t seconds);

/* Store a word that atc_config_show prints and nothing else reads. Thread safety: any thread, no mutex. */
ATC_API uint32_t atc_api_set_ipattack(uint32_t value);
ATC_API uint32_t atc_api_set_icmpattack(uint32_t value);
ATC_API uint32_t atc_api_set_icmpattack_size(uint32_t value);

/* Set a limit of protocol 'id' to 'pps' packets per second, 0 = back to the default: the fast and the long limit of a
 * flow, then of one source. Effect: at once, existing flows and sources included; a raised alarm stays until the next
 * period end decides. */
ATC_API uint32_t atc_api_set_protocol_fp_limit(uint32_t id, uint32_t pps);
ATC_API uint32_t atc_api_set_protocol_lp_limit(uint32_t id, uint32_t pps);
ATC_API uint32_t atc_api_set_protocol_src_fp_limit(uint32_t id, uint32_t pps);
ATC_API uint32_t atc_api_set_protocol_src_lp_limit(uint32_t id, uint32_t pps);

/* Choose what happens to flows and to sources of protocol 'id' over their fast limit; on only when 'value' is 1.
 * Software deny and capture begin at the next fast period that ends over the limit, hardware deny at the next packet
 * over it. 0 ends a software deny and withdraws hardware rules at once; a running capture goes on. */
ATC_API uint32_t atc_api_set_protocol_deny_enable(uint32_t id, uint32_t value);
ATC_API uint32_t atc_api_set_protocol_src_deny_enable(uint32_t id, uint32_t value);
ATC_API uint32_t atc_api_set_protocol_hw_deny_enable(uint32_t id, uint32_t value);
ATC_API uint32_t atc_api_set_protocol_src_hw_deny_enable(uint32_t id, uint32_t value);
ATC_API uint32_t atc_api_set_protocol_cap_enable(uint32_t id, uint32_t value);
ATC_API uint32_t atc_api_set_protocol_src_cap_enable(uint32_t id, uint32_t value);

/* ---- Statistics: queries ---------------------------------------------------------------------------------------- */

/* The four queries below write 24 figures of all packets of a direction, of a port, of a VLAN, of a protocol. They
 * measure 'pps', the packets of the last second, by sampling twice: each blocks its caller for one second, without the
 * mutex. For the fast and the long period: the latest, smallest, largest and average count of the last 12 periods and
 * the peak since creation, each with its rate, and the time text of the peak (64 bytes zeroed by the caller, or null).
 * Return 0, or -1 when there is no such entry or it went away meanwhile (the outputs then hold anything).
 * Direction: global and protocol take any value but ATC_DIRECTION_RX as sent; port and VLAN know received packets only
 * and fail otherwise. */
ATC_API int atc_api_get_global_statistic(uint32_t direction, uint32_t *count, uint32_t *pps, uint32_t *fp_cur,
                                         uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps, uint32_t *fp_max,
                                         uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps,
                                         uint32_t *fp_peak, uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur,
                                         uint32_t *lp_cur_pps, uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max,
                                         uint32_t *lp_max_pps, uint32_t *lp_avg, uint32_t *lp_avg_pps,
                                         uint32_t *lp_peak, uint32_t *lp_peak_pps, char *lp_peak_time);
ATC_API int atc_api_get_port_statistic(uint32_t direction, uint32_t port, uint32_t *count, uint32_t *pps,
                                       uint32_t *fp_cur, uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps,
                                       uint32_t *fp_max, uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps,
                                       uint32_t *fp_peak, uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur,
                                       uint32_t *lp_cur_pps, uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max,
                                       uint32_t *lp_max_pps, uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_peak,
                                       uint32_t *lp_peak_pps, char *lp_peak_time);
ATC_API int atc_api_get_vlan_statistic(uint32_t direction, uint32_t vlan, uint32_t *count, uint32_t *pps,
                                       uint32_t *fp_cur, uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps,
                                       uint32_t *fp_max, uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps,
                                       uint32_t *fp_peak, uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur,
                                       uint32_t *lp_cur_pps, uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max,
                                       uint32_t *lp_max_pps, uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_peak,
                                       uint32_t *lp_peak_pps, char *lp_peak_time);
ATC_API int atc_api_get_protocol_statistic(
    uint32_t direction, uint32_t protocol, uint32_t *count, uint32_t *pps, uint32_t *fp_cur, uint32_t *fp_cur_pps,
    uint32_t *fp_min, uint32_t *fp_min_pps, uint32_t *fp_max, uint32_t *fp_max_pps, uint32_t *fp_avg,
    uint32_t *fp_avg_pps, uint32_t *fp_peak, uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur,
    uint32_t *lp_cur_pps, uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max, uint32_t *lp_max_pps,
    uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_peak, uint32_t *lp_peak_pps, char *lp_peak_time);

/* As above for one flow (source type 0) or one of its sources, 32 figures: the thresholds in packets per period with
 * their rates besides, and at the end whether a capture records (and its bytes), whether software and hardware deny. */
ATC_API int atc_api_get_statistic(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol,
                                  uint32_t src_type, const void *src_addr, uint32_t *count, uint32_t *pps,
                                  uint32_t *fp_cur, uint32_t *fp_cur_pps, uint32_t *fp_min, uint32_t *fp_min_pps,
                                  uint32_t *fp_max, uint32_t *fp_max_pps, uint32_t *fp_avg, uint32_t *fp_avg_pps,
                                  uint32_t *fp_threshold, uint32_t *fp_threshold_pps, uint32_t *fp_peak,
                                  uint32_t *fp_peak_pps, char *fp_peak_time, uint32_t *lp_cur, uint32_t *lp_cur_pps,
                                  uint32_t *lp_min, uint32_t *lp_min_pps, uint32_t *lp_max, uint32_t *lp_max_pps,
                                  uint32_t *lp_avg, uint32_t *lp_avg_pps, uint32_t *lp_threshold,
                                  uint32_t *lp_threshold_pps, uint32_t *lp_peak, uint32_t *lp_peak_pps,
                                  char *lp_peak_time, uint32_t *cap_on, uint32_t *cap_len, uint32_t *sw_deny_on,
                                  uint32_t *hw_deny_on);

/* Lists the sources of one flow, busiest first: element i of 'types' is the type of element i of 'records', '*count'
 * their number. Both arrays need room for ATC_SOURCES_PER_FLOW elements. Returns 0, or -1 when there is no such flow or
 * it has no sources ('*count' is then left alone). */
ATC_API int atc_api_get_src_statistic(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol,
                                      uint32_t *types, uint32_t *count, atc_src_stat_t *records);

/* ---- Statistics: clearing --------------------------------------------------------------------------------------- */

/* Clear the counts, periods and peaks of one block and free its automatic capture. Alarms, thresholds and denies stay.
 * Return 0, or -1 when there is no such entry; the global form returns 0 always and knows directions 1 and 2. */
ATC_API int atc_api_clear_statistic_global(uint32_t direction);
ATC_API int atc_api_clear_statistic_port(uint32_t direction, uint32_t port);
ATC_API int atc_api_clear_statistic_vlan(uint32_t direction, uint32_t vlan);
ATC_API int atc_api_clear_statistic_protocol(uint32_t direction, uint32_t protocol);
ATC_API int atc_api_clear_statistic(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol,
                                    uint32_t src_type, const void *src_addr);

/* Discards every entry and source with its captures and hardware rules, and clears both global blocks. Returns 0. */
ATC_API int atc_api_clear_statistic_all(void);

/* ---- Reports ---------------------------------------------------------------------------------------------------- */

/* Store a newly allocated text through 'text': a header line, then a line an entry in ascending order, each ended by
 * "\r\n". 1 MiB at most (the flow table 2 MiB); a longer report ends at its last whole line. The caller frees the text.
 * Return 0, or -1 with a null text when there is no memory. */
ATC_API int atc_api_get_rx_protocol_stat_brief(char **text);
ATC_API int atc_api_get_tx_protocol_stat_brief(char **text);
ATC_API int atc_api_get_rx_port_stat_brief(char **text);
ATC_API int atc_api_get_rx_vlan_stat_brief(char **text);

/* The same for every flow, each followed by its sources. */
ATC_API int atc_api_get_stat_brief(char **text);

/* The same without a header: the flows and sources whose fast-period alarm is raised, numbered from 1. */
ATC_API int atc_api_get_alarm_info(char **text);

/* Frees what a report, listing or capture copy handed out. Null is accepted. Returns 0. */
ATC_API int atc_api_free_buffer(void *buffer);

/* ---- Hardware deny ---------------------------------------------------------------------------------------------- */

/* Lists the automatic deny rules installed in the switching chip, newest first. Returns 0, or -1 with a null text when
 * there is none or no memory. The caller frees the text. */
ATC_API int atc_api_get_hw_deny_info(char **text);

/* Withdraws the automatic deny rule with this entry id (as the listing shows it), or all of them for 0. Returns 0. */
ATC_API int atc_api_clear_hw_deny_info(uint32_t entry_id);

/* Installs a filter of the operator's own and keeps a copy under 'rule->id'; fills in 'rule->sdk_id'. Returns 0, or -1
 * for an id in use, an action outside 1..3, a mask longer than its field, a port without usable members, a refusal of
 * the chip, or no memory; nothing is installed then. */
ATC_API int atc_api_cfg_hw_filter_rule_add(atc_filter_rule_t *rule);

/* Removes it. Returns 0, or -1 when there is no filter of this id, its port is a trunk without usable members, or the
 * chip refuses (it then stays configured). A filter that the chip refused when its trunk changed goes without a call.
 */
ATC_API int atc_api_cfg_hw_filter_rule_del(uint32_t id);

/* Tells the module of a trunk membership change; atc_init registers it with the card. 'op' 1 = 'member' joins 'trunk',
 * anything else = leaves. Returns 0. Effect: when the monitor task comes to it. Thread safety: any thread; takes no
 * mutex and does not wait. */
ATC_API int atc_api_trunk_member_pro(uint32_t unused, uint32_t trunk, uint32_t member, uint32_t op);

/* ---- Software rules --------------------------------------------------------------------------------------------- */

/* Adds a copy of 'rule' under the host's own id to list 1 ('list_type' 1) or list 0 (any other). A matching permit rule
 * lets a packet pass whatever the limiter says; otherwise a matching deny rule drops it. Returns 0, or -1 for an id
 * that the list holds, a mask longer than its field, or no memory. */
ATC_API int atc_api_cfg_filter_rule_add(const atc_filter_rule_t *rule, uint32_t list_type);
ATC_API int atc_api_cfg_filter_rule_del(uint32_t id, uint32_t list_type);

/* Returns the first node of a list, the head itself when it is empty: a walk ends at first->prev.
 * Thread safety: takes no mutex; a walk must not run beside adds and deletes. Ownership: the list's. */
ATC_API const atc_filter_node_t *atc_api_cfg_filter_rule_get_first(uint32_t list_type);

/* Adds a rule to list 0 under an id that the module chooses, the lowest free of 1..2048, and writes it to 'rule->id',
 * which must be 0. Returns 0, or -1 as above or when all ids are taken. */
ATC_API int atc_api_filter_rule_add(atc_filter_rule_t *rule);

/* Deletes it and gives its id back. Returns 0, or -1 for an id outside 1..2048 or one that list 0 does not hold. */
ATC_API int atc_api_filter_rule_del(uint32_t id);

/* ---- Trace ------------------------------------------------------------------------------------------------------ */

/* Prints the next 'count' packets that match 'filter' on standard output (the low 16 bits of 'count' count). Replaces a
 * running trace. Returns 0. */
ATC_API int atc_api_set_debug_start(const atc_filter_rule_t *filter, uint32_t count);
ATC_API int atc_api_set_debug_stop(void);

/* ---- Capture ---------------------------------------------------------------------------------------------------- */

/* Records the next 'count' packets that match 'filter' (its packet length aside) into the manual capture, a pcap file
 * of at most 102399 bytes in memory; appends to what it holds. Returns 0. */
ATC_API int atc_api_set_cap_start(const atc_filter_rule_t *filter, uint32_t count);

/* Ends the manual capture and keeps its file. Returns 0. */
ATC_API int atc_api_set_cap_disable(void);

/* Returns 1 when the manual capture holds a file, else 0. Thread safety: takes no mutex. */
ATC_API int atc_api_get_cap_is_exist(void);

/* Frees the manual capture's file; a running capture begins a new one. Returns 0. */
ATC_API int atc_api_set_cap_clear(void);

/* Frees the automatic captures of all flows and sources. Returns 0. */
ATC_API int atc_api_set_auto_cap_clear(void);

/* Uploads the capture of a flow or source (or the manual one: port and protocol 0) through the card's file transfer;
 * 'server', 'user', 'passwd' and 'ftp_type' are handed to it. Returns 0, 2 when there is nothing to upload, -1 when it
 * fails. Blocks for the length of the transfer, without the mutex. */
ATC_API int atc_api_capture_upload(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol,
                                   uint32_t src_type, const void *src_addr, const char *server, const char *user,
                                   const char *passwd, uint32_t ftp_type);

/* Hands out a copy of the same file; the caller frees it. Returns 0, or -1 when there is none or no memory. */
ATC_API int atc_api_get_port_capture(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol,
                                     uint32_t src_type, const void *src_addr, void **data, uint32_t *len);

/* Set where full automatic captures go: IPv4 address of the server, kind of transfer, user and password (31 characters
 * each, longer ones are cut), and whether they are uploaded at all (1). Return 0. */
ATC_API int atc_api_set_upload_server_ip(uint32_t address);
ATC_API int atc_api_set_upload_ftp_type(uint32_t type);
ATC_API int atc_api_set_upload_server_user(const char *user);
ATC_API int atc_api_set_upload_server_passwd(const char *passwd);
ATC_API int atc_api_set_upload_server_enable(uint32_t enable);

/* ---- Console dumps ---------------------------------------------------------------------------------------------- */

/* Print on standard output: the rules, the limits and enables of every protocol, the settings (the password in clear),
 * the trunks, and the slot and port of the logical ports 0..'highest'. The mutex is given back between rules, protocols
 * and trunks, each of which is one moment's truth. Return 0. */
ATC_API int atc_filter_show(void);
ATC_API int atc_limit_show(void);
ATC_API int atc_config_show(void);
ATC_API int atc_trunk_show(void);
ATC_API int atc_log_port_show(int32_t highest);

#ifdef __cplusplus
}
#endif

#endif
