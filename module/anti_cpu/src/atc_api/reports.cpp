// SPDX-License-Identifier: Apache-2.0
// reports.cpp: the text tables and the alarm listing of anti_cpu.h.
//
// A report is written into one buffer of fixed size, allocated before the mutex is taken. Each line is one moment's
// truth; between lines the mutex is given back now and then. Lines come in the order of the index: none twice, and none
// of what has gone by the time it is reached. A report that outgrows its buffer ends at the last whole line.

#include "anti_cpu/anti_cpu.h"
#include "atc/entries.h"
#include "atc/protocol.h"
#include "atc/text.h"
#include "atc/walk.h"

namespace {

constexpr uint32_t TABLE_SIZE = 1048576;       // bytes
constexpr uint32_t FLOW_TABLE_SIZE = 2097152;  // bytes
constexpr int FRAME_NUMBER = 1;                // the card's chassis, in the port text of an alarm

// The columns that every table shares; numbers are printed signed, as they always were.
struct figures_t {
    int packets;
    int speed;  // packets per second
    int peak_packets;
    int peak_speed;  // packets per second
    const char *peak_time;
};

figures_t figures(const atc_stat_t *stat) ATC_REQUIRES(g_atc_lock);
template <typename write_t>
int report(char **text, uint32_t size, write_t write);
using write_line_t = bool (*)(atc_text_t *out, const atc_entry_t *entry);
void lines(atc_text_t *out, atc_avl_tree_t *tree, write_line_t write_line) ATC_REQUIRES(g_atc_lock);
bool protocol_line(atc_text_t *out, const atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);
int protocol_table(char **text, atc_avl_tree_t *tree);
bool port_line(atc_text_t *out, const atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);
bool vlan_line(atc_text_t *out, const atc_entry_t *entry) ATC_REQUIRES(g_atc_lock);
bool flow_table_line(atc_text_t *out, const atc_entry_t *flow, const char *source, const atc_stat_t *stat)
    ATC_REQUIRES(g_atc_lock);
bool source_line(atc_text_t *out, const atc_entry_t *flow, const atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
bool source_alarm_line(atc_text_t *out, const atc_entry_t *flow, const atc_src_entry_t *src, int number)
    ATC_REQUIRES(g_atc_lock);
bool alarm_line(atc_text_t *out, const atc_entry_t *flow, const char *source, int number) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_api_get_rx_protocol_stat_brief(char **text) ATC_NO_THREAD_SAFETY_ANALYSIS {
    return protocol_table(text, &g_atc_global.rx_protocol_tree);
}

int atc_api_get_tx_protocol_stat_brief(char **text) ATC_NO_THREAD_SAFETY_ANALYSIS {
    return protocol_table(text, &g_atc_global.tx_protocol_tree);
}

int atc_api_get_rx_port_stat_brief(char **text) {
    return report(text, TABLE_SIZE, [](atc_text_t *out) ATC_REQUIRES(g_atc_lock) {
        atc_text_append(out, "logic-port    packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time\r\n");
        lines(out, &g_atc_global.port_tree, port_line);
    });
}

int atc_api_get_rx_vlan_stat_brief(char **text) {
    return report(text, TABLE_SIZE, [](atc_text_t *out) ATC_REQUIRES(g_atc_lock) {
        atc_text_append(out, "vlan    packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time\r\n");
        lines(out, &g_atc_global.vlan_tree, vlan_line);
    });
}

int atc_api_get_stat_brief(char **text) {
    return report(text, FLOW_TABLE_SIZE, [](atc_text_t *out) ATC_REQUIRES(g_atc_lock) {
        atc_text_append(out,
                        "logic-port/vlan/protocol/src                packets    speed(pps)    peak-packets    "
                        "peak-speed(pps)    peak-time            over-limit\r\n");
        atc_flows_walk([out](atc_entry_t *flow)
                           ATC_REQUIRES(g_atc_lock) { return flow_table_line(out, flow, "NULL", &flow->stat); },
                       [out](const atc_entry_t *flow, const atc_src_entry_t *src)
                           ATC_REQUIRES(g_atc_lock) { return source_line(out, flow, src); },
                       [](atc_entry_t *) { return true; });
    });
}

int atc_api_get_alarm_info(char **text) {
    return report(text, TABLE_SIZE, [](atc_text_t *out) ATC_REQUIRES(g_atc_lock) {
        int number = 1;
        atc_flows_walk([out, &number](const atc_entry_t *flow) ATC_REQUIRES(
                           g_atc_lock) { return flow->stat.fp_alarm != 1 || alarm_line(out, flow, "", number++); },
                       [out, &number](const atc_entry_t *flow, const atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock) {
                           return src->stat.fp_alarm != 1 || source_alarm_line(out, flow, src, number++);
                       },
                       [](atc_entry_t *) { return true; });
    });
}

int atc_api_free_buffer(void *buffer) {
    if (buffer != nullptr) {
        atc_free(buffer);
    }
    return 0;
}

namespace {

figures_t figures(const atc_stat_t *stat) {
    const uint32_t seconds = g_atc_global.fast_period_time;
    return {static_cast<int>(stat->count), static_cast<int>(atc_rate(stat->fp_ring[stat->fp_cur], seconds)),
            static_cast<int>(stat->fp_peak), static_cast<int>(atc_rate(stat->fp_peak, seconds)), stat->fp_peak_time};
}

// Allocates a report, writes it with write(text) under the mutex, and hands it out.
template <typename write_t>
int report(char **text, uint32_t size, write_t write) {
    if (text == nullptr) {
        return -1;
    }
    *text = static_cast<char *>(atc_calloc(size));
    if (*text == nullptr) {
        return -1;
    }
    atc_text_t out;
    atc_text_init(&out, *text, size);
    const atc_guard_t guard;
    write(&out);
    return 0;
}

// Writes one line with write_line(text, entry) for every entry, until one does not fit.
void lines(atc_text_t *out, atc_avl_tree_t *tree, write_line_t write_line) {
    atc_entries_walk(tree, [out, write_line](const atc_entry_t *entry) ATC_REQUIRES(g_atc_lock) {
        atc_hold_spend(ATC_WORK_LINE);
        return write_line(out, entry);
    });
}

bool protocol_line(atc_text_t *out, const atc_entry_t *entry) {
    char name[ATC_NAME_SIZE] = "";
    atc_protocol_id_to_name(entry->protocol, name, sizeof(name));
    const figures_t f = figures(&entry->stat);
    return atc_text_append_whole(out, "%-18s%-11d%-14d%-16d%-19d%-13s\r\n", name, f.packets, f.speed, f.peak_packets,
                                 f.peak_speed, f.peak_time);
}

int protocol_table(char **text, atc_avl_tree_t *tree) {
    return report(text, TABLE_SIZE, [tree](atc_text_t *out) ATC_REQUIRES(g_atc_lock) {
        atc_text_append(out,
                        "protocol          packets    speed(pps)    peak-packets    peak-speed(pps)    peak-time\r\n");
        lines(out, tree, protocol_line);
    });
}

bool port_line(atc_text_t *out, const atc_entry_t *entry) {
    const figures_t f = figures(&entry->stat);
    return atc_text_append_whole(out, "%-14d%-11d%-14d%-16d%-19d%-13s\r\n", static_cast<int>(entry->port), f.packets,
                                 f.speed, f.peak_packets, f.peak_speed, f.peak_time);
}

bool vlan_line(atc_text_t *out, const atc_entry_t *entry) {
    const figures_t f = figures(&entry->stat);
    return atc_text_append_whole(out, "%-8d%-11d%-14d%-16d%-19d%-13s\r\n", entry->vlan, f.packets, f.speed,
                                 f.peak_packets, f.peak_speed, f.peak_time);
}

// One line of a flow, or of a source of it; 'source' is what stands at the end of its key.
bool flow_table_line(atc_text_t *out, const atc_entry_t *flow, const char *source, const atc_stat_t *stat) {
    atc_hold_spend(ATC_WORK_LINE);
    char name[32] = "";
    atc_protocol_id_to_name(flow->protocol, name, sizeof(name));
    char buf[ATC_NAME_SIZE];
    atc_text_t key;
    atc_text_init(&key, buf, sizeof(buf));
    atc_text_append(&key, "%d/%d/%s/%s", static_cast<int>(flow->port), flow->vlan, name, source);
    const figures_t f = figures(stat);
    return atc_text_append_whole(out, "%-44s%-11d%-14d%-16d%-19d%-21s%-14s\r\n", buf, f.packets, f.speed,
                                 f.peak_packets, f.peak_speed, f.peak_time, stat->fp_alarm == 1 ? "YES" : "NO");
}

bool source_line(atc_text_t *out, const atc_entry_t *flow, const atc_src_entry_t *src) {
    char source[ATC_NAME_SIZE];
    atc_src_text(src->src_type, src->src_addr, source, sizeof(source));
    return flow_table_line(out, flow, source, &src->stat);
}

bool source_alarm_line(atc_text_t *out, const atc_entry_t *flow, const atc_src_entry_t *src, int number) {
    char address[ATC_NAME_SIZE];
    atc_src_text(src->src_type, src->src_addr, address, sizeof(address));
    char source[ATC_NAME_SIZE];
    atc_text_t words;
    atc_text_init(&words, source, sizeof(source));
    atc_text_append(&words, " source %s", address);
    return alarm_line(out, flow, source, number);
}

// 'source' is what stands behind the protocol. Only who has an alarm is looked for on the card's slots.
bool alarm_line(atc_text_t *out, const atc_entry_t *flow, const char *source, int number) {
    atc_hold_spend(ATC_WORK_LINE);
    uint32_t slot = 0;
    uint32_t slot_port = 0;
    br_comm_transfer_portindex_2slotport(flow->port, &slot, &slot_port);
    char name[ATC_NAME_SIZE] = "";
    atc_protocol_id_to_name(flow->protocol, name, sizeof(name));
    return atc_text_append_whole(out, "alarm %d: port %d/%d/%d vlan %d protocol %s%s\r\n", number, FRAME_NUMBER,
                                 static_cast<int>(slot), static_cast<int>(slot_port), flow->vlan, name, source);
}

}  // namespace
