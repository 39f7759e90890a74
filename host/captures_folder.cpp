// SPDX-License-Identifier: Apache-2.0
#include "captures_folder.h"

#include <filesystem>
#include <system_error>

#include "whole_file.h"

namespace host {

namespace {

namespace fs = std::filesystem;

// "a.cap" -> "a-2.cap"
std::string numbered(const std::string &name, uint32_t number) {
    const fs::path path(name);
    return path.stem().string() + "-" + std::to_string(number) + path.extension().string();
}

// Bytes of a file that is one itself: what a link points to lies elsewhere.
uint64_t bytes_of(const fs::path &path) {
    std::error_code error;
    const bool is_file = fs::is_regular_file(fs::symlink_status(path, error));
    const uintmax_t bytes = is_file ? fs::file_size(path, error) : 0;
    return error ? 0 : bytes;
}

}  // namespace

bool CapturesFolder::open(const std::string &path, uint64_t quota, Problems &problems) {
    std::error_code error;
    fs::create_directories(path, error);
    if (!fs::is_directory(path)) {
        problems.report(path, "captures", "cannot be used as the captures folder: " + error.message());
        return false;
    }
    path_ = path;
    quota_ = quota;
    problems_ = &problems;
    for (const fs::directory_entry &entry : fs::directory_iterator(path, error)) {
        held_ += bytes_of(entry.path());
    }
    return true;
}

bool CapturesFolder::write(const std::string &name, std::string_view content) {
    std::string free_name = name;
    for (uint32_t number = 2; written_.contains(free_name); number++) {
        free_name = numbered(name, number);
    }
    const fs::path path = fs::path(path_) / free_name;
    const uint64_t replaced = bytes_of(path);
    if (held_ - replaced + content.size() > quota_) {
        problems_->report(path_, "quota",
                          free_name + " is not written: the captures folder would hold more than its quota of " +
                              std::to_string(quota_) + " bytes");
        return false;
    }
    std::string error;
    if (!write_whole_file(path.string(), content, error)) {
        problems_->report(path.string(), "write", "cannot be written: " + error);
        return false;
    }
    held_ += content.size() - replaced;
    written_.insert(free_name);
    if (told_) {
        told_(path.string(), content.size());
    }
    return true;
}

}  // namespace host
