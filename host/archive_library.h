// SPDX-License-Identifier: Apache-2.0
// archive_library.h: libarchive, loaded when the first compressed capture, or one from a pipe, is opened.
//
// It brings libraries along whose loading takes longer than all else that a process does at its start. Used by:
// capture_stream. Thread: any.
#pragma once

#include <archive.h>

namespace host {

// What reading a stream takes, by libarchive's names without "archive_".
struct ArchiveLibrary {
    decltype(&::archive_read_new) read_new;
    decltype(&::archive_read_support_filter_gzip) read_support_filter_gzip;
    decltype(&::archive_read_support_filter_xz) read_support_filter_xz;
    decltype(&::archive_read_support_filter_zstd) read_support_filter_zstd;
    decltype(&::archive_read_support_format_raw) read_support_format_raw;
    decltype(&::archive_read_open) read_open;
    decltype(&::archive_read_next_header) read_next_header;
    decltype(&::archive_read_data_block) read_data_block;
    decltype(&::archive_filter_bytes) filter_bytes;
    decltype(&::archive_error_string) error_string;
    decltype(&::archive_read_free) read_free;
};

// Null for good when it is not installed.
const ArchiveLibrary *archive_library();

}  // namespace host
