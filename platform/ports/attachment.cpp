// SPDX-License-Identifier: Apache-2.0
#include "ports/attachment.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/ethtool.h>
#include <linux/if_link.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace card {

namespace {

constexpr auto kTcxEgress = static_cast<bpf_attach_type>(47);  // BPF_TCX_EGRESS of kernel 6.6; libbpf 1.1 has no name
constexpr uint32_t kPriority = 49152;                          // of the filter on older kernels
constexpr uint32_t kHandle = 1;                                // likewise

// Reads or writes one word of an interface's settings (ethtool); false when the driver has none.
bool ethtool_word(const std::string &name, uint32_t command, uint32_t *word) {
    const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (handle < 0) {
        return false;
    }
    ethtool_value value{command, *word};
    ifreq request{};
    name.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    request.ifr_data = reinterpret_cast<char *>(&value);
    const bool done = ioctl(handle, SIOCETHTOOL, &request) == 0;
    close(handle);
    *word = value.data;
    return done;
}

std::string attach_reason(int error, PortMode mode) {
    std::string text = std::generic_category().message(error);
    switch (error) {
        case EBUSY:
        case EEXIST:
            return "another program is attached there already (another anti-cpu?); `ip link show` names it";
        case EOPNOTSUPP:
        case EINVAL:
            return text + (mode == PortMode::kNative ? " (a driver without XDP? --generic does without)" : "");
        case ENODEV:
            return "no such interface";
        case EPERM:
            return text + " (it takes root, or CAP_BPF, CAP_NET_ADMIN and CAP_PERFMON)";
        default:
            return text;
    }
}

// A link that was taken off stays, without its interface, whose index stands first for either kind of link.
bool is_link_live(int link) {
    bpf_link_info info{};
    uint32_t size = sizeof(info);
    return bpf_obj_get_info_by_fd(link, &info, &size) == 0 && info.xdp.ifindex != 0;
}

}  // namespace

std::unique_ptr<Attachment> Attachment::attach(const Guard &guard, const std::string &name, uint32_t interface,
                                               PortMode mode, std::string &error) {
    std::unique_ptr<Attachment> attachment(new Attachment(name, interface));
    if (!attachment->attach_received(guard, mode, error) || !attachment->attach_sent(guard, error)) {
        return nullptr;
    }
    attachment->keep_tags_in_frames();
    return attachment;
}

Attachment::Attachment(std::string name, uint32_t interface) : name_(std::move(name)), interface_(interface) {}

Attachment::~Attachment() {
    if (restores_tags_) {
        uint32_t flags = 0;
        if (ethtool_word(name_, ETHTOOL_GFLAGS, &flags)) {
            flags |= ETH_FLAG_RXVLAN;
            ethtool_word(name_, ETHTOOL_SFLAGS, &flags);
        }
    }
    if (sent_filter_ != 0) {
        LIBBPF_OPTS(bpf_tc_hook, hook);
        hook.ifindex = static_cast<int>(interface_);
        hook.attach_point = BPF_TC_EGRESS;
        LIBBPF_OPTS(bpf_tc_opts, filter);
        filter.handle = sent_filter_;
        filter.priority = kPriority;
        bpf_tc_detach(&hook, &filter);
    }
    for (const int link : {received_link_, sent_link_}) {
        if (link >= 0) {
            close(link);
        }
    }
}

bool Attachment::is_attached() const {
    return is_link_live(received_link_) && (sent_link_ < 0 || is_link_live(sent_link_));
}

bool Attachment::attach_received(const Guard &guard, PortMode mode, std::string &error) {
    LIBBPF_OPTS(bpf_link_create_opts, options);
    options.flags = mode == PortMode::kNative ? XDP_FLAGS_DRV_MODE : XDP_FLAGS_SKB_MODE;
    received_link_ = bpf_link_create(guard.received_program(), static_cast<int>(interface_), BPF_XDP, &options);
    if (received_link_ < 0) {
        error = attach_reason(errno, mode);
        return false;
    }
    return true;
}

bool Attachment::attach_sent(const Guard &guard, std::string &error) {
    sent_link_ = bpf_link_create(guard.sent_program(), static_cast<int>(interface_), kTcxEgress, nullptr);
    if (sent_link_ >= 0) {
        return true;
    }
    LIBBPF_OPTS(bpf_tc_hook, hook);
    hook.ifindex = static_cast<int>(interface_);
    hook.attach_point = BPF_TC_EGRESS;
    LIBBPF_OPTS(bpf_tc_opts, filter);
    filter.prog_fd = guard.sent_program();
    filter.priority = kPriority;
    filter.handle = kHandle;
    filter.flags = BPF_TC_F_REPLACE;  // that of a process that was killed may be there yet
    int result = bpf_tc_hook_create(&hook);
    result = result == 0 || result == -EEXIST ? bpf_tc_attach(&hook, &filter) : result;
    if (result != 0) {
        error = "sent frames cannot be watched: " + std::generic_category().message(-result);
        return false;
    }
    sent_filter_ = filter.handle;
    return true;
}

void Attachment::keep_tags_in_frames() {
    uint32_t flags = 0;
    if (!ethtool_word(name_, ETHTOOL_GFLAGS, &flags) || (flags & ETH_FLAG_RXVLAN) == 0) {
        sees_tags_ = true;
        return;
    }
    flags &= ~static_cast<uint32_t>(ETH_FLAG_RXVLAN);
    restores_tags_ = ethtool_word(name_, ETHTOOL_SFLAGS, &flags);
    sees_tags_ = restores_tags_ && ethtool_word(name_, ETHTOOL_GFLAGS, &flags) && (flags & ETH_FLAG_RXVLAN) == 0;
}

}  // namespace card
