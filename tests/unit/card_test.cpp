// SPDX-License-Identifier: Apache-2.0
// card_test.cpp: the card's log and transfer against what platform.h and services.h promise.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "anti_cpu/platform.h"
#include "card_verbs.h"
#include "services/services.h"
#include "transfer/server_address.h"

namespace {

using namespace card_verbs;

// The line that the card prints.
std::string logged(uint32_t level, const std::string &text) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ulogPrintf(1, level, "%s\r\n", text.c_str()), 0);
    return testing::internal::GetCapturedStderr();
}

TEST(CardLog, LineHasTimeLevelAndWholeText) {
    the_clock().simulate(kStart);
    run(2000 * kMs - 1);
    EXPECT_EQ(logged(11, "text"), "2021-09-02 03:46:21 11 text\n");
    for (const size_t size : {0u, 511u, 512u, 5000u}) {
        EXPECT_EQ(logged(13, std::string(size, 'x')), "2021-09-02 03:46:21 13 " + std::string(size, 'x') + "\n");
    }
    char text[20];
    syslog_get_timestamp(text, 19);
    EXPECT_STREQ(text, "2021-09-02 03:46:2");
    EXPECT_EQ(card::time_text(-1), "1969-12-31 23:59:59");
}

TEST(CardTransfer, ServerAddresses) {
    for (const auto &[server, expected] : {std::pair("files.example:2121", "files.example:2121"),
                                           {"2001:db8::1", "[2001:db8::1]"},
                                           {"[::1]:65535", "[::1]:65535"}}) {
        EXPECT_EQ(card::url_authority(server), expected) << server;
    }
    for (const char *bad :
         {"",        ":21",    "a:",     "a:0", "a:65536", "a:21x",  "a:+1", "a:1:2", "[::1", "[]",
          "[::1]21", "[::1]:", "user@a", "a/b", "a b",     "a\r\nb", "a?b",  "a#b",   "-a",   "a%41"}) {
        EXPECT_EQ(card::url_authority(bad), std::nullopt) << bad;
    }
}

// And a line end in any text is none on its way to the server, nor in the log.
TEST(CardTransfer, RefusalSaysWhyWithoutThePassword) {
    the_clock().simulate(kStart);
    struct Row {
        const char *server, *user, *passwd, *file_name, *logged;
    };
    const char *const character = "a control character in the server, user, password or file name";
    for (const Row &row : {Row{"user@127.0.0.1", "user", "secret", "a.cap", "not a server address"},
                           {"127.0.0.1:1", "user\nDELE x", "secret", "a.cap", character},
                           {"127.0.0.1:1", "user", "secret\r", "a.cap", character},
                           {"127.0.0.1:1", "user", "secret", "a.cap\x7f", character},
                           {"127.0.0.1:1\n", "user", "secret", "a.cap", character}}) {
        testing::internal::CaptureStderr();
        EXPECT_NE(xftp_upload_base(row.server, row.user, row.passwd, row.file_name, "data", 4, 0, nullptr), 0);
        const std::string logged = testing::internal::GetCapturedStderr();
        EXPECT_EQ(logged.find_first_of("\r\n\x7f"), logged.size() - 1) << logged;
        EXPECT_EQ(logged.find("secret"), logged.npos) << logged;
        EXPECT_TRUE(logged.starts_with("2021-09-02 03:46:20 13 upload of \"a.cap")) << logged;
        EXPECT_TRUE(logged.ends_with(std::string("failed: ") + row.logged + "\n")) << logged;
    }
}

}  // namespace
