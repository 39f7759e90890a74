// SPDX-License-Identifier: Apache-2.0
// A management process in C++ whose platform functions come from an archive: what a maker's own looks like.
#include <cstring>

#include "anti_cpu/anti_cpu.h"
#include "anti_cpu/platform.h"

int main() {
    static const uint8_t frame[60] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    if (ATC_VERSION_NUMBER < 100 || std::strcmp(atc_version(), ATC_VERSION) != 0) {
        return 1;
    }
    atc_init();
    atc_api_set_global_enable(1);
    if (atc_api_receive_packet(frame, sizeof(frame), 3, 100) != 0) {
        return 1;
    }
    char *text = nullptr;
    const int result = atc_api_get_rx_port_stat_brief(&text);
    const bool counted = result == 0 && text[0] != '\0';
    atc_api_free_buffer(text);
    return counted ? 0 : 1;
}
