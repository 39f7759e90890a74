// SPDX-License-Identifier: Apache-2.0
// transfer.h: how the card's file transfer behaves: time limits, and whom it trusts.
//
// The transfer itself is xftp_upload_base of platform.h. Its 'ftp_type' is 0 FTP, 1 TFTP, 2 SFTP, 3 FTPS (FTP that must
// turn to TLS before the password is sent). Its 'server' is an IPv4 address, a name or an IPv6 address, the latter in
// brackets when a port follows: "10.0.0.1", "files.example:2121", "2001:db8::1", "[2001:db8::1]:2121". Files arrive in
// the folder where the server puts the user on logging in.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace card {

struct TransferOptions {
    // Until the server has let the user in; many answer a wrong password 5 s late. TFTP, which has no users: at most 5.
    uint32_t connect_seconds = 10;
    uint32_t stall_seconds = 10;  // below one byte a second, or without an answer, for this long
    uint32_t total_seconds = 60;  // for the whole transfer
    std::string ca_file;          // certificates that FTPS servers are checked against; empty = the system's
    std::string known_hosts;      // keys that SFTP servers are checked against; empty = ~/.ssh/known_hosts
    bool accept_any = false;      // neither certificates nor keys are checked: for labs only
};

// Whether 'text' holds one (0 to 31, 127). A line end would become a command of its own on its way to a server: a
// server, user, password or file name with such a character is refused. Pure.
bool has_control_character(std::string_view text);
// 'text' with '?' in their places, for a line of a log or a terminal.
std::string printable(std::string text);

// For the transfers that start from now on. Any thread.
void set_transfer_options(const TransferOptions &options);

// How a transfer ended.
struct TransferResult {
    std::string server;
    std::string file;
    uint64_t bytes;
    bool arrived;
};

// Called behind each transfer, in the thread that asked for it, with no lock of the card's held. An empty function ends
// that. While no transfer runs.
void set_transfer_observer(std::function<void(const TransferResult &)> observer);

}  // namespace card
