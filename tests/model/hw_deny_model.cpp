// hw_deny_model.cpp: the command of the model check; see run.h.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "run.h"

namespace {

constexpr char USAGE[] =
    "hw_deny_model [--seed N] [--steps N] [--quiet]\n"
    "Takes random steps with the module and with a model of it, and stops at the first difference (exit 1).\n"
    "  --seed N   which steps: the same seed, the same steps (default 1)\n"
    "  --steps N  how many (default 100000). The long form, in an optimised build: --steps 10000000\n"
    "  --quiet    print nothing unless something differs\n";

}  // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest();  // the card's checks report there
    uint64_t seed = 1;
    uint64_t steps = 100'000;
    bool quiet = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const char *end = "not a number";
        if (option == "--quiet") {
            quiet = true;
            end = "";
        } else if ((option == "--seed" || option == "--steps") && i + 1 < argc) {
            char *behind = argv[++i];
            (option == "--seed" ? seed : steps) = std::strtoull(argv[i], &behind, 0);
            end = behind;
        }
        if (*end != '\0') {
            std::fputs(USAGE, option == "--help" ? stdout : stderr);
            return option == "--help" ? 0 : 2;
        }
    }
    if (!quiet) {
        std::printf("seed %" PRIu64 ", %" PRIu64 " steps\n", seed, steps);
        std::fflush(stdout);
    }
    auto run = std::make_unique<Run>(seed);
    const uint64_t failed = run->take(steps);
    if (failed != 0) {
        std::printf("seed %" PRIu64 ", step %" PRIu64 ": %s\n%sreplay: %s --seed %" PRIu64 " --steps %" PRIu64 "\n",
                    seed, failed, run->words, run->problems.c_str(), argv[0], seed, failed);
        return 1;
    }
    if (!quiet) {
        run->print_seen();
    }
    return 0;
}
