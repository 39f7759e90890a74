// SPDX-License-Identifier: Apache-2.0
#include "capture_stream.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "archive_library.h"
#include "process.h"

namespace host {

namespace {

constexpr size_t kPipeBuffer = 32 << 10;  // bytes

}  // namespace

CaptureStream::~CaptureStream() {
    if (archive_ != nullptr) {
        archive_library()->read_free(archive_);
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool CaptureStream::open(int fd, Form form) {
    fd_ = fd;
    return form == Form::kAsItIs || open_archive();
}

std::FILE *CaptureStream::file() {
    const cookie_io_functions_t functions = {[](void *stream, char *buffer, size_t size) {
                                                 return static_cast<CaptureStream *>(stream)->read(buffer, size);
                                             },
                                             nullptr, nullptr, nullptr};
    return fopencookie(this, "rb", functions);
}

uint64_t CaptureStream::bytes_read() const {
    return archive_ != nullptr ? static_cast<uint64_t>(archive_library()->filter_bytes(archive_, -1)) : bytes_read_;
}

// As the C library wants it: 0 at the end, -1 with errno set.
ssize_t CaptureStream::read(char *buffer, size_t size) noexcept {
    const ssize_t got = archive_ != nullptr ? read_unpacked(buffer, size) : read_packed(buffer, size);
    if (got > 0) {
        bytes_read_ += static_cast<uint64_t>(got);
        interfaces_.take(reinterpret_cast<const uint8_t *>(buffer), static_cast<size_t>(got));
    }
    return got;
}

// As read(2); a pipe that is quiet ends when a signal is kept.
ssize_t CaptureStream::read_packed(void *buffer, size_t size) {
    constexpr int look_ms = 100;
    pollfd bytes = {fd_, POLLIN, 0};
    while (kept_signal() == 0) {
        if (poll(&bytes, 1, look_ms) > 0) {
            return ::read(fd_, buffer, size);
        }
    }
    return 0;
}

// Never waits for more than there is: a pipe may be quiet for long.
ssize_t CaptureStream::read_unpacked(char *buffer, size_t size) {
    while (block_size_ == 0) {
        const void *block = nullptr;
        la_int64_t offset = 0;
        const int result = archive_library()->read_data_block(archive_, &block, &block_size_, &offset);
        if (result == ARCHIVE_EOF) {
            return 0;
        }
        if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
            block_size_ = 0;
            fail();
            errno = EIO;
            return -1;
        }
        block_ = static_cast<const uint8_t *>(block);
    }
    const size_t taken = std::min(size, block_size_);
    std::memcpy(buffer, block_, taken);
    block_ += taken;
    block_size_ -= taken;
    return static_cast<ssize_t>(taken);
}

bool CaptureStream::open_archive() {
    const ArchiveLibrary *library = archive_library();
    if (library == nullptr) {
        error_ = "libarchive, which reads it, is not installed";
        return false;
    }
    archive_ = library->read_new();
    if (archive_ == nullptr) {
        error_ = std::generic_category().message(ENOMEM);
        return false;
    }
    library->read_support_filter_gzip(archive_);
    library->read_support_filter_xz(archive_);
    library->read_support_filter_zstd(archive_);
    library->read_support_format_raw(archive_);
    struct archive_entry *entry = nullptr;
    packed_ = std::make_unique<uint8_t[]>(kPipeBuffer);
    const auto read_block = [](struct archive *, void *stream, const void **block) -> la_ssize_t {
        auto *self = static_cast<CaptureStream *>(stream);
        *block = self->packed_.get();
        return self->read_packed(self->packed_.get(), kPipeBuffer);
    };
    if (library->read_open(archive_, this, nullptr, read_block, nullptr) != ARCHIVE_OK ||
        library->read_next_header(archive_, &entry) != ARCHIVE_OK) {
        return fail();
    }
    return true;
}

// Always false.
bool CaptureStream::fail() {
    const char *text = archive_library()->error_string(archive_);
    error_ = text == nullptr || bytes_read() == 0 ? "nothing can be read from it" : text;
    return false;
}

}  // namespace host
