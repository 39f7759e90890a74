// SPDX-License-Identifier: Apache-2.0
#include "transfer/curl_library.h"

#include <dlfcn.h>

namespace card {
namespace {

constexpr char kName[] = "libcurl.so.4";  // the version of its binary interface since 2006

template <typename Function>
bool find(void *library, const char *name, Function *function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function != nullptr;
}

const CurlLibrary *load() {
    static CurlLibrary curl;
    void *library = dlopen(kName, RTLD_NOW | RTLD_LOCAL);  // stays for the life of the process
    const bool whole = library != nullptr && find(library, "curl_global_init", &curl.global_init) &&
                       find(library, "curl_easy_init", &curl.easy_init) &&
                       find(library, "curl_easy_setopt", &curl.easy_setopt) &&
                       find(library, "curl_easy_perform", &curl.easy_perform) &&
                       find(library, "curl_easy_getinfo", &curl.easy_getinfo) &&
                       find(library, "curl_easy_escape", &curl.easy_escape) &&
                       find(library, "curl_easy_strerror", &curl.easy_strerror) &&
                       find(library, "curl_easy_cleanup", &curl.easy_cleanup) && find(library, "curl_free", &curl.free);
    return whole && curl.global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK ? &curl : nullptr;
}

}  // namespace

const CurlLibrary *curl_library() {
    static const CurlLibrary *const loaded = load();
    return loaded;
}

}  // namespace card
