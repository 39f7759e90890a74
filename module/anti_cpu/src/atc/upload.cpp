// SPDX-License-Identifier: Apache-2.0
#include "atc/upload.h"

#include <stdio.h>

#include "atc/state/message.h"
#include "atc/text.h"

namespace {

constexpr uint32_t PROTOCOL_NAME_SIZE = 32;    // bytes of a protocol's name in a file name
constexpr uint32_t TRANSFER_RESULT_WORDS = 3;  // the 24 bytes that the file transfer fills for itself

// The settings of one transfer, as they were at one moment.
struct upload_settings_t {
    uint32_t mod_id;
    uint16_t enable;
    uint32_t server_ip;
    uint32_t ftp_type;
    char user[sizeof(atc_global_t::server_user)];
    char passwd[sizeof(atc_global_t::server_passwd)];
};

void capture_post(const atc_entry_t *entry, const atc_src_entry_t *src, const atc_stat_t *stat)
    ATC_REQUIRES(g_atc_lock);
void overflow_log(const atc_entry_t *entry, const atc_src_entry_t *src) ATC_REQUIRES(g_atc_lock);
void settings_copy(upload_settings_t *settings) ATC_EXCLUDES(g_atc_lock);
void message_upload(const atc_msg_t *message, const upload_settings_t *settings) ATC_EXCLUDES(g_atc_lock);

}  // namespace

void atc_capture_file_name(const atc_capture_name_t *name, char *buf, uint32_t size) {
    bep_memSetEx(buf, 0, size);
    if (name->direction == 0 && name->vlan == 0 && name->port == 0 && name->protocol == 0) {
        snprintf(buf, size, "atc-manual.cap");
        return;
    }
    const char *direction = name->direction == ATC_DIRECTION_RX ? "rx" : "tx";
    char protocol[PROTOCOL_NAME_SIZE] = {};
    atc_protocol_id_to_name(name->protocol, protocol, sizeof(protocol));
    char source[ATC_NAME_SIZE] = {};
    switch (name->src_type) {
        case ATC_SRC_NONE:
            snprintf(buf, size, "atc-%s-%d-%d-%s.cap", direction, name->port, name->vlan, protocol);
            break;
        case ATC_SRC_MAC:
        case ATC_SRC_IPV4:
        case ATC_SRC_IPV6:
            atc_src_file_text(name->src_type, name->src_addr, source, sizeof(source));
            snprintf(buf, size, "atc-%s-%d-%d-%s-(%s).cap", direction, name->port, name->vlan, protocol, source);
            break;
        default:
            break;
    }
}

int atc_upload(const char *server, const char *user, const char *passwd, const char *file_name, const uint8_t *data,
               uint32_t len, uint32_t ftp_type) {
    uint64_t result[TRANSFER_RESULT_WORDS] = {};
    return xftp_upload_base(server, user, passwd, file_name, data, len, ftp_type, result);
}

void atc_capture_overflow(atc_entry_t *entry, atc_src_entry_t *src) {
    atc_stat_t *stat = src != nullptr ? &src->stat : &entry->stat;
    if (g_atc_global.upload_enable == 1) {
        capture_post(entry, src, stat);
    }
    overflow_log(entry, src);
    stat->cap_on = 0;
}

void atc_upload_process(atc_msg_t *message) {
    upload_settings_t settings = {};
    settings_copy(&settings);
    if (settings.enable == 1) {
        message_upload(message, &settings);
    }
    atc_free(message->data);
    message->data = nullptr;
}

namespace {

// The message owns the copy from the moment the queue takes it; a queue that refuses leaves it here.
void capture_post(const atc_entry_t *entry, const atc_src_entry_t *src, const atc_stat_t *stat) {
    auto *data = static_cast<uint8_t *>(atc_calloc(stat->cap_len));
    if (data == nullptr) {
        return;
    }
    bep_memCpyEx(data, stat->cap_buf, stat->cap_len);

    atc_msg_t message = {};
    message.type = ATC_MSG_UPLOAD;
    message.direction = entry->direction;
    message.vlan = entry->vlan;
    message.port = entry->port;
    message.protocol = entry->protocol;
    if (src != nullptr) {
        message.src_type = src->src_type;
        bep_memCpyEx(message.src_addr, src->src_addr, sizeof(message.src_addr));
    }
    message.data = data;
    message.len = stat->cap_len;
    if (!atc_msg_post(&message)) {
        atc_free(data);
    }
}

void overflow_log(const atc_entry_t *entry, const atc_src_entry_t *src) {
    char protocol[ATC_NAME_SIZE] = {};
    atc_protocol_id_to_name(entry->protocol, protocol, sizeof(protocol));
    if (src == nullptr) {
        ulogPrintf(g_atc_global.mod_id, ATC_LOG_ALARM,
                   "anti-cpu port %d vlan %d protocol %s diagnose buffer is overflow\r\n", entry->port, entry->vlan,
                   protocol);
        return;
    }
    char source[ATC_NAME_SIZE] = {};
    atc_src_text(src->src_type, src->src_addr, source, sizeof(source));
    ulogPrintf(g_atc_global.mod_id, ATC_LOG_ALARM,
               "anti-cpu port %d vlan %d protocol %s src %s diagnose buffer is overflow\r\n", entry->port, entry->vlan,
               protocol, source);
}

// A transfer may take long and the settings may change meanwhile: it works on what they were when it began.
void settings_copy(upload_settings_t *settings) {
    const atc_guard_t guard;
    settings->mod_id = g_atc_global.mod_id;
    settings->enable = g_atc_global.upload_enable;
    settings->server_ip = g_atc_global.server_ip;
    settings->ftp_type = g_atc_global.ftp_type;
    bep_memCpyEx(settings->user, g_atc_global.server_user, sizeof(settings->user));
    bep_memCpyEx(settings->passwd, g_atc_global.server_passwd, sizeof(settings->passwd));
}

void message_upload(const atc_msg_t *message, const upload_settings_t *settings) {
    const atc_capture_name_t name = {
        message->direction, message->vlan, message->port, message->protocol, message->src_type, message->src_addr,
    };
    char file_name[ATC_FILE_NAME_SIZE];
    atc_capture_file_name(&name, file_name, sizeof(file_name));
    char server[ATC_NAME_SIZE];
    atc_ipv4_text(settings->server_ip, server, sizeof(server));
    if (atc_upload(server, settings->user, settings->passwd, file_name, message->data, message->len,
                   settings->ftp_type) != 0) {
        ulogPrintf(settings->mod_id, ATC_LOG_ALARM, "Failed to upload diagnose to server %s\r\n", server);
    }
}

}  // namespace
