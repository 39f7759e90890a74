// SPDX-License-Identifier: Apache-2.0
// capture_stream.h: the bytes of a capture that libpcap alone cannot take: compressed, out of a pipe, or pcapng.
//
// gzip, xz and zstd are told by their contents and unpacked by libarchive; what comes through a pipe is handed on as it
// comes. The bytes are read like a file, and the interfaces of pcapng packets are noted on their way.
// Used by: capture_reader. Uses: archive_library, pcapng_interfaces. Thread: the driving one.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "pcapng_interfaces.h"

struct archive;

namespace host {

class CaptureStream {
public:
    enum class Form {
        kAsItIs,
        kPerhapsPacked
    };

    // Takes 'fd' over. False when nothing can be read from it; see error().
    bool open(int fd, Form form);
    CaptureStream() = default;
    ~CaptureStream();
    CaptureStream(const CaptureStream &) = delete;
    CaptureStream &operator=(const CaptureStream &) = delete;

    // Reads the stream, which must outlive it. The caller closes it. Null without memory.
    std::FILE *file();

    // Interface of the packet that follows the last one asked for; see PcapngInterfaces.
    uint32_t next_interface() { return interfaces_.next(); }

    // Of the file, packed as it may be.
    uint64_t bytes_read() const;
    // Why the bytes ended too early; empty when they did not.
    const std::string &error() const { return error_; }

private:
    ssize_t read(char *buffer, size_t size) noexcept;
    ssize_t read_packed(void *buffer, size_t size);
    ssize_t read_unpacked(char *buffer, size_t size);
    bool open_archive();
    bool fail();

    int fd_ = -1;
    struct archive *archive_ = nullptr;  // null: the bytes are taken as they are
    std::unique_ptr<uint8_t[]> packed_;  // for libarchive: what the file holds
    const uint8_t *block_ = nullptr;     // what is left of those that libarchive has handed out
    size_t block_size_ = 0;
    uint64_t bytes_read_ = 0;
    PcapngInterfaces interfaces_;
    std::string error_;
};

}  // namespace host
