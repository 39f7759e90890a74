// SPDX-License-Identifier: Apache-2.0
// version.cpp: which release this library is. No state, no lock.
#include "anti_cpu/anti_cpu.h"

const char *atc_version() {
    return ATC_VERSION;
}
