// SPDX-License-Identifier: Apache-2.0
// fake_platform.cpp: the functions of platform.h, and clock_gettime; see fake_platform.h.
#include "fake_platform.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <tuple>

#include "atc/state/records.h"

namespace {

void expect(bool holds, const char *what) {
    EXPECT_TRUE(holds) << "platform: " << what;
}

// A driver's buffer, number by number in the processor's order; zeros behind its end.
struct Words {
    Words(const void *data, uint32_t size)
        : bytes(static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + size) {}
    template <typename number_t = uint16_t>
    number_t number() {
        number_t value = 0;
        if (at + sizeof(value) <= bytes.size()) {
            std::memcpy(&value, &bytes[at], sizeof(value));
        }
        at += sizeof(value);
        return value;
    }
    Bytes take(size_t size) {
        Bytes taken(size);
        std::ranges::generate(taken, [this] { return number<uint8_t>(); });
        return taken;
    }
    Bytes bytes;
    size_t at = 0;
};

bool is_zero(const Bytes &bytes, size_t from) {
    return std::ranges::all_of(std::span(bytes).subspan(std::min(from, bytes.size())),
                               [](uint8_t byte) { return byte == 0; });
}

std::string item_text(Words *match) {
    const uint16_t code = match->number(), flag = match->number();
    const uint16_t size = match->number(), mask_size = match->number();
    const Bytes value = match->take(32), mask = match->take(32), tail = match->take(16);
    std::string text = std::to_string(code) + "=";
    if (code <= 3) {
        for (uint16_t i = 0; i < std::min<uint16_t>(size, 32); ++i) {
            char hex[3];
            std::snprintf(hex, sizeof(hex), "%02x", value[i]);
            text += hex;
        }
    } else {
        text += std::to_string(size == 1 ? value[0] : Words(value.data(), 2).number());
        expect(size == (code == 6 ? 1 : 2), "a value of another length");
    }
    size_t bits = 0, ones = 0;
    while (bits < 256 && (mask[bits / 8] & (0x80 >> bits % 8)) != 0) {
        ++bits;
    }
    std::ranges::for_each(mask, [&ones](uint8_t byte) { ones += static_cast<size_t>(std::popcount(byte)); });
    expect(ones == bits && mask_size == 32, "a mask that is no prefix");
    expect(flag == 0 && size <= 32 && is_zero(value, size) && is_zero(tail, 0), "an item with more than its value");
    return text + (bits == 256 ? " " : "/" + std::to_string(bits) + " ");
}

// 'kind': of the port list, 1 to install or look up, 0 to delete. 'unused': what must be 0 in a driver's call.
std::string rule_text(uint16_t kind, uint32_t unused, Words match, Words op, Words port) {
    expect(unused == 0, "a chip call with more arguments");
    std::string text;
    for (uint16_t items = match.number(); items > 0; --items) {
        text += item_text(&match);
    }
    text += "|";
    for (uint16_t operations = op.number(); operations > 0; --operations) {
        text += " " + std::to_string(op.number());
        for (uint16_t values = op.number(); values > 0; --values) {
            expect(op.number() == 4, "an operation's value of another length");
            text += ":" + std::to_string(op.number<uint32_t>());
            op.take(12);
        }
    }
    text += " |";
    expect(port.number() == kind, "kind of the port list");
    for (uint16_t ports = port.number(); ports > 0; --ports) {
        text += " " + std::to_string(port.number());
    }
    expect(match.at == match.bytes.size() && op.at == op.bytes.size() && port.at == port.bytes.size(),
           "a list is not as long as it says");
    return text;
}

template <typename rules_t>
auto with_stat_id(rules_t &rules, uint32_t stat_id) {
    return std::ranges::find(rules, stat_id, [](const auto &rule) { return rule.second.stat_id; });
}

int look_up(Call kind, const std::string &text, uint32_t ChipRule::*member, uint32_t *id) {
    const auto rule = fake().rules.find(text);
    if (fake().enter(kind) || rule == fake().rules.end()) {
        return -1;
    }
    *id = rule->second.*member;
    return 0;
}

void *allocate(size_t size, int fill) {
    if (fake().enter(Call::alloc)) {
        return nullptr;
    }
    void *ptr = std::malloc(std::max<size_t>(size, 1));
    std::memset(ptr, fill, size);
    fake().live.insert(ptr);
    return ptr;
}

}  // namespace

bool FakePlatform::clock_owned = false;

FakePlatform &fake() {
    static FakePlatform platform;
    return platform;
}

bool FakePlatform::enter(Call kind) {
    const auto index = static_cast<size_t>(kind);
    ++made[index];
    const bool fails = plans[index].fails();
    failed[index] += fails ? 1 : 0;
    return fails;
}

