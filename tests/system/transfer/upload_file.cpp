// upload_file.cpp: one transfer by the card, for the tests that hold it against servers.
//
// Prints what the card logs (on standard error); exit status 0 when the card says that the file has arrived, 1 when it
// says that it has not, others for a wrong command line.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "anti_cpu/platform.h"
#include "transfer/transfer.h"

int main(int argc, char **argv) {
    CLI::App app("Uploads FILE as NAME to SERVER");
    std::string file, name, server, user, password;
    uint32_t type = 0;
    card::TransferOptions options;
    app.add_option("FILE", file)->required()->check(CLI::ExistingFile);
    app.add_option("--name", name)->required();
    app.add_option("--server", server)->required();
    app.add_option("--user", user);
    app.add_option("--password", password);
    app.add_option("--type", type);
    app.add_option("--connect-seconds", options.connect_seconds);
    app.add_option("--stall-seconds", options.stall_seconds);
    app.add_option("--total-seconds", options.total_seconds);
    app.add_option("--ca-file", options.ca_file);
    app.add_option("--known-hosts", options.known_hosts);
    app.add_flag("--accept-any", options.accept_any);
    CLI11_PARSE(app, argc, argv);

    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> data{std::istreambuf_iterator<char>(stream), {}};
    card::set_transfer_options(options);
    uint64_t result[3] = {};
    const int status = xftp_upload_base(server.c_str(), user.c_str(), password.c_str(), name.c_str(), data.data(),
                                        static_cast<uint32_t>(data.size()), type, result);
    return status == 0 ? 0 : 1;
}
