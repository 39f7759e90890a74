// SPDX-License-Identifier: Apache-2.0
// upload.h: capture files on their way to the file server.
//
// Owns the file names and the upload message. Used by accounting (a full buffer), the monitor task (the transfer) and
// the upload operations. Invariant: a copy of a capture has one owner, from its allocation to its free: the poster, the
// message, the task.
#pragma once

#include <cstdint>

#include "atc/state/context.h"

constexpr uint32_t ATC_FILE_NAME_SIZE = 128;  // bytes

// What a capture file is named after: a flow, and its source when src_type is not 0.
struct atc_capture_name_t {
    uint32_t direction;
    uint32_t vlan;
    uint32_t port;
    uint32_t protocol;
    uint32_t src_type;
    const uint8_t *src_addr;  // ATC_SRC_ADDR_SIZE bytes as a source entry keeps them; null with src_type 0
};

// Writes "atc-rx-3-100-arp.cap" and its like for sources, "atc-manual.cap" when direction, VLAN, port and protocol are
// all 0; an empty text for an unknown source type.
void atc_capture_file_name(const atc_capture_name_t *name, char *buf, uint32_t size);

// Transfers 'len' bytes of 'data' under 'file_name'. Returns what the card's file transfer returns, 0 = arrived.
// Lock: must not be held, a transfer may take long.
int atc_upload(const char *server, const char *user, const char *passwd, const char *file_name, const uint8_t *data,
               uint32_t len, uint32_t ftp_type) ATC_EXCLUDES(g_atc_lock);

// Ends the automatic capture of a flow ('src' null) or of one of its sources because its buffer is full: hands a copy
// to the monitor task if uploads are on, and logs. The buffer stays.
void atc_capture_overflow(atc_entry_t *entry, atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);

// The task's side: uploads the message's copy if uploads are (still) on, logs a failure, frees the copy.
// Lock: must not be held; the settings are copied under it.
void atc_upload_process(atc_msg_t *message) ATC_EXCLUDES(g_atc_lock);
