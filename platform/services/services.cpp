// SPDX-License-Identifier: Apache-2.0
// services.cpp: the module registry, the device's address, the port map and address texts.
//
// Called by the module on any thread, the port map and inet_ntop6 also with its mutex held; set up by the host. Lock:
// one mutex around the registry; the rest is set before the module starts, as services.h demands.
#include "services/services.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "anti_cpu/platform.h"

namespace {

constexpr uint32_t kPortsPerSlot = 64;

struct Module {
    std::string name;
    std::string version;
};

struct Card {
    std::mutex mutex;
    std::vector<Module> modules;  // handle - 1 is the index; under the mutex
    std::array<uint8_t, 6> device_mac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    std::function<bool(uint32_t, uint32_t *, uint32_t *)> port_map;  // empty = kPortsPerSlot to a slot
    std::atomic<uint32_t> backup_core_card = 0;
};

// Never destroyed: tasks may ask until the process has gone.
Card &the_card() {
    static Card &card = *new Card;
    return card;
}

}  // namespace

namespace card {

void set_device_mac(const std::array<uint8_t, 6> &mac) {
    the_card().device_mac = mac;
}

void set_port_map(std::function<bool(uint32_t port, uint32_t *slot, uint32_t *slot_port)> map) {
    the_card().port_map = std::move(map);
}

void set_backup_core_card(uint32_t slot) {
    the_card().backup_core_card = slot;
}

std::string module_version(uint32_t mod_id) {
    Card &card = the_card();
    const std::lock_guard lock(card.mutex);
    return mod_id == 0 || mod_id > card.modules.size() ? std::string() : card.modules[mod_id - 1].version;
}

}  // namespace card

uint32_t modInitRegister(const char *name, uint32_t, uint32_t, uint32_t, uint32_t) {
    Card &card = the_card();
    const std::lock_guard lock(card.mutex);
    card.modules.push_back({name == nullptr ? "" : name, ""});
    return static_cast<uint32_t>(card.modules.size());
}

int setModVersion(uint32_t mod_id, uint32_t, const char *version) {
    Card &card = the_card();
    const std::lock_guard lock(card.mutex);
    if (mod_id == 0 || mod_id > card.modules.size() || version == nullptr) {
        return -1;
    }
    card.modules[mod_id - 1].version = version;
    return 0;
}

void hss_get_device_mac(uint8_t *mac) {
    std::memcpy(mac, the_card().device_mac.data(), the_card().device_mac.size());
}

int br_comm_transfer_portindex_2slotport(uint32_t port, uint32_t *slot, uint32_t *slot_port) {
    const Card &card = the_card();
    if (card.port_map) {
        return card.port_map(port, slot, slot_port) ? 0 : -1;
    }
    *slot = port / kPortsPerSlot + 1;
    *slot_port = port % kPortsPerSlot;
    return 0;
}

uint32_t get_bakup_core_card_cardnumber(void) {
    return the_card().backup_core_card;
}

const char *inet_ntop6(const void *address, char *text, uint32_t size) {
    return inet_ntop(AF_INET6, address, text, size);
}
