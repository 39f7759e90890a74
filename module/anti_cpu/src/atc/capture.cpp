// SPDX-License-Identifier: Apache-2.0
#include "atc/capture.h"

#include <time.h>

#include <atomic>

#include "atc/rule_match.h"

namespace {

void manual_buffer_set(uint8_t *buffer) ATC_REQUIRES(g_atc_lock);
uint8_t *buffer_create(uint32_t *used);
bool record_append(uint8_t *buffer, uint32_t *used, const uint8_t *buf, uint32_t len);
void put_le32(uint8_t *bytes, uint32_t value);

}  // namespace

int atc_capture_ethhead_fill(uint8_t *buffer) {
    static constexpr uint8_t header[ATC_CAPTURE_HEADER_SIZE] = {
        0xD4, 0xC3, 0xB2, 0xA1,  // magic of a file with microseconds
        2,    0,    4,    0,     // version 2.4
        0,    0,    0,    0,     // time zone
        0,    0,    0,    0,     // accuracy
        0xFF, 0xFF, 0,    0,     // snapshot length
        1,    0,    0,    0,     // link type: Ethernet
    };
    bep_memCpyEx(buffer, header, sizeof(header));
    return 0;
}

int atc_cap_check(const atc_pkt_info_t *pkt) {
    if (g_atc_global.cap_enable != 1 || g_atc_global.cap_count == 0) {
        return 0;
    }
    return atc_rule_match(&g_atc_global.cap_filter, pkt) ? 1 : 0;
}

bool atc_capture_manual_buffer() {
    if (g_atc_global.cap_buf == nullptr) {
        manual_buffer_set(buffer_create(&g_atc_global.cap_len));
    }
    return g_atc_global.cap_buf != nullptr;
}

int atc_capture_manual(const uint8_t *buf, uint32_t len) {
    if (!atc_capture_manual_buffer()) {
        return -1;
    }
    if (record_append(g_atc_global.cap_buf, &g_atc_global.cap_len, buf, len)) {
        g_atc_global.cap_count--;
    } else {
        ulogPrintf(g_atc_global.mod_id, ATC_LOG_NOTICE, "anti-cpu manual diagnose buffer is overflow \r\n");
        g_atc_global.cap_count = 0;
    }
    if (g_atc_global.cap_count == 0) {
        g_atc_global.cap_enable = 0;
    }
    return 0;
}

void atc_capture_manual_release() {
    uint8_t *buffer = g_atc_global.cap_buf;
    if (buffer == nullptr) {
        return;
    }
    manual_buffer_set(nullptr);
    g_atc_global.cap_len = 0;
    atc_free(buffer);
}

bool atc_capture_manual_exists() ATC_NO_THREAD_SAFETY_ANALYSIS {
    return std::atomic_ref<uint8_t *>(g_atc_global.cap_buf).load(std::memory_order_relaxed) != nullptr;
}

void atc_capture_auto_start(atc_stat_t *stat) {
    if (stat->cap_buf != nullptr || g_atc_global.protocol_cap_cnt >= ATC_AUTO_CAPTURES_MAX) {
        return;
    }
    atc_hold_spend(ATC_WORK_BUFFER);
    stat->cap_buf = buffer_create(&stat->cap_len);
    if (stat->cap_buf != nullptr) {
        stat->cap_on = 1;
        g_atc_global.protocol_cap_cnt++;
    }
}

bool atc_capture_auto_record(atc_stat_t *stat, const uint8_t *buf, uint32_t len) {
    return record_append(stat->cap_buf, &stat->cap_len, buf, len);
}

void atc_capture_auto_release(atc_stat_t *stat) {
    if (stat->cap_buf == nullptr) {
        return;
    }
    atc_hold_spend(ATC_WORK_BUFFER);
    atc_free(stat->cap_buf);
    stat->cap_buf = nullptr;
    stat->cap_on = 0;
    stat->cap_len = 0;
    g_atc_global.protocol_cap_cnt--;
}

namespace {

void manual_buffer_set(uint8_t *buffer) {
    std::atomic_ref<uint8_t *>(g_atc_global.cap_buf).store(buffer, std::memory_order_relaxed);
}

// Returns a buffer that holds a file without records, its length in '*used'; null, '*used' untouched, without memory.
uint8_t *buffer_create(uint32_t *used) {
    auto *buffer = static_cast<uint8_t *>(atc_calloc(ATC_CAPTURE_SIZE));
    if (buffer != nullptr) {
        atc_capture_ethhead_fill(buffer);
        *used = ATC_CAPTURE_HEADER_SIZE;
    }
    return buffer;
}

// Appends a packet with the present time behind the '*used' bytes. Returns false, nothing written, when it does not
// fit. Frames are never cut, and 'len' may be any number: the sum is taken in 64 bits.
bool record_append(uint8_t *buffer, uint32_t *used, const uint8_t *buf, uint32_t len) {
    if (uint64_t{*used} + len + ATC_CAPTURE_RECORD_SIZE >= ATC_CAPTURE_SIZE) {
        return false;
    }
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    uint8_t *record = buffer + *used;
    put_le32(record, static_cast<uint32_t>(now.tv_sec));
    put_le32(record + 4, static_cast<uint32_t>(now.tv_nsec / 1000));
    put_le32(record + 8, len);
    put_le32(record + 12, len);
    bep_memCpyEx(record + ATC_CAPTURE_RECORD_SIZE, buf, len);
    *used += ATC_CAPTURE_RECORD_SIZE + len;
    return true;
}

// The file header says little-endian, so the records are, on every processor.
void put_le32(uint8_t *bytes, uint32_t value) {
    bytes[0] = static_cast<uint8_t>(value);
    bytes[1] = static_cast<uint8_t>(value >> 8);
    bytes[2] = static_cast<uint8_t>(value >> 16);
    bytes[3] = static_cast<uint8_t>(value >> 24);
}

}  // namespace
