// SPDX-License-Identifier: Apache-2.0
// replay_main.cpp: runs every file of a folder through a fuzz target, in the order of their names.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "support.h"

int main(int argc, char **argv) {
    require(argc == 2, "name the folder of the inputs");
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "standard output cannot be thrown away");
    const std::filesystem::directory_iterator files(argv[1]);
    const std::set<std::filesystem::path> paths(begin(files), end(files));
    require(!paths.empty(), "there is no input");
    for (const std::filesystem::path &path : paths) {
        // Before the run: the last name is that of the input that failed.
        std::fprintf(stderr, "%s\n", path.c_str());
        std::ifstream file(path, std::ios::binary);
        // A block of exactly the input's size, so that a sanitizer sees a read behind it.
        std::vector<uint8_t> input{std::istreambuf_iterator<char>(file), {}};
        input.shrink_to_fit();
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::fprintf(stderr, "%zu inputs\n", paths.size());
    return 0;
}
