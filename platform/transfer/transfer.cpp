// SPDX-License-Identifier: Apache-2.0
// transfer.cpp: xftp_upload_base on libcurl.
//
// Called by the module, on its monitor task or on a management thread, never with its mutex held; it blocks until the
// file has arrived or a time limit of TransferOptions has passed. Runs on system time, also in a simulation, where the
// whole transfer takes no simulated time. The reason of a failure goes into the log. Nothing of the user or the
// password is in a URL or in a message. Lock: one mutex around the options.
#include "transfer/transfer.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

#include "anti_cpu/platform.h"
#include "clock/clock.h"
#include "services/log.h"
#include "transfer/curl_library.h"
#include "transfer/server_address.h"

namespace {

using card::CurlLibrary;
using card::TransferOptions;

struct Protocol {
    const char *scheme;
    const char *folder;  // path of the login folder in a URL: an SFTP URL is absolute where an FTP URL is not
};

// Indexed by 'ftp_type'.
constexpr std::array<Protocol, 4> kProtocols = {{{"ftp", "/"}, {"tftp", "/"}, {"sftp", "/~/"}, {"ftp", "/"}}};
constexpr uint32_t kTftp = 1;
constexpr uint32_t kSftp = 2;
constexpr uint32_t kFtps = 3;

struct Upload {
    const char *server;
    const char *user;
    const char *passwd;
    const char *file_name;
    const char *data;
    size_t length;  // bytes
    uint32_t ftp_type;
    size_t sent = 0;  // bytes of 'data' that libcurl has taken
};

struct Options {
    std::mutex mutex;
    TransferOptions values;
    std::function<void(const card::TransferResult &)> observer;
};

// One transfer of libcurl's.
struct Transfer {
    const CurlLibrary &library;
    CURL *handle;

    template <typename Value>
    bool set(CURLoption option, Value value) const {
        return library.easy_setopt(handle, option, value) == CURLE_OK;
    }
};

bool is_control(unsigned char c);
Options &the_options();
std::string upload(Upload *upload);
std::string perform(const Transfer &curl, Upload *upload);
std::string reason_of(const Transfer &curl, CURLcode result, std::string_view detail);
std::string url_of(const Transfer &curl, const Upload &upload);
bool describe(const Transfer &curl, const std::string &url, Upload *upload, const TransferOptions &options);
bool describe_trust(const Transfer &curl, uint32_t ftp_type, const TransferOptions &options);
size_t read_data(char *buffer, size_t size, size_t count, void *upload);

}  // namespace

bool card::has_control_character(std::string_view text) {
    return std::ranges::any_of(text, is_control);
}

std::string card::printable(std::string text) {
    std::ranges::replace_if(text, is_control, '?');
    return text;
}

void card::set_transfer_options(const TransferOptions &options) {
    Options &current = the_options();
    const std::lock_guard lock(current.mutex);
    current.values = options;
}

void card::set_transfer_observer(std::function<void(const TransferResult &)> observer) {
    the_options().observer = std::move(observer);
}

int xftp_upload_base(const char *server, const char *user, const char *passwd, const char *file_name, const void *data,
                     uint32_t length, uint32_t ftp_type, void *) {
    const auto text = [](const char *given) { return given == nullptr ? "" : given; };
    Upload request{text(server),      text(user), text(passwd), text(file_name), static_cast<const char *>(data),
                   data ? length : 0, ftp_type};
    std::string failure;
    {
        const card::RealTimeScope system_time;
        failure = upload(&request);
    }
    if (const auto &observer = the_options().observer) {
        observer({request.server, request.file_name, request.length, failure.empty()});
    }
    if (failure.empty()) {
        return 0;
    }
    card::log_note("upload of \"" + card::printable(request.file_name) + "\" to \"" + card::printable(request.server) +
                   "\" failed: " + failure);
    return -1;
}

