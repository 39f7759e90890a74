// SPDX-License-Identifier: Apache-2.0
#include "capture_reader.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <string_view>
#include <system_error>

namespace host {

namespace {

constexpr int64_t kNanoseconds = 1'000'000'000;
constexpr int64_t kLatestSecond = 1LL << 33;  // in the year 2242; what is behind it is no time of a packet
constexpr size_t kReadBuffer = 32 << 10;      // bytes; more would push the module's entries out of the caches

const uint8_t kNoBytes[1] = {0};

// How files begin: RFC 1952, the .xz file format 2.1.1.1, RFC 8878 3.1.1, and pcapng's section header.
constexpr std::string_view kPackedBeginnings[] = {"\x1f\x8b",
                                                  "\xfd"
                                                  "7zXZ",
                                                  "\x28\xb5\x2f\xfd"};
constexpr std::string_view kPcapngBeginning[] = {"\x0a\x0d\x0d\x0a"};

bool begins_with(int fd, std::span<const std::string_view> beginnings) {
    char bytes[5];
    const ssize_t got = pread(fd, bytes, sizeof(bytes), 0);
    const std::string_view found(bytes, got > 0 ? static_cast<size_t>(got) : 0);
    return std::ranges::any_of(beginnings, [found](std::string_view one) { return found.starts_with(one); });
}

}  // namespace

bool CaptureFile::open(const std::string &path, uint32_t port, Problems &problems) {
    path_ = path;
    port_ = port;
    problems_ = &problems;
    std::FILE *file = open_bytes();
    if (file == nullptr) {
        return false;
    }
    std::setvbuf(file, nullptr, _IOFBF, kReadBuffer);
    __fsetlocking(file, FSETLOCKING_BYCALLER);  // one thread reads it, twice a packet
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_.reset(pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, error));
    if (!pcap_) {
        std::fclose(file);
        const std::string reason = stream_ && !stream_->error().empty() ? stream_->error() : error;
        problems.report(path, "open", "not a capture file that can be read (" + reason + ")");
        return false;
    }
    const int link_type = pcap_datalink(pcap_.get());
    if (link_type != DLT_EN10MB) {
        const char *name = pcap_datalink_val_to_name(link_type);
        problems.report(path, "link type",
                        "link type " + (name != nullptr ? std::string(name) : std::to_string(link_type)) +
                            ", not Ethernet; nothing is read from it");
        return false;
    }
    return true;
}

// The file as libpcap can read it; null when it cannot be opened, with the reason reported.
std::FILE *CaptureFile::open_bytes() {
    const bool is_named = path_ != kStandardInput;
    // Not waiting for a pipe's writer here: reading does, and can be ended.
    const int fd = is_named ? ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : dup(STDIN_FILENO);
    if (fd < 0) {
        problems_->report(path_, "open", "cannot be opened: " + std::generic_category().message(errno));
        return nullptr;
    }
    struct stat status {};
    const bool is_file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    size_ = is_file ? static_cast<uint64_t>(status.st_size) : 0;
    const bool can_look = is_file && is_named;
    if (can_look && !begins_with(fd, kPackedBeginnings) && !begins_with(fd, kPcapngBeginning)) {
        return fdopen(fd, "rb");
    }
    stream_ = std::make_unique<CaptureStream>();
    const bool is_plain = can_look && !begins_with(fd, kPackedBeginnings);
    if (!stream_->open(fd, is_plain ? CaptureStream::Form::kAsItIs : CaptureStream::Form::kPerhapsPacked)) {
        problems_->report(path_, "open", "not a capture file that can be read (" + stream_->error() + ")");
        return nullptr;
    }
    return stream_->file();
}

bool CaptureFile::next(Packet &packet) {
    for (;;) {
        struct pcap_pkthdr *header = nullptr;
        const u_char *data = nullptr;
        if (const int result = pcap_next_ex(pcap_.get(), &header, &data); result != 1) {
            ended(result);
            return false;
        }
        number_++;
        const uint32_t port = port_ + (stream_ ? stream_->next_interface() : 0);
        if (header->caplen > longest_frame) {
            leave_out(header->caplen);
            continue;
        }
        shortened_ += header->caplen < header->len ? 1 : 0;
        packet = {data != nullptr ? data : kNoBytes, header->caplen, port, settle_time(header->ts)};
        return true;
    }
}

void CaptureFile::ended(int result) {
    if (result == PCAP_ERROR) {
        refused_++;
        const std::string reason = stream_ && !stream_->error().empty() ? stream_->error() : pcap_geterr(pcap_.get());
        report("cut", "packet " + std::to_string(number_ + 1) + ": " + reason + "; the file is read up to here");
    }
}

