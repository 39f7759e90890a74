// SPDX-License-Identifier: Apache-2.0
// commands_upload.cpp: "upload": captures to a file server, now or when they are full.
#include <fstream>

#include "anti_cpu/anti_cpu.h"
#include "console/command_rows.h"
#include "transfer/transfer.h"

namespace host::console {

namespace {

constexpr const char *kRefused = "the module refuses the value";
constexpr size_t kLongestText = 31;  // that the module keeps whole
constexpr const char *kTooLong = "more than the 31 characters that are kept";

Status upload_server(Session &, const Arguments &arguments) {
    return done_if_zero(static_cast<uint32_t>(atc_api_set_upload_server_ip(arguments.number("ipv4"))), kRefused);
}

Status upload_type(Session &, const Arguments &arguments) {
    return done_if_zero(static_cast<uint32_t>(atc_api_set_upload_ftp_type(arguments.number("transfer"))), kRefused);
}

Status set_text(int (*set)(const char *text), const std::string &text) {
    return text.size() > kLongestText ? failed(kTooLong)
                                      : done_if_zero(static_cast<uint32_t>(set(text.c_str())), kRefused);
}

Status upload_user(Session &, const Arguments &arguments) {
    return set_text(atc_api_set_upload_server_user, arguments.text("user"));
}

Status upload_password(Session &, const Arguments &arguments) {
    return set_text(atc_api_set_upload_server_passwd, arguments.text("password"));
}

// The first line, without its end.
Status upload_password_file(Session &, const Arguments &arguments) {
    const std::string &path = arguments.text("file");
    char line[kLongestText + 2] = "";
    std::ifstream file(path);
    file.getline(line, sizeof(line));
    const auto length = static_cast<size_t>(file.gcount());
    if (length > 1 && file.fail()) {
        return failed((path + ": " + kTooLong).c_str());
    }
    const std::string password(line, length - (file.good() ? 1 : 0));
    if (password.empty()) {
        return failed((path + " cannot be read, or its first line is empty").c_str());
    }
    if (card::has_control_character(password)) {
        return failed((path + ": a control character in the password").c_str());
    }
    return set_text(atc_api_set_upload_server_passwd, password);
}

Status upload_enable(Session &, const Arguments &arguments) {
    return done_if_zero(static_cast<uint32_t>(atc_api_set_upload_server_enable(arguments.number("on|off"))), kRefused);
}

Status upload_now(Session &, const Arguments &arguments) {
    constexpr int nothing_to_upload = 2;
    FlowName flow{0, 0, 0, 0, {}};
    if (arguments.has("flow")) {
        flow = flow_name(arguments);
    }
    const int result =
        atc_api_capture_upload(flow.direction, flow.vlan, flow.port, flow.protocol, flow.source.type, flow.address(),
                               arguments.text("server").c_str(), arguments.text("user").c_str(),
                               arguments.text("password").c_str(), arguments.number_or("transfer", 0));
    if (result == nothing_to_upload) {
        return failed("there is nothing to upload");
    }
    return done_if_zero(static_cast<uint32_t>(result), "the transfer failed");
}

}  // namespace

std::vector<Command> upload_rows() {
    return {
        {"upload server <ipv4>", "Server that full automatic captures go to", upload_server},
        {"upload type <transfer>", "How they go there", upload_type},
        {"upload user <user:text>", "User on the server", upload_user},
        {"upload password <password>", "The user's password", upload_password},
        {"upload password file <file>", "The same, the first line of a file", upload_password_file},
        {"upload enable <on|off>", "Whether full automatic captures are handed over at all", upload_enable},
        {"upload now (manual | flow " ATC_FLOW_SOURCE ") to <server:text> <user:text> <password> [<transfer>]",
         "Upload the manual capture, or that of a flow or source", upload_now},
    };
}

}  // namespace host::console
