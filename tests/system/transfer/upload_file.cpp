// SPDX-License-Identifier: Apache-2.0
// upload_file.cpp: one transfer by the card, for the tests that hold it against servers.
//
// upload_file FILE NAME SERVER TYPE USER PASSWORD CONNECT_S STALL_S TOTAL_S CA_FILE KNOWN_HOSTS ACCEPT_ANY
// What the card logs goes to standard error. Exit status 0 when the card says that the file has arrived, else 1.
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "anti_cpu/platform.h"
#include "transfer/transfer.h"

int main(int argc, char **argv) {
    if (argc != 13) {
        return 2;
    }
    const auto number = [argv](int at) { return static_cast<uint32_t>(std::atoi(argv[at])); };
    std::ifstream file(argv[1], std::ios::binary);
    const std::string data{std::istreambuf_iterator<char>(file), {}};
    card::set_transfer_options({number(7), number(8), number(9), argv[10], argv[11], number(12) != 0});
    uint64_t result[3] = {};
    return xftp_upload_base(argv[3], argv[5], argv[6], argv[2], data.data(), static_cast<uint32_t>(data.size()),
                            number(4), result) == 0
               ? 0
               : 1;
}
