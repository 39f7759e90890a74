// SPDX-License-Identifier: Apache-2.0
#include "events/file_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace host {

namespace {

constexpr int kLookMs = 100;  // between questions whether waiting goes on
constexpr mode_t kMode = 0644;

}  // namespace

FileSink::~FileSink() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool FileSink::open(const std::string &path, Start start) {
    struct stat there {};
    const bool is_fifo = stat(path.c_str(), &there) == 0 && S_ISFIFO(there.st_mode);
    // A FIFO that is read, too, opens without a reader.
    const int access = is_fifo ? O_RDWR : O_WRONLY | O_CREAT;
    fd_ = ::open(path.c_str(), access | O_APPEND | O_CLOEXEC | (start == Start::kEmpty ? O_TRUNC : 0), kMode);
    if (fd_ >= 0 && fstat(fd_, &there) == 0 && S_ISREG(there.st_mode)) {
        path_ = path;
    }
    return fd_ >= 0;
}

void FileSink::take(int fd) {
    fd_ = fd;
}

// As much as a pipe that is ready takes without waiting.
bool FileSink::write(const std::string &text, const GoesOn &goes_on) {
    if (!path_.empty() && (is_reopen_asked_.exchange(false) || has_moved())) {
        open_anew();
    }
    const std::string broken_off = is_within_line_ ? "\n" + text : std::string();
    const std::string &all = is_within_line_ ? broken_off : text;
    for (size_t done = 0; done < all.size();) {
        pollfd ready{fd_, POLLOUT, 0};
        const int found = poll(&ready, 1, kLookMs);
        if (found == 0 || (found < 0 && errno == EINTR)) {
            if (!goes_on()) {
                return false;
            }
            continue;
        }
        const ssize_t size = ::write(fd_, all.data() + done, std::min<size_t>(all.size() - done, PIPE_BUF));
        if (size < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
        done += size > 0 ? static_cast<size_t>(size) : 0;
        is_within_line_ = done < all.size() && (is_within_line_ || done > 0);
    }
    return true;
}

bool FileSink::has_moved() const {
    struct stat ours {};
    struct stat named {};
    return stat(path_.c_str(), &named) != 0 ||
           (fstat(fd_, &ours) == 0 && (ours.st_ino != named.st_ino || ours.st_dev != named.st_dev));
}

// Where that is refused, the old file is better than none.
void FileSink::open_anew() {
    const int fresh = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, kMode);
    if (fresh >= 0) {
        close(fd_);
        fd_ = fresh;
    }
}

}  // namespace host
