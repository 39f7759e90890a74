// SPDX-License-Identifier: Apache-2.0
// capture_reader.h: captured packets out of files, in the order of their times.
//
// Reads pcap (micro- and nanoseconds, both byte orders) and pcapng through libpcap, plain, compressed (gzip, xz, zstd)
// or as it comes through a pipe. What a file holds that cannot be replayed is reported with file name and packet
// number, and reading goes on where it can: a packet that is too long is left out, one whose time makes no sense is
// taken at the time before it; a cut file ends at the cut. Used by: replay. Uses: libpcap, capture_stream, problems.
// Invariant: the times handed out never go back. Thread: the driving one only.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture_stream.h"
#include "problems.h"

namespace host {

struct Packet {
    const uint8_t *data;  // valid until the next packet of the same file
    uint32_t len;         // bytes
    uint32_t port;        // logical port
    int64_t time_ns;      // since 1970-01-01 UTC
};

// Standard input, in the place of a file's path.
constexpr const char *kStandardInput = "-";

// One file.
class CaptureFile {
public:
    static constexpr uint32_t longest_frame = 65535;  // bytes
    // A longer step between two packets is no silence but a broken time.
    static constexpr int64_t longest_gap_ns = 400LL * 86400 * 1'000'000'000;

    // Packets come in on 'port'; those of a pcapng file's further interfaces on the ports behind it. False when nothing
    // can be read from the file; the reason is reported.
    bool open(const std::string &path, uint32_t port, Problems &problems);

    // False at the end, also at an end that comes too early.
    bool next(Packet &packet);

    uint64_t bytes_read() const;
    uint64_t size() const { return size_; }
    uint64_t refused() const { return refused_; }
    uint64_t shortened() const { return shortened_; }

private:
    struct PcapCloser {
        void operator()(pcap_t *pcap) const { pcap_close(pcap); }
    };

    std::FILE *open_bytes();
    // What hardly any packet comes to stays out of the way of the others.
    [[gnu::noinline, gnu::cold]] void ended(int result);
    [[gnu::noinline, gnu::cold]] void leave_out(uint32_t len);
    int64_t settle_time(const struct timeval &stamp);
    [[gnu::noinline, gnu::cold]] int64_t doubtful_time(int64_t time_ns);
    void report(const std::string &kind, const std::string &text);

    std::unique_ptr<CaptureStream> stream_;  // null: libpcap reads the file itself
    std::unique_ptr<pcap_t, PcapCloser> pcap_;
    std::string path_;
    Problems *problems_ = nullptr;
    uint32_t port_ = 0;
    uint64_t size_ = 0;       // bytes
    uint64_t number_ = 0;     // of the packet last read, from 1
    uint64_t refused_ = 0;    // packets left out, a cut one included
    uint64_t shortened_ = 0;  // packets of which the capture holds only the beginning
    int64_t last_ns_ = 0;     // time handed out last
    int64_t skipped_ns_ = 0;  // taken off every time since a gap that was skipped
};

// Several files as one stream.
class CaptureSet {
public:
    void add(CaptureFile &&file);

    bool empty() const { return files_.empty(); }
    bool next(Packet &packet);

    uint64_t bytes_read() const;
    uint64_t size() const;
    uint64_t refused() const;
    uint64_t shortened() const;

private:
    bool next_merged(Packet &packet);

    std::vector<CaptureFile> files_;
    std::vector<Packet> heads_;  // next packet of each file, when there are several
    std::vector<bool> has_head_;
    size_t taken_ = SIZE_MAX;  // the file whose head was handed out last
};

}  // namespace host
