#include "support.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "standard output cannot be thrown away");
    return 0;
}

void require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "fuzz: %s\n", what);
        std::abort();
    }
}