namespace {

bool is_control(unsigned char c) {
    return c < 0x20 || c == 0x7f;
}

// Returns why it failed; nothing when the file has arrived.
std::string upload(Upload *upload) {
    if (upload->ftp_type >= kProtocols.size()) {
        return "unknown transfer type " + std::to_string(upload->ftp_type) + " (0 FTP, 1 TFTP, 2 SFTP, 3 FTPS)";
    }
    if (*upload->file_name == '\0') {
        return "no file name";
    }
    for (const char *text : {upload->server, upload->user, upload->passwd, upload->file_name}) {
        if (card::has_control_character(text)) {
            return "a control character in the server, user, password or file name";
        }
    }
    const CurlLibrary *library = card::curl_library();
    if (library == nullptr) {
        return "libcurl is not installed, or does not start";
    }
    const std::unique_ptr<CURL, decltype(library->easy_cleanup)> handle(library->easy_init(), library->easy_cleanup);
    return handle != nullptr ? perform({*library, handle.get()}, upload) : "libcurl has no memory";
}

std::string perform(const Transfer &curl, Upload *upload) {
    const std::string url = url_of(curl, *upload);
    if (url.empty()) {
        return "not a server address";
    }
    TransferOptions options;
    {
        const std::lock_guard lock(the_options().mutex);
        options = the_options().values;
    }
    char reason[CURL_ERROR_SIZE] = "";
    if (!curl.set(CURLOPT_ERRORBUFFER, reason) || !describe(curl, url, upload, options)) {
        return "libcurl lacks an option that this transfer needs";
    }
    const CURLcode result = curl.library.easy_perform(curl.handle);
    // Of a TFTP transfer libcurl's only detail is that a datagram socket has no peer.
    return result == CURLE_OK ? "" : reason_of(curl, result, upload->ftp_type == kTftp ? "" : reason);
}

// Kind and detail, since the detail alone may be of an attempt on the way; and an FTP server's refusal by its number,
// since libcurl calls a 421 ("service not available", RFC 959) a time-out.
std::string reason_of(const Transfer &curl, CURLcode result, std::string_view detail) {
    constexpr long first_refusal = 400;
    std::string reason = curl.library.easy_strerror(result);
    if (!detail.empty() && detail != reason) {
        reason.append(": ").append(detail);
    }
    long answer = 0;
    curl.library.easy_getinfo(curl.handle, CURLINFO_RESPONSE_CODE, &answer);
    return answer < first_refusal ? reason : reason + " (the server answered " + std::to_string(answer) + ")";
}

// Empty when the server text is none.
std::string url_of(const Transfer &curl, const Upload &upload) {
    const auto authority = card::url_authority(upload.server);
    const std::unique_ptr<char, decltype(curl.library.free)> name(
        curl.library.easy_escape(curl.handle, upload.file_name, 0), curl.library.free);
    if (!authority || name == nullptr) {
        return "";
    }
    const Protocol &protocol = kProtocols[upload.ftp_type];
    return std::string(protocol.scheme) + "://" + *authority + protocol.folder + name.get();
}

bool describe(const Transfer &curl, const std::string &url, Upload *upload, const TransferOptions &options) {
    bool ok = true;
    const auto set = [&curl, &ok](CURLoption option, auto value) { ok = curl.set(option, value) && ok; };
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "ftp,tftp,sftp");
    set(CURLOPT_PROXY, "");  // whatever the environment says
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_UPLOAD, 1L);
    set(CURLOPT_READFUNCTION, read_data);
    set(CURLOPT_READDATA, static_cast<void *>(upload));
    set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(upload->length));
    set(CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
    if (*upload->user != '\0') {
        set(CURLOPT_USERNAME, upload->user);
        set(CURLOPT_PASSWORD, upload->passwd);
    }
    // Nobody logs in to a TFTP server: three datagrams, a second or two apart, are answered by then.
    constexpr uint32_t tftp_connect_seconds = 5;
    const uint32_t connect_seconds =
        upload->ftp_type == kTftp ? std::min(options.connect_seconds, tftp_connect_seconds) : options.connect_seconds;
    set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(connect_seconds));
    set(CURLOPT_SERVER_RESPONSE_TIMEOUT, static_cast<long>(options.stall_seconds));
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);  // bytes a second
    set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(options.stall_seconds));
    set(CURLOPT_TIMEOUT, static_cast<long>(options.total_seconds));
    return describe_trust(curl, upload->ftp_type, options) && ok;
}

bool describe_trust(const Transfer &curl, uint32_t ftp_type, const TransferOptions &options) {
    bool ok = true;
    const auto set = [&curl, &ok](CURLoption option, auto value) { ok = curl.set(option, value) && ok; };
    if (ftp_type == kFtps) {
        set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
        set(CURLOPT_FTPSSLAUTH, static_cast<long>(CURLFTPAUTH_TLS));
        set(CURLOPT_SSL_VERIFYPEER, options.accept_any ? 0L : 1L);
        set(CURLOPT_SSL_VERIFYHOST, options.accept_any ? 0L : 2L);
        if (!options.ca_file.empty()) {
            set(CURLOPT_CAINFO, options.ca_file.c_str());
        }
    }
    if (ftp_type == kSftp) {
        set(CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PASSWORD | CURLSSH_AUTH_KEYBOARD));
        if (!options.accept_any) {
            // Without a file libcurl would take any key; with an empty or missing one it takes none.
            const char *home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): nobody here changes it
            const std::string own = std::string(home == nullptr ? "" : home) + "/.ssh/known_hosts";
            set(CURLOPT_SSH_KNOWNHOSTS, options.known_hosts.empty() ? own.c_str() : options.known_hosts.c_str());
        }
    }
    return ok;
}

size_t read_data(char *buffer, size_t size, size_t count, void *upload) {
    Upload &request = *static_cast<Upload *>(upload);
    const size_t length = std::min(size * count, request.length - request.sent);
    std::copy_n(request.data + request.sent, length, buffer);
    request.sent += length;
    return length;
}

// Never destroyed: a task may upload until the process has gone.
Options &the_options() {
    static Options &options = *new Options;
    return options;
}

}  // namespace
