// SPDX-License-Identifier: Apache-2.0
// live.cpp: what the live card costs a frame, in turns with a bare stack, a plain XDP drop and nft rules.
//
// bench_live INTERFACE prints the tables. The kernel itself sends the frames: a program is run on copies of one frame,
// in batches as a network card's driver does, and what it passes goes on into the stack of INTERFACE's namespace, which
// bench/live.sh makes. So a time is the driver's batch, the program and the stack, nothing of a sender. Times are this
// thread's processor time; of each case the smallest of 15 chunks of 32,768 frames, all cases in turns.
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "chip/chip.h"
#include "chip/kernel/guard.h"
#include "event_log.h"
#include "live/class_tables.h"
#include "live/live_card.h"
#include "live_frames.h"

namespace {

constexpr uint32_t kFrames = 32'768;  // of a chunk; their copies fit into the ring
constexpr int kChunks = 15;
constexpr uint32_t kPort = 1;

// 60 bytes: an UDP datagram to a socket of this machine that nobody reads, so that the stack's part is a small one.
std::vector<uint8_t> datagram() {
    std::vector<uint8_t> frame = {2,    0,    0,    0,    0, 1,  2, 0, 0,  0,  0, 2, 0x08, 0,  // Ethernet
                                  0x45, 0,    0,    46,   0, 0,  0, 0, 64, 17, 0, 0, 10,   0,
                                  0,    2,    10,   0,    0, 1,          // IPv4
                                  0x30, 0x39, 0x30, 0x39, 0, 26, 0, 0};  // UDP
    frame.resize(60);
    uint32_t sum = 0;
    for (size_t at = 14; at < 34; at += 2) {
        sum += static_cast<uint32_t>(frame[at] << 8 | frame[at + 1]);
    }
    sum = ~((sum >> 16) + (sum & 0xffff));
    frame[24] = static_cast<uint8_t>(sum >> 8);
    frame[25] = static_cast<uint8_t>(sum);
    return frame;
}

[[noreturn]] void die(const std::string &what) {
    std::fprintf(stderr, "bench_live: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void run(const char *command) {
    if (std::system(command) != 0) {
        die(command);
    }
}

// 'count' rules for nft's ingress hook that drop what has one of so many other sources.
void set_nft(const std::string &interface, uint32_t count, const char *last) {
    std::FILE *nft = popen("nft -f -", "w");
    std::fprintf(nft, "table netdev bench\ndelete table netdev bench\n");
    std::fprintf(nft, "table netdev bench { chain in { type filter hook ingress device %s priority 0;\n",
                 interface.c_str());
    for (uint32_t i = 0; i < count; i++) {
        std::fprintf(nft, "ip saddr 10.1.%u.%u drop\n", i / 250, i % 250 + 1);
    }
    std::fprintf(nft, "%s\n}\n}\n", last);
    if (pclose(nft) != 0) {
        die("nft");
    }
}

// A chip rule number 'i' in one of four kinds (sources of two widths, with and without a destination port), for frames
// that nobody sends, or for the datagram.
card::Description rule(uint32_t i, bool is_for_datagram) {
    const std::vector<uint8_t> frame = datagram();
    const card::KeyBits key = card::frame_key(frame.data(), static_cast<uint32_t>(frame.size()), 1);
    card::Description rule;
    rule.identity = std::to_string(i) + (is_for_datagram ? "d" : "");
    rule.action = card::Action::kDeny;
    rule.ports = {kPort};
    const auto name = [&](card::Field field) {
        const card::FieldPlace place = card::field_place(field);
        std::memcpy(rule.pattern.value.bytes + place.offset, key.bytes + place.offset, place.length);
        std::memset(rule.pattern.mask.bytes + place.offset, 0xff, place.length);
        card::set_presence(rule.pattern.value, field);
        card::set_presence(rule.pattern.mask, field);
    };
    name(card::Field::kSourceIpv4);
    name(card::Field::kVlan);
    if (i % 2 != 0) {
        name(card::Field::kDestinationPort);
    }
    if (i % 4 > 1) {
        name(card::Field::kIpProtocol);
    }
    if (!is_for_datagram) {
        const uint32_t source = htonl(0x0a010000 + i);
        std::memcpy(rule.pattern.value.bytes + card::field_place(card::Field::kSourceIpv4).offset, &source,
                    sizeof(source));
    }
    return rule;
}

class Bench {
public:
    explicit Bench(const char *interface);
    void measure();
    void print() const;

private:
    struct Case {
        const char *name;
        const char *compared_with;  // name of another case
        const char *goal;
        std::function<void()> prepare;
        int program;
        double ns = 1e9;  // a frame
    };
    // Processor time of this thread for a chunk, a frame.
    double send(int program) const;
    double process();
    void set_rules(uint32_t count);
    const Case &find(const std::string &name) const;

    std::string interface_;
    uint32_t index_;
    std::vector<uint8_t> frame_ = datagram();
    std::unique_ptr<card::Guard> guard_;
    std::unique_ptr<card::LivePorts> ports_;
    host::EventLog events_{nullptr, nullptr, host::EventLog::Keep::kNothing, host::EventLog::Taking::kLater};
    std::unique_ptr<host::LiveCard> card_;
    std::vector<card::Description> installed_;
    std::vector<Case> cases_;
    double process_ns_ = 1e9;           // a copied packet
    std::vector<double> installed_ns_;  // a rule
};

Bench::Bench(const char *interface) : interface_(interface), index_(if_nametoindex(interface)) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(12345);
    if (index_ == 0 || bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        die(interface);
    }
    card::GuardOptions options;
    options.classes = host::class_tables();
    std::string error;
    guard_ = card::Guard::load(options, error);
    if (!guard_) {
        die(error);
    }
    ports_ = std::make_unique<card::LivePorts>(*guard_, card::PortMode::kNative, false);
    ports_->add({interface, kPort, 1});
    card::Chip::instance().set_plane(&guard_->rules());
    card::Chip::instance().set_capacity(KERNEL_COUNTERS);
    card_ = std::make_unique<host::LiveCard>(events_, *guard_, *ports_, host::MacAddress{2, 0, 0, 0, 0, 1},
                                             [](const std::string &) {});
    if (card_->start() != 1) {
        die("the live card");
    }
    const int guard = guard_->received_program();
    const int pass = plain_program(false);
    const auto none = [this] { set_rules(0); };
    const auto nft = [this](uint32_t count, const char *last) {
        return [this, count, last] { set_nft(interface_, count, last); };
    };
    const char *bare = "bare stack";
    cases_ = {
        {bare, nullptr, nullptr, none, pass},
        {"accepted, copied to the process", bare, "1.3", none, guard},
        {"accepted, 10 rules", bare, nullptr, [this] { set_rules(10); }, guard},
        {"accepted, 1,000 rules", "accepted, 10 rules", "1.1", [this] { set_rules(1000); }, guard},
        {"dropped by the only rule", bare, "0.5", [this] { set_rules(1); }, guard},
        {"dropped by the last of 10 rules", bare, nullptr, [this] { set_rules(11); }, guard},
        {"dropped by the last of 1,000 rules", bare, nullptr, [this] { set_rules(1001); }, guard},
        {"plain XDP drop", bare, nullptr, none, plain_program(true)},
        {"nft ingress, accepted, 10 rules", bare, nullptr, nft(10, ""), pass},
        {"nft ingress, accepted, 1,000 rules", bare, nullptr, nft(1000, ""), pass},
        {"nft ingress, dropped by the last of 10 rules", bare, nullptr, nft(9, "ip saddr 10.0.0.2 drop"), pass},
        {"nft ingress, dropped by the last of 1,000 rules", bare, nullptr, nft(999, "ip saddr 10.0.0.2 drop"), pass},
    };
}

double Bench::send(int program) const {
    guard_->beat();
    const double ns = send_frames(program, index_, frame_, kFrames);
    return ns >= 0 ? ns : (die("frames cannot be sent"), 0);
}

// Processor time of this thread for a copy in the ring; the ring is empty afterwards.
double Bench::process() {
    const double begin = processor_ns();
    size_t all = 0;
    for (size_t copies = 0; (copies = card_->look()) > 0;) {
        all += copies;
    }
    return all == kFrames ? (processor_ns() - begin) / kFrames : 1e9;
}

// So many rules; one more than a round number is for the datagram.
void Bench::set_rules(uint32_t count) {
    for (const card::Description &one : installed_) {
        card::Chip::instance().remove(one);
    }
    installed_.clear();
    for (uint32_t i = 0; i < count; i++) {
        installed_.push_back(rule(i, count % 10 == 1 && i + 1 == count));
        const double begin = processor_ns();
        if (card::Chip::instance().install(installed_.back()) != 0) {
            die("a rule");
        }
        installed_ns_.push_back(processor_ns() - begin);
    }
}

void Bench::measure() {
    for (int chunk = 0; chunk < kChunks; chunk++) {
        for (Case &one : cases_) {
            one.prepare();
            one.ns = std::min(one.ns, send(one.program));
            process_ns_ = std::min(process_ns_, process());
            if (std::string(one.name).starts_with("nft")) {
                run("nft delete table netdev bench");
            }
        }
    }
    std::ranges::sort(installed_ns_);
}

const Bench::Case &Bench::find(const std::string &name) const {
    return *std::ranges::find_if(cases_, [&](const Case &one) { return name == one.name; });
}

void Bench::print() const {
    std::puts("| a frame of 60 bytes | ns | against | ratio | goal |\n|:---|---:|:---|---:|---:|");
    for (const Case &one : cases_) {
        const char *other = one.compared_with != nullptr ? one.compared_with : "";
        std::printf("| %s | %.0f | %s | ", one.name, one.ns, other);
        if (*other != '\0') {
            std::printf("%.2f", one.ns / find(other).ns);
        }
        std::printf(" | %s |\n", one.goal != nullptr ? one.goal : "");
    }
    std::puts("\n| what | measured | goal |\n|:---|---:|---:|");
    std::printf("| process time a copied packet | %.0f ns | 300 ns |\n", process_ns_);
    std::printf("| a rule installed, median | %.1f us | 100 us |\n", installed_ns_[installed_ns_.size() / 2] / 1e3);
    std::printf("| a rule installed, p99 | %.1f us | 100 us |\n", installed_ns_[installed_ns_.size() * 99 / 100] / 1e3);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fputs("usage: bench_live INTERFACE, as bench/live.sh does\n", stderr);
        return 2;
    }
    Bench bench(argv[1]);
    bench.measure();
    bench.print();
    std::fflush(nullptr);
    _exit(0);  // the module's threads go on to the end of the process
}
