// seeds.cpp: writes what the corpus of frames, driver buffers and capture files begins with: fuzz_seeds FOLDER.
//
// One input a protocol class: its frame, over a limit of one packet; the rules that this makes the module ask the chip
// for, with the frame behind them; and the frame as a capture file, in each format that the reader knows.
#include <filesystem>
#include <fstream>
#include <string>

#include "frames.h"
#include "module_run.h"

namespace {

class Writer {
public:
    template <typename... values_t>
    Writer &u8(values_t... values) {
        (text_.push_back(static_cast<char>(values)), ...);
        return *this;
    }
    Writer &u16(uint32_t value) { return number(static_cast<uint16_t>(value)); }
    Writer &u32(uint32_t value) { return number(value); }
    Writer &bytes(std::span<const uint8_t> bytes) {
        text_.append(bytes.begin(), bytes.end());
        return *this;
    }
    Writer &sized(std::span<const uint8_t> data) { return u16(static_cast<uint32_t>(data.size())).bytes(data); }
    void big_endian(bool on) { big_endian_ = on; }

    void write(const std::filesystem::path &path) const {
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text_;
    }

private:
    template <typename number_t>
    Writer &number(number_t value) {
        for (size_t i = 0; i < sizeof(value); i++) {
            const size_t shift = 8 * (big_endian_ ? sizeof(value) - 1 - i : i);
            text_.push_back(static_cast<char>(value >> shift & 0xff));
        }
        return *this;
    }

    bool big_endian_ = false;
    std::string text_;
};

// Four packets, a fast period, one more.
Writer frame_input(uint8_t protocol, const Frame &frame) {
    Writer input;
    input.u8(protocol, 0, 4, 0x61).sized(frame).u8(0, 8, 5, 1).sized(frame).u8(3, 0).sized(frame);
    return input;
}

// Each place of a rule, with the first words of a record that has the frame's port in it.
Writer rules_input(const Frame &frame) {
    Writer input;
    input.u8(255, 6);
    for (uint8_t place = 0; place < 6; place++) {
        input.u8(place + 6).u32(1 << 0 | 1 << 3 | 1 << 23).u32(place == 1 ? 0 : 7).u32(1).u32(1 + place % 2);
    }
    input.u8(2, 1, 4, 0xe1).sized(frame).u8(1, 0, 4, 0xe2).sized(frame).u8(0, 31);
    return input;
}

Writer driver_input(const Frame &frame) {
    Writer input;
    for (const ChipRule &rule : fake().chip()) {
        input.u8(2).sized(rule.match).sized(rule.op).sized(rule.port);
        input.u8(100, 1).sized(frame).u8(1).sized(rule.match).sized(rule.op).sized(rule.port);
    }
    return input;
}

Writer pcap_input(uint32_t magic, bool big_endian, const Frame &frame) {
    Writer input;
    input.big_endian(big_endian);
    input.u32(magic).u16(2).u16(4).u32(0).u32(0).u32(65535).u32(1);
    for (uint32_t second = 0; second < 3; second++) {
        input.u32(1'630'554'380 + second).u32(5).u32(frame.size()).u32(frame.size() + second).bytes(frame);
    }
    return input;
}

// Two interfaces, the second with nanoseconds, one packet each, and a simple packet.
Writer pcapng_input(bool big_endian, const Frame &frame) {
    const uint32_t padded = (frame.size() + 3) / 4 * 4;
    const Bytes padding(padded - frame.size());
    Writer input;
    input.big_endian(big_endian);
    input.u32(0x0a0d0d0a).u32(28).u32(0x1a2b3c4d).u16(1).u16(0).u32(~0U).u32(~0U).u32(28);
    input.u32(1).u32(20).u16(1).u16(0).u32(65535).u32(20);
    input.u32(1).u32(32).u16(1).u16(0).u32(65535).u16(9).u16(1).u8(9, 0, 0, 0).u16(0).u16(0).u32(32);
    for (uint32_t interface = 0; interface < 2; interface++) {
        input.u32(6).u32(32 + padded).u32(interface).u32(interface == 0 ? 379644 : 379644000 / 2).u32(1'000'000);
        input.u32(frame.size()).u32(frame.size()).bytes(frame).bytes(padding).u32(32 + padded);
    }
    input.u32(3).u32(16 + padded).u32(frame.size()).bytes(frame).bytes(padding).u32(16 + padded);
    return input;
}

}  // namespace

int main(int argc, char **argv) {
    require(argc == 2, "seeds FOLDER");
    const std::filesystem::path folder = argv[1];
    for (uint8_t protocol = 1; protocol <= ATC_PROTOCOL_COUNT; protocol++) {
        const Frame frame = frame_of_class(protocol);
        const std::string name = "class-" + std::to_string(protocol);
        frame_input(protocol, frame).write(folder / "frame" / name);
        ModuleRun module;
        arm_protocols(protocol);
        module.rx_n(301, frame, 1, 100);
        if (!fake().chip().empty()) {
            driver_input(frame).write(folder / "driver" / name);
        }
    }
    rules_input(arp()).write(folder / "frame" / "rules");
    pcap_input(0xa1b2c3d4, false, arp()).write(folder / "capture" / "microseconds");
    pcap_input(0xa1b2c3d4, true, arp()).write(folder / "capture" / "microseconds-big-endian");
    pcap_input(0xa1b23c4d, false, udp6()).write(folder / "capture" / "nanoseconds");
    pcapng_input(false, icmp()).write(folder / "capture" / "interfaces");
    pcapng_input(true, icmp()).write(folder / "capture" / "interfaces-big-endian");
    return 0;
}
