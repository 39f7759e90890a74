// SPDX-License-Identifier: Apache-2.0
#include "whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace host {

namespace {

constexpr mode_t kOwnerOnly = 0600;

// A file of this process in a folder, under a name of its own until it is named.
class FileBeside {
public:
    explicit FileBeside(int folder) : folder_(folder) {
        for (int number = 0; file_ < 0 && (number == 0 || errno == EEXIST); number++) {
            name_ = ".anti-cpu-" + std::to_string(getpid()) + "-" + std::to_string(number) + ".part";
            file_ = openat(folder, name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
        }
        exists_ = file_ >= 0;
    }
    ~FileBeside() {
        close();
        if (exists_) {
            unlinkat(folder_, name_.c_str(), 0);
        }
    }
    FileBeside(const FileBeside &) = delete;
    FileBeside &operator=(const FileBeside &) = delete;

    // Each false with errno when it fails.
    bool write(std::string_view content) {
        while (exists_ && !content.empty()) {
            const ssize_t written = ::write(file_, content.data(), content.size());
            if (written < 0 && errno != EINTR) {
                return false;
            }
            content.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
        }
        return exists_;
    }
    bool close() {
        const int file = file_;
        file_ = -1;
        return file < 0 || ::close(file) == 0;
    }
    bool take_name(const std::string &name) {
        exists_ = renameat(folder_, name_.c_str(), folder_, name.c_str()) != 0;
        return !exists_;
    }

private:
    int folder_;
    int file_ = -1;
    bool exists_ = false;
    std::string name_;
};

}  // namespace

bool write_whole_file(const std::string &path, std::string_view content, std::string &error) {
    const std::filesystem::path whole(path);
    const std::string parent = whole.has_parent_path() ? whole.parent_path().string() : ".";
    const int folder = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool written = false;
    int reason = errno;
    if (folder >= 0) {
        FileBeside file(folder);
        written = file.write(content) && file.close() && file.take_name(whole.filename().string());
        reason = errno;
    }
    if (folder >= 0) {
        close(folder);
    }
    if (!written) {
        error = std::generic_category().message(reason);
    }
    return written;
}

}  // namespace host
