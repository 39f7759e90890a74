// pcapng_interfaces.h: which interface each packet of a pcapng file came in on.
//
// libpcap reads pcapng but hides the interface of a packet. This walks the same file's block headers beside it, in
// step, and answers that one question. It reads no packet data and judges nothing: where the file is broken it repeats
// its last answer, and libpcap says what is wrong. Used by: capture_reader. Format: PCAP Next Generation Capture File
// Format (IETF draft-ietf-opsawg-pcapng).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace host {

class PcapngInterfaces {
public:
    // True when 'path' is a pcapng file with more than one interface; only then is there anything to ask.
    bool open(const std::string &path);

    // Interface of the next packet, counted from 0 through all sections of the file.
    uint32_t next();

private:
    struct Block {
        uint32_t type;
        uint32_t interface;  // of a packet block
    };
    struct FileCloser {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };

    bool read_block(Block &block);
    bool read_section_header();
    uint32_t number(uint32_t raw) const;
    void rewind();

    std::unique_ptr<std::FILE, FileCloser> file_;
    bool swapped_ = false;       // the section has the other byte order
    uint32_t section_base_ = 0;  // interfaces of all sections before this one
    uint32_t section_interfaces_ = 0;
    uint32_t last_ = 0;
};

}  // namespace host
