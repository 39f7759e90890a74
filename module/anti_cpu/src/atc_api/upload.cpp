// SPDX-License-Identifier: Apache-2.0
// Captures handed out on demand, and the settings of automatic uploads.
#include "atc/upload.h"

#include "anti_cpu/anti_cpu.h"
#include "atc/entries.h"

namespace {

constexpr int NOTHING_TO_UPLOAD = 2;

// One capture buffer and the bytes used in it; null when there is none.
struct capture_t {
    const uint8_t *buf;
    uint32_t len;
};

capture_t capture_find(const atc_capture_name_t *name) ATC_REQUIRES(g_atc_lock);
int capture_copy(const atc_capture_name_t *name, uint8_t **data, uint32_t *len) ATC_EXCLUDES(g_atc_lock);
int setting_text_store(char *field, uint32_t size, const char *text) ATC_REQUIRES(g_atc_lock);

}  // namespace

int atc_api_capture_upload(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol, uint32_t src_type,
                           const void *src_addr, const char *server, const char *user, const char *passwd,
                           uint32_t ftp_type) {
    if (server == nullptr || user == nullptr || passwd == nullptr ||
        (src_type != ATC_SRC_NONE && src_addr == nullptr)) {
        return -1;
    }
    const atc_capture_name_t name = {
        direction, vlan, port, protocol, src_type, static_cast<const uint8_t *>(src_addr),
    };
    uint8_t *data = nullptr;
    uint32_t len = 0;
    if (const int result = capture_copy(&name, &data, &len); result != 0) {
        return result;
    }
    char file_name[ATC_FILE_NAME_SIZE];
    atc_capture_file_name(&name, file_name, sizeof(file_name));
    const int result = atc_upload(server, user, passwd, file_name, data, len, ftp_type);
    atc_free(data);
    return result == 0 ? 0 : -1;
}

int atc_api_get_port_capture(uint32_t direction, uint32_t vlan, uint32_t port, uint32_t protocol, uint32_t src_type,
                             const void *src_addr, void **data, uint32_t *len) {
    if (data == nullptr || len == nullptr || (src_type != ATC_SRC_NONE && src_addr == nullptr)) {
        return -1;
    }
    const atc_capture_name_t name = {
        direction, vlan, port, protocol, src_type, static_cast<const uint8_t *>(src_addr),
    };
    uint8_t *copy = nullptr;
    const int result = capture_copy(&name, &copy, len);
    if (result != NOTHING_TO_UPLOAD) {
        *data = copy;  // null without memory
    }
    return result == 0 ? 0 : -1;
}

int atc_api_set_upload_server_ip(uint32_t address) {
    const atc_guard_t guard;
    g_atc_global.server_ip = address;
    return 0;
}

int atc_api_set_upload_ftp_type(uint32_t type) {
    const atc_guard_t guard;
    g_atc_global.ftp_type = type;
    return 0;
}

int atc_api_set_upload_server_user(const char *user) {
    const atc_guard_t guard;
    return setting_text_store(g_atc_global.server_user, sizeof(g_atc_global.server_user), user);
}

int atc_api_set_upload_server_passwd(const char *passwd) {
    const atc_guard_t guard;
    return setting_text_store(g_atc_global.server_passwd, sizeof(g_atc_global.server_passwd), passwd);
}

int atc_api_set_upload_server_enable(uint32_t enable) {
    const atc_guard_t guard;
    g_atc_global.upload_enable = static_cast<uint16_t>(enable);
    return 0;
}

namespace {

capture_t capture_find(const atc_capture_name_t *name) {
    if (name->port == 0 && name->protocol == 0) {
        return {g_atc_global.cap_buf, g_atc_global.cap_len};
    }
    const atc_stat_t *stat = nullptr;
    if (name->src_type == ATC_SRC_NONE) {
        const atc_entry_t *entry = atc_entry_get(name->direction, name->vlan, name->port, name->protocol);
        stat = entry != nullptr ? &entry->stat : nullptr;
    } else {
        const atc_src_entry_t *src =
            atc_src_entry_get(name->direction, name->vlan, name->port, name->protocol, name->src_type, name->src_addr);
        stat = src != nullptr ? &src->stat : nullptr;
    }
    return stat != nullptr ? capture_t{stat->cap_buf, stat->cap_len} : capture_t{};
}

// Copies the capture of that name for the caller, who frees it: packets go on being recorded while a transfer runs.
// Returns 0, NOTHING_TO_UPLOAD, or -1 without memory; '*data' and '*len' are written with 0 only.
int capture_copy(const atc_capture_name_t *name, uint8_t **data, uint32_t *len) {
    const atc_guard_t guard;
    const capture_t capture = capture_find(name);
    if (capture.buf == nullptr) {
        return NOTHING_TO_UPLOAD;
    }
    auto *copy = static_cast<uint8_t *>(atc_malloc(capture.len));
    if (copy == nullptr) {
        return -1;
    }
    bep_memCpyEx(copy, capture.buf, capture.len);
    *data = copy;
    *len = capture.len;
    return 0;
}

// Keeps as much of 'text' as leaves room for the terminator.
int setting_text_store(char *field, uint32_t size, const char *text) {
    if (text == nullptr) {
        return -1;
    }
    bep_memSetEx(field, 0, size);
    bep_StrNCpy(field, text, size - 1);
    return 0;
}

}  // namespace
