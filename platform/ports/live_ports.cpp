// SPDX-License-Identifier: Apache-2.0
#include "ports/live_ports.h"

#include <algorithm>
#include <set>
#include <utility>

namespace card {

namespace {

std::string name_of(const LivePort &port) {
    return "port " + std::to_string(port.spec.port) + " (" + port.spec.interface + ")";
}

}  // namespace

LivePort &LivePorts::add(const PortSpec &spec) {
    LivePort port;
    port.spec = spec;
    port.logical = spec.port;
    port.index = next_index_++;
    return ports_.emplace_back(std::move(port));
}

std::vector<LivePorts::Change> LivePorts::look(bool anyway) {
    std::vector<Change> changes;
    if (!watches_) {
        watches_ = watch_.open();
    }
    const bool is_whole = std::ranges::all_of(
        ports_, [](const LivePort &port) { return port.attachment == nullptr || port.attachment->is_attached(); });
    if (!watch_.has_changed() && !anyway && is_whole) {
        return changes;
    }
    const std::vector<Interface> all = interfaces();
    find_bonds(all);
    look_at_bonds(all, changes);
    for (LivePort &port : ports_) {
        if (!port.has_left) {
            look_at(port, all, changes);
        }
    }
    if (!guard_.set_addresses(local_addresses())) {
        changes.push_back(
            {"the kernel has no room for all addresses of this machine: packets to some are not watched"});
    }
    return changes;
}

void LivePorts::set_logical(uint32_t number, uint32_t logical) {
    for (LivePort &port : ports_) {
        if (port.spec.port == number) {
            port.logical = logical;
            if (port.interface != 0) {
                tell_kernel(port, port.interface);
            }
        }
    }
}

bool LivePorts::tell_kernel(const LivePort &port, uint32_t interface) {
    kernel_port kernel{};
    kernel.port = port.spec.port;
    kernel.logical = port.logical;
    kernel.index = port.index;
    kernel.vlan = port.spec.vlan;
    kernel.all = all_frames_ ? 1 : 0;
    return guard_.set_port(interface, kernel);
}

// What turns out to be a bond, now or later, is no port itself.
void LivePorts::find_bonds(const std::vector<Interface> &all) {
    std::erase_if(ports_, [&](const LivePort &port) {
        const bool is_bond =
            port.attachment == nullptr && port.trunk == 0 && std::ranges::any_of(all, [&](const Interface &one) {
                return one.is_bond && one.name == port.spec.interface;
            });
        if (is_bond) {
            bonds_.push_back(port.spec);
        }
        return is_bond;
    });
}

// Members of bonds: those that have come are ports from now on, those that have left are nobody's.
void LivePorts::look_at_bonds(const std::vector<Interface> &all, std::vector<Change> &changes) {
    for (const PortSpec &bond : bonds_) {
        std::set<const LivePort *> members;
        const auto itself = std::ranges::find(all, bond.interface, &Interface::name);
        for (const Interface &one : all) {
            if (itself == all.end() || one.master != itself->index) {
                continue;
            }
            LivePort *port = member_of(bond, one);
            if (port == nullptr) {
                port = &add({one.name, next_member_++, bond.vlan});
                port->trunk = bond.port;
                port->has_left = true;
            }
            members.insert(port);
            if (std::exchange(port->has_left, false)) {
                changes.push_back(trunk_change(*port, bond, true));
            }
        }
        for (LivePort &port : ports_) {
            if (port.trunk == bond.port && !members.contains(&port) && !std::exchange(port.has_left, true)) {
                if (port.attachment != nullptr) {
                    detach(port, "it has left its bond", changes);
                }
                changes.push_back(trunk_change(port, bond, false));
            }
        }
    }
}

// One that is known may have got another name.
LivePort *LivePorts::member_of(const PortSpec &bond, const Interface &interface) {
    const auto found = std::ranges::find_if(ports_, [&](const LivePort &port) {
        return port.trunk == bond.port &&
               (port.interface == interface.index || (port.interface == 0 && port.spec.interface == interface.name));
    });
    return found != ports_.end() ? &*found : nullptr;
}

LivePorts::Change LivePorts::trunk_change(const LivePort &port, const PortSpec &bond, bool joins) {
    const std::string trunk = " trunk " + std::to_string(bond.port) + " (" + bond.interface + ")";
    return {name_of(port) + (joins ? " joins" : " leaves") + trunk, bond.port, port.spec.port, joins};
}

void LivePorts::look_at(LivePort &port, const std::vector<Interface> &all, std::vector<Change> &changes) {
    const auto same_index = std::ranges::find(all, port.interface, &Interface::index);
    if (port.attachment != nullptr && same_index == all.end()) {
        detach(port, "the interface has gone", changes);
    } else if (port.attachment != nullptr && !port.attachment->is_attached()) {
        detach(port, "somebody has taken the program off", changes);
    } else if (port.attachment != nullptr) {
        if (same_index->name != port.spec.interface) {
            changes.push_back({name_of(port) + " is called " + same_index->name + " now"});
            port.spec.interface = same_index->name;
        }
        return;
    }
    const auto found = std::ranges::find(all, port.spec.interface, &Interface::name);
    if (found == all.end()) {
        if (std::exchange(port.trouble, "no such interface") != port.trouble) {
            changes.push_back({name_of(port) + ": no such interface; it is waited for"});
        }
        return;
    }
    std::string error = "the kernel has no room for it";
    if (tell_kernel(port, found->index)) {
        port.attachment = Attachment::attach(guard_, found->name, found->index, mode_, error);
    }
    if (port.attachment == nullptr) {
        guard_.forget_port(found->index);
        if (std::exchange(port.trouble, error) != error) {
            changes.push_back(change_of(port, " is not protected: " + error, false, error));
        }
        return;
    }
    port.interface = found->index;
    port.trouble.clear();
    changes.push_back(
        change_of(port,
                  " is protected, VLAN " + std::to_string(port.spec.vlan) + ", " +
                      (mode_ == PortMode::kNative ? "native" : "generic") + " mode" +
                      (port.attachment->sees_tags() ? "" : "; VLAN tags stand beside its frames and are not seen"),
                  true, ""));
}

void LivePorts::detach(LivePort &port, const std::string &why, std::vector<Change> &changes) {
    guard_.forget_port(port.interface);
    port.attachment.reset();
    port.interface = 0;
    changes.push_back(change_of(port, " is not protected any more: " + why, false, why));
}

LivePorts::Change LivePorts::change_of(const LivePort &port, std::string text, bool is_protected, std::string reason) {
    Change change{name_of(port) + std::move(text)};
    change.is_about_port = true;
    change.is_protected = is_protected;
    change.port = port.spec.port;
    change.interface = port.spec.interface;
    change.reason = std::move(reason);
    return change;
}

}  // namespace card