void CaptureFile::leave_out(uint32_t len) {
    refused_++;
    report("too long", "packet " + std::to_string(number_) + ": " + std::to_string(len) +
                           " bytes, more than a frame can have (" + std::to_string(longest_frame) + "); left out");
}

uint64_t CaptureFile::bytes_read() const {
    if (stream_) {
        return stream_->bytes_read();
    }
    const long position = std::ftell(pcap_file(pcap_.get()));
    return position > 0 ? static_cast<uint64_t>(position) : 0;
}

// libpcap was asked for nanoseconds: tv_usec holds them.
int64_t CaptureFile::settle_time(const struct timeval &stamp) {
    const bool sane = stamp.tv_sec >= 0 && stamp.tv_sec < kLatestSecond && stamp.tv_usec >= 0;
    int64_t time_ns = sane ? stamp.tv_sec * kNanoseconds + stamp.tv_usec : -1;
    if (time_ns - skipped_ns_ < last_ns_ || (number_ > 1 && time_ns - skipped_ns_ - last_ns_ > longest_gap_ns)) {
        time_ns = doubtful_time(time_ns);
    } else {
        time_ns -= skipped_ns_;
    }
    last_ns_ = time_ns;
    return time_ns;
}

// A time before the last one, or far behind it.
int64_t CaptureFile::doubtful_time(int64_t time_ns) {
    const std::string packet = "packet " + std::to_string(number_) + ": ";
    if (time_ns < 0) {
        report("no time", packet + "its time makes no sense; taken at the time of the packet before it");
        return last_ns_;
    }
    if (skipped_ns_ != 0 && time_ns >= last_ns_ && time_ns - last_ns_ <= longest_gap_ns) {
        skipped_ns_ = 0;  // back from the far time, where the file went on
        return time_ns;
    }
    const int64_t step_ns = time_ns - skipped_ns_ - last_ns_;
    char text[160];
    if (step_ns < 0) {
        std::snprintf(text, sizeof(text), "time goes back by %.6f s; taken at the time of the packet before it",
                      static_cast<double>(-step_ns) / static_cast<double>(kNanoseconds));
        report("goes back", packet + text);
    } else {
        std::snprintf(text, sizeof(text), "time jumps ahead by %lld days; the gap is skipped",
                      static_cast<long long>(step_ns / kNanoseconds / 86400));
        report("jumps ahead", packet + text);
        skipped_ns_ += step_ns;
    }
    return last_ns_;
}

void CaptureFile::report(const std::string &kind, const std::string &text) {
    problems_->report(path_, kind, text);
}

void CaptureSet::add(CaptureFile &&file) {
    files_.push_back(std::move(file));
}

bool CaptureSet::next(Packet &packet) {
    return files_.size() == 1 ? files_[0].next(packet) : next_merged(packet);
}

// Equal times come in the order of the files.
bool CaptureSet::next_merged(Packet &packet) {
    if (heads_.empty()) {
        heads_.resize(files_.size());
        has_head_.resize(files_.size());
        for (size_t i = 0; i < files_.size(); i++) {
            has_head_[i] = files_[i].next(heads_[i]);
        }
    } else if (taken_ != SIZE_MAX) {
        // Not before now: reading on takes the bytes of the packet handed out away.
        has_head_[taken_] = files_[taken_].next(heads_[taken_]);
    }
    taken_ = SIZE_MAX;
    for (size_t i = 0; i < files_.size(); i++) {
        if (has_head_[i] && (taken_ == SIZE_MAX || heads_[i].time_ns < heads_[taken_].time_ns)) {
            taken_ = i;
        }
    }
    if (taken_ == SIZE_MAX) {
        return false;
    }
    packet = heads_[taken_];
    return true;
}

uint64_t CaptureSet::bytes_read() const {
    uint64_t sum = 0;
    for (const CaptureFile &file : files_) {
        sum += file.bytes_read();
    }
    return sum;
}

uint64_t CaptureSet::size() const {
    uint64_t sum = 0;
    for (const CaptureFile &file : files_) {
        sum += file.size();
    }
    return sum;
}

uint64_t CaptureSet::refused() const {
    uint64_t sum = 0;
    for (const CaptureFile &file : files_) {
        sum += file.refused();
    }
    return sum;
}

uint64_t CaptureSet::shortened() const {
    uint64_t sum = 0;
    for (const CaptureFile &file : files_) {
        sum += file.shortened();
    }
    return sum;
}

}  // namespace host
