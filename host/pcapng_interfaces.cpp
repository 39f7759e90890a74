#include "pcapng_interfaces.h"

namespace host {

namespace {

// Block types.
constexpr uint32_t kSectionHeader = 0x0A0D0D0A;  // reads the same in both byte orders
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kOldPacket = 2;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;

constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint32_t kHeaderSize = 8;         // type and length
constexpr uint32_t kMinimumBlockSize = 12;  // and the length once more

}  // namespace

bool PcapngInterfaces::open(const std::string &path) {
    file_.reset(std::fopen(path.c_str(), "rb"));
    if (!file_) {
        return false;
    }
    uint32_t type = 0;
    if (std::fread(&type, sizeof(type), 1, file_.get()) != 1 || type != kSectionHeader) {
        return false;
    }
    rewind();
    Block block{};
    while (read_block(block)) {
    }
    const uint32_t interfaces = section_base_ + section_interfaces_;
    rewind();
    return interfaces > 1;
}

uint32_t PcapngInterfaces::next() {
    Block block{};
    while (read_block(block)) {
        if (block.type == kEnhancedPacket || block.type == kSimplePacket || block.type == kOldPacket) {
            last_ = section_base_ + block.interface;
            break;
        }
    }
    return last_;
}

// Reads the head of one block and leaves the file at the next one.
bool PcapngInterfaces::read_block(Block &block) {
    uint32_t head[2];
    if (std::fread(head, sizeof(head), 1, file_.get()) != 1) {
        return false;
    }
    uint32_t used = kHeaderSize;
    block = {number(head[0]), 0};
    if (head[0] == kSectionHeader) {
        if (!read_section_header()) {
            return false;
        }
        used += sizeof(uint32_t);
        block.type = kSectionHeader;
    } else if (block.type == kInterfaceDescription) {
        section_interfaces_++;
    } else if (block.type == kEnhancedPacket || block.type == kOldPacket) {
        uint32_t word = 0;
        if (std::fread(&word, sizeof(word), 1, file_.get()) != 1) {
            return false;
        }
        used += sizeof(uint32_t);
        // The old packet block has 16 bits of interface in front of 16 bits of drop count.
        const uint32_t first_half = swapped_ ? number(word) >> 16 : word & 0xffff;
        block.interface = block.type == kEnhancedPacket ? number(word) : first_half;
    }
    const uint32_t length = number(head[1]);
    return length >= kMinimumBlockSize && length >= used &&
           std::fseek(file_.get(), static_cast<long>(length - used), SEEK_CUR) == 0;
}

bool PcapngInterfaces::read_section_header() {
    uint32_t magic = 0;
    if (std::fread(&magic, sizeof(magic), 1, file_.get()) != 1) {
        return false;
    }
    swapped_ = magic != kByteOrderMagic;
    section_base_ += section_interfaces_;
    section_interfaces_ = 0;
    return true;
}

uint32_t PcapngInterfaces::number(uint32_t raw) const {
    return swapped_ ? __builtin_bswap32(raw) : raw;
}

void PcapngInterfaces::rewind() {
    std::rewind(file_.get());
    swapped_ = false;
    section_base_ = 0;
    section_interfaces_ = 0;
}

}  // namespace host
