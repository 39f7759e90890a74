// SPDX-License-Identifier: Apache-2.0
// curl_library.h: libcurl, loaded by the first transfer.
//
// It brings some thirty libraries along. Loading them takes longer than all else that a process does at its start, and
// most processes never transfer a file. Inside transfer/ only. Thread: any.
#pragma once

#include <curl/curl.h>

namespace card {

// What transfers use, by libcurl's names without "curl_".
struct CurlLibrary {
    decltype(&::curl_global_init) global_init;
    decltype(&::curl_easy_init) easy_init;
    decltype(&::curl_easy_setopt) easy_setopt;
    decltype(&::curl_easy_perform) easy_perform;
    decltype(&::curl_easy_getinfo) easy_getinfo;
    decltype(&::curl_easy_escape) easy_escape;
    decltype(&::curl_easy_strerror) easy_strerror;
    decltype(&::curl_easy_cleanup) easy_cleanup;
    decltype(&::curl_free) free;
};

// The library, started; null for good when it is not installed or does not start.
const CurlLibrary *curl_library();

}  // namespace card
