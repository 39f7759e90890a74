// SPDX-License-Identifier: Apache-2.0
#include "events/queued_file.h"

namespace host {

namespace {

ssize_t add_to_queue(void *queue, const char *bytes, size_t size) {
    static_cast<LineQueue *>(queue)->add(std::string(bytes, size));
    return static_cast<ssize_t>(size);
}

std::string gap_text(uint64_t lost) {
    return "anti-cpu: " + std::to_string(lost) + " lines are missing here: they were not read in time\n";
}

}  // namespace

QueuedFile::~QueuedFile() {
    if (stream_ != nullptr) {
        close();
        std::fclose(stream_);
    }
}

bool QueuedFile::open(const std::string &path) {
    return sink_.open(path, FileSink::Start::kBehind) && begin();
}

bool QueuedFile::take(int fd) {
    sink_.take(fd);
    return fd >= 0 && begin();
}

bool QueuedFile::begin() {
    queue_ = std::make_unique<LineQueue>(
        [this](const std::string &line, const GoesOn &goes_on) { return sink_.write(line, goes_on); }, gap_text);
    stream_ = fopencookie(queue_.get(), "w", {nullptr, add_to_queue, nullptr, nullptr});
    if (stream_ != nullptr) {
        std::setvbuf(stream_, nullptr, _IOLBF, 0);
    }
    return stream_ != nullptr;
}

void QueuedFile::close() {
    if (stream_ != nullptr) {
        std::fflush(stream_);
        queue_->close();
    }
}

}  // namespace host
