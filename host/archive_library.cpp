// SPDX-License-Identifier: Apache-2.0
#include "archive_library.h"

#include <dlfcn.h>

namespace host {

namespace {

constexpr char kName[] = "libarchive.so.13";  // the version of its binary interface since 2011

template <typename Function>
bool find(void *library, const char *name, Function *function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function != nullptr;
}

const ArchiveLibrary *load() {
    static ArchiveLibrary archive;
    void *library = dlopen(kName, RTLD_NOW | RTLD_LOCAL);  // stays for the life of the process
    const bool whole = library != nullptr && find(library, "archive_read_new", &archive.read_new) &&
                       find(library, "archive_read_support_filter_gzip", &archive.read_support_filter_gzip) &&
                       find(library, "archive_read_support_filter_xz", &archive.read_support_filter_xz) &&
                       find(library, "archive_read_support_filter_zstd", &archive.read_support_filter_zstd) &&
                       find(library, "archive_read_support_format_raw", &archive.read_support_format_raw) &&
                       find(library, "archive_read_open", &archive.read_open) &&
                       find(library, "archive_read_next_header", &archive.read_next_header) &&
                       find(library, "archive_read_data_block", &archive.read_data_block) &&
                       find(library, "archive_filter_bytes", &archive.filter_bytes) &&
                       find(library, "archive_error_string", &archive.error_string) &&
                       find(library, "archive_read_free", &archive.read_free);
    return whole ? &archive : nullptr;
}

}  // namespace

const ArchiveLibrary *archive_library() {
    static const ArchiveLibrary *const loaded = load();
    return loaded;
}

}  // namespace host
