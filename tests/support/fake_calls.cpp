// fake_calls.cpp: the functions of platform.h, and clock_gettime, on the books of fake_platform.cpp.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "fake_platform.h"

namespace {

void check_unused(uint32_t a, uint32_t b, const void *last = nullptr) {
    EXPECT_TRUE(a == 0 && b == 0 && last == nullptr) << "platform: a chip call whose unused arguments are not 0";
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t id, struct timespec *now) noexcept {
    if (!FakePlatform::clock_owned || (id != CLOCK_MONOTONIC && id != CLOCK_REALTIME)) {
        return static_cast<int>(syscall(SYS_clock_gettime, id, now));
    }
    fake().enter(Call::clock);
    int64_t ns = id == CLOCK_MONOTONIC ? fake().monotonic_ns() : fake().realtime_ns();
    now->tv_sec = static_cast<time_t>(ns / ns_per_second);
    now->tv_nsec = static_cast<long>(ns % ns_per_second);
    return 0;
}

void *bep_mallocEx(uint32_t size, const char *, int) {
    return fake().enter(Call::alloc) ? nullptr : fake().allocate(size, 0xa5);
}

void *bep_callocEx(uint32_t count, uint32_t size, const char *, int) {
    return fake().enter(Call::alloc) ? nullptr : fake().allocate(size_t{count} * size, 0);
}

void bep_freeEx(void *ptr, const char *, int) {
    fake().release(ptr);
}

void *bep_memSetEx(void *dst, int value, uint32_t size) {
    return std::memset(dst, value, size);
}

void *bep_memCpyEx(void *dst, const void *src, uint32_t size) {
    return std::memcpy(dst, src, size);
}

int bep_memCmp(const void *a, const void *b, uint32_t size) {
    return std::memcmp(a, b, size);
}

char *bep_StrNCpy(char *dst, const char *src, uint32_t size) {
    size_t used = strnlen(src, size);
    std::memcpy(dst, src, used);
    std::memset(dst + used, 0, size - used);
    return dst;
}

int bep_StrNCmp(const char *a, const char *b, uint32_t len) {
    return std::strncmp(a, b, len);
}

uint32_t bep_semMCreateEx(uint32_t options, const char *, int) {
    fake().sem_options.push_back(options);
    return fake().enter(Call::sem_create) ? 0 : FakePlatform::sem_handle;
}

int bep_semTakeEx(uint32_t sem, int timeout, const char *, int) {
    EXPECT_TRUE(sem == FakePlatform::sem_handle && timeout == -1) << "platform: a wrong mutex, or with a time-out";
    return fake().take();
}

int bep_semGiveEx(uint32_t sem, const char *, int) {
    EXPECT_EQ(sem, FakePlatform::sem_handle) << "platform: a wrong mutex";
    return fake().give();
}

uint32_t bep_msgQCreateEx(uint32_t max_messages, uint32_t message_size, uint32_t options, const char *, int) {
    fake().queues.push_back({max_messages, message_size, options});
    fake().queue_capacity = max_messages;
    return fake().enter(Call::queue_create) ? 0 : FakePlatform::queue_handle;
}

int bep_msgQSendEx(uint32_t msgq, const void *message, uint32_t size, int timeout, uint32_t priority, const char *,
                   int) {
    EXPECT_EQ(msgq, FakePlatform::queue_handle) << "platform: a wrong queue";
    return fake().enter(Call::send) ? -1 : fake().send(message, size, timeout, priority);
}

int bep_msgQReceiveEx(uint32_t msgq, void *message, uint32_t size, int timeout_ticks, const char *, int) {
    EXPECT_FALSE(fake().mutex_held()) << "platform: bep_msgQReceiveEx called with the module mutex held";
    EXPECT_EQ(msgq, FakePlatform::queue_handle) << "platform: a wrong queue";
    if (fake().on_receive) {
        fake().on_receive();
    }
    return fake().enter(Call::receive) ? -1 : fake().receive(message, size, timeout_ticks);
}

int bep_taskDelayEx(uint32_t ticks) {
    EXPECT_FALSE(fake().mutex_held()) << "platform: bep_taskDelayEx called with the module mutex held";
    if (fake().enter(Call::delay)) {
        return -1;
    }
    fake().advance_ns(int64_t{ticks} * ns_per_second / fake().ticks_per_second);
    if (fake().on_delay) {
        fake().on_delay();
    }
    return 0;
}

uint32_t bep_sysClkRateGetEx(void) {
    return fake().ticks_per_second;
}

int norv_task_spawn(const char *name, int priority, int options, uint32_t stack_size, int (*entry)(void), uintptr_t a1,
                    uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5, uintptr_t a6, uintptr_t a7, uintptr_t a8,
                    uintptr_t a9, uintptr_t a10, uintptr_t a11) {
    fake().spawned.push_back(
        {name, priority, options, stack_size, entry, {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11}});
    return fake().enter(Call::spawn) ? -1 : 0;
}

uint32_t modInitRegister(const char *name, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    fake().registered.push_back({name, {a, b, c, d}});
    return fake().enter(Call::mod_register) ? 0 : FakePlatform::mod_handle;
}

int setModVersion(uint32_t mod_id, uint32_t kind, const char *version) {
    fake().versions.push_back({mod_id, kind, version});
    return 0;
}

int ulogPrintf(uint32_t mod_id, uint32_t level, const char *format, ...) {
    if (fake().enter(Call::log)) {
        return -1;
    }
    char text[4096];
    va_list args;
    va_start(args, format);
    int len = std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    fake().add_log(mod_id, level, text);
    return len;
}

void syslog_get_timestamp(char *text, uint32_t size) {
    auto now = static_cast<time_t>(fake().realtime_ns() / ns_per_second);
    struct tm parts;
    gmtime_r(&now, &parts);
    strftime(text, size, "%Y-%m-%d %H:%M:%S", &parts);
}

int xftp_upload_base(const char *server, const char *user, const char *passwd, const char *file_name, const void *data,
                     uint32_t length, uint32_t ftp_type, void *result) {
    EXPECT_FALSE(fake().mutex_held()) << "platform: xftp_upload_base called with the module mutex held";
    EXPECT_EQ(std::memcmp(result, Bytes(24).data(), 24), 0)
        << "platform: an upload's result area is not 24 zeroed bytes";
    if (fake().on_upload) {
        fake().on_upload();
    }
    if (fake().enter(Call::upload)) {
        return -1;
    }
    const auto *first = static_cast<const uint8_t *>(data);
    return fake().upload({server, user, passwd, file_name, Bytes(first, first + length), ftp_type});
}

int hw_driver_set_stream_qos_item(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                  uint32_t op_len, const void *port, uint32_t port_len, void *unused) {
    check_unused(a, b, unused);
    return fake().enter(Call::chip_set) ? -1 : fake().chip_set(match, match_len, op, op_len, port, port_len);
}

int hw_driver_delete_qos_item_by_stream(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                        uint32_t op_len, const void *port, uint32_t port_len, void *unused) {
    check_unused(a, b, unused);
    return fake().enter(Call::chip_delete) ? -1 : fake().chip_delete(match, match_len, op, op_len, port, port_len);
}

int hw_driver_lookup_entry_by_stream(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                     uint32_t op_len, const void *port, uint32_t port_len, uint32_t *entry_id) {
    check_unused(a, b);
    std::optional<ChipRule> rule = fake().chip_lookup(match, match_len, op, op_len, port, port_len);
    if (fake().enter(Call::chip_entry_id) || !rule) {
        return -1;
    }
    *entry_id = rule->entry_id;
    return 0;
}

int hw_driver_lookup_stat_id_by_stream(uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op,
                                       uint32_t op_len, const void *port, uint32_t port_len, uint32_t *stat_id) {
    check_unused(a, b);
    std::optional<ChipRule> rule = fake().chip_lookup(match, match_len, op, op_len, port, port_len);
    if (fake().enter(Call::chip_stat_id) || !rule) {
        return -1;
    }
    *stat_id = rule->stat_id;
    return 0;
}

int hw_driver_get_stat_by_stat_id(uint32_t stat_id, atc_stat_hw_t *stat) {
    std::optional<uint64_t> packets = fake().packets(stat_id);
    if (fake().enter(Call::chip_counters) || !packets) {
        return -1;
    }
    stat->unused = 0xdeadbeef;
    stat->packets = *packets;
    return 0;
}

void hss_get_device_mac(uint8_t *mac) {
    std::memcpy(mac, fake().mac.data(), fake().mac.size());
}

int hal_register_trunk_handler(int (*handler)(uint32_t unused, uint32_t trunk, uint32_t member, uint32_t op)) {
    fake().trunk_handler = handler;
    return 0;
}

int br_comm_transfer_portindex_2slotport(uint32_t port, uint32_t *slot, uint32_t *slot_port) {
    std::optional<std::pair<uint32_t, uint32_t>> place = fake().slot_port(port);
    if (fake().enter(Call::port_map) || !place) {
        return -1;
    }
    *slot = place->first;
    *slot_port = place->second;
    return 0;
}

uint32_t get_bakup_core_card_cardnumber(void) {
    return fake().backup_slot;
}

const char *inet_ntop6(const void *address, char *text, uint32_t size) {
    return fake().enter(Call::ntop6) ? nullptr : inet_ntop(AF_INET6, address, text, size);
}

}  // extern "C"