std::vector<ChipRule> FakePlatform::chip() const {
    std::vector<ChipRule> sorted;
    std::ranges::transform(rules, std::back_inserter(sorted), [](const auto &rule) { return rule.second; });
    std::ranges::sort(sorted, {}, &ChipRule::entry_id);
    return sorted;
}

void FakePlatform::set_packets(uint32_t stat_id, uint64_t packets) {
    auto found = with_stat_id(rules, stat_id);
    ASSERT_TRUE(found != rules.end()) << "no rule in the chip with stat id " << stat_id;
    found->second.packets = packets;
}

std::vector<std::string> chip_texts() {
    std::vector<std::string> texts;
    std::ranges::transform(fake().chip(), std::back_inserter(texts), &ChipRule::text);
    return texts;
}

extern "C" {

int clock_gettime(clockid_t id, struct timespec *now) noexcept {
    if (!FakePlatform::clock_owned || (id != CLOCK_MONOTONIC && id != CLOCK_REALTIME)) {
        return static_cast<int>(syscall(SYS_clock_gettime, id, now));
    }
    fake().enter(Call::clock);
    const int64_t ns = id == CLOCK_MONOTONIC ? fake().monotonic_ns : fake().realtime_ns;
    *now = {static_cast<time_t>(ns / ns_per_second), static_cast<long>(ns % ns_per_second)};
    return 0;
}

void *bep_mallocEx(uint32_t size, const char *, int) {
    return allocate(size, 0xa5);
}

void *bep_callocEx(uint32_t count, uint32_t size, const char *, int) {
    return allocate(size_t{count} * size, 0);
}

void bep_freeEx(void *ptr, const char *, int) {
    const bool is_ours = ptr == nullptr || fake().live.erase(ptr) == 1;
    expect(is_ours, "freed twice, or never allocated");
    std::free(is_ours ? ptr : nullptr);
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
    const size_t used = strnlen(src, size);
    std::memcpy(dst, src, used);
    std::memset(dst + used, 0, size - used);
    return dst;
}

int bep_StrNCmp(const char *a, const char *b, uint32_t len) {
    return std::strncmp(a, b, len);
}

uint32_t bep_semMCreateEx(uint32_t options, const char *, int) {
    fake().created.push_back("bep_semMCreateEx " + std::to_string(options));
    return FakePlatform::sem_handle;
}

int bep_semTakeEx(uint32_t sem, int timeout, const char *, int) {
    expect(sem == FakePlatform::sem_handle && timeout == -1, "a wrong mutex, or with a time-out");
    expect(!std::exchange(fake().mutex_held, true), "the mutex is taken twice");
    return 0;
}

int bep_semGiveEx(uint32_t sem, const char *, int) {
    expect(sem == FakePlatform::sem_handle, "a wrong mutex");
    expect(std::exchange(fake().mutex_held, false), "the mutex is given untaken");
    return 0;
}

uint32_t bep_msgQCreateEx(uint32_t max_messages, uint32_t message_size, uint32_t options, const char *, int) {
    expect(message_size == sizeof(atc_msg_t), "a queue of other messages");
    fake().created.push_back("bep_msgQCreateEx " + std::to_string(max_messages) + " " + std::to_string(options));
    return FakePlatform::queue_handle;
}

int bep_msgQSendEx(uint32_t msgq, const void *message, uint32_t size, int timeout, uint32_t priority, const char *,
                   int) {
    expect(msgq == FakePlatform::queue_handle && size == sizeof(atc_msg_t) && timeout == 0 && priority == 1,
           "a send not as agreed");
    if (fake().enter(Call::send) || fake().queue.size() >= 256) {
        return -1;
    }
    const auto *first = static_cast<const uint8_t *>(message);
    fake().queue.emplace_back(first, first + size);
    return 0;
}

int bep_msgQReceiveEx(uint32_t msgq, void *message, uint32_t size, int timeout_ticks, const char *, int) {
    expect(msgq == FakePlatform::queue_handle && size == sizeof(atc_msg_t) && !fake().mutex_held &&
               timeout_ticks == static_cast<int>(fake().ticks_per_second),
           "a receive not as agreed, or with the mutex held");
    if (fake().on_receive) {
        fake().on_receive();
    }
    if (fake().enter(Call::receive) || fake().queue.empty()) {
        return -1;
    }
    std::memcpy(message, fake().queue.front().data(), size);
    fake().queue.pop_front();
    return static_cast<int>(size);
}

int bep_taskDelayEx(uint32_t ticks) {
    expect(!fake().mutex_held, "a wait with the mutex held");
    fake().enter(Call::delay);
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
    expect((a1 | a2 | a3 | a4 | a5 | a6 | a7 | a8 | a9 | a10 | a11) == 0, "a task with arguments");
    fake().created.push_back("norv_task_spawn " + std::string(name) + " " + std::to_string(priority) + " " +
                             std::to_string(options) + " " + std::to_string(stack_size));
    fake().task = entry;
    return 0;
}

uint32_t modInitRegister(const char *name, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    expect((a | b | c | d) == 0, "a registration with arguments");
    fake().created.push_back("modInitRegister " + std::string(name));
    return FakePlatform::mod_handle;
}

int setModVersion(uint32_t mod_id, uint32_t kind, const char *version) {
    expect(mod_id == FakePlatform::mod_handle, "the version of another module");
    fake().created.push_back("setModVersion " + std::to_string(kind) + " " + version);
    return 0;
}

int ulogPrintf(uint32_t mod_id, uint32_t level, const char *format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    const int len = std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    expect(mod_id == FakePlatform::mod_handle && std::string(text).ends_with("\r\n"), "a log line not as agreed");
    fake().log.push_back({level, text});
    return len;
}

void syslog_get_timestamp(char *text, uint32_t size) {
    const auto now = static_cast<time_t>(fake().realtime_ns / ns_per_second);
    struct tm parts;
    strftime(text, size, "%Y-%m-%d %H:%M:%S", gmtime_r(&now, &parts));
}

int xftp_upload_base(const char *server, const char *user, const char *passwd, const char *file_name, const void *data,
                     uint32_t length, uint32_t ftp_type, void *result) {
    expect(!fake().mutex_held, "a transfer with the mutex held");
    expect(std::memcmp(result, Bytes(24).data(), 24) == 0, "an upload's result area is not 24 zeroed bytes");
    if (fake().on_upload) {
        fake().on_upload();
    }
    if (fake().enter(Call::upload)) {
        return -1;
    }
    const auto *first = static_cast<const uint8_t *>(data);
    fake().uploads.push_back({server, user, passwd, file_name, Bytes(first, first + length), ftp_type});
    return 0;
}

// The description of a rule in a driver's call, and its text.
#define RULE                                                                                                          \
    uint32_t a, uint32_t b, const void *match, uint32_t match_len, const void *op, uint32_t op_len, const void *port, \
        uint32_t port_len
#define TEXT(kind) rule_text(kind, a | b, {match, match_len}, {op, op_len}, {port, port_len})

int hw_driver_set_stream_qos_item(RULE, void *) {
    const std::string text = TEXT(1);
    if (fake().enter(Call::chip_set) || fake().chip_set_result < 0 || fake().rules.contains(text)) {
        return std::min(fake().chip_set_result, -1);
    }
    const uint32_t nth = fake().rules_made++;
    fake().rules[text] = {FakePlatform::first_entry_id + nth, FakePlatform::first_stat_id + nth, text};
    return fake().chip_set_result;
}

int hw_driver_delete_qos_item_by_stream(RULE, void *) {
    const std::string text = TEXT(0);
    return !fake().enter(Call::chip_delete) && fake().rules.erase(text) == 1 ? 0 : -1;
}

int hw_driver_lookup_entry_by_stream(RULE, uint32_t *entry_id) {
    return look_up(Call::chip_entry_id, TEXT(1), &ChipRule::entry_id, entry_id);
}

int hw_driver_lookup_stat_id_by_stream(RULE, uint32_t *stat_id) {
    return look_up(Call::chip_stat_id, TEXT(1), &ChipRule::stat_id, stat_id);
}

int hw_driver_get_stat_by_stat_id(uint32_t stat_id, atc_stat_hw_t *stat) {
    const auto rule = with_stat_id(fake().rules, stat_id);
    if (fake().enter(Call::chip_counters) || rule == fake().rules.end()) {
        return -1;
    }
    *stat = {};
    stat->unused = 0xdeadbeef;
    stat->packets = rule->second.packets;
    return 0;
}

void hss_get_device_mac(uint8_t *mac) {
    std::memcpy(mac, "\x02\0\0\0\0\x01", 6);
}

int hal_register_trunk_handler(int (*handler)(uint32_t unused, uint32_t trunk, uint32_t member, uint32_t op)) {
    fake().trunk_handler = handler;
    return 0;
}

int br_comm_transfer_portindex_2slotport(uint32_t port, uint32_t *slot, uint32_t *slot_port) {
    fake().enter(Call::port_map);
    const auto known = fake().ports.find(port);
    const auto place = known != fake().ports.end() ? known->second : std::pair(port / 64 + 1, port % 64);
    if (!place) {
        return -1;
    }
    std::tie(*slot, *slot_port) = *place;
    return 0;
}

uint32_t get_bakup_core_card_cardnumber(void) {
    return fake().backup_slot;
}

const char *inet_ntop6(const void *address, char *text, uint32_t size) {
    return inet_ntop(AF_INET6, address, text, size);
}

}  // extern "C"
