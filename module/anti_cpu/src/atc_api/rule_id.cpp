// SPDX-License-Identifier: Apache-2.0
#include "atc_api/rule_id.h"

#include "anti_cpu/types.h"

namespace {

// Id n uses flag n - 1; 1 = taken.
uint8_t atc_rule_alloc[ATC_RULE_ID_MAX] ATC_GUARDED_BY(g_atc_lock);

}  // namespace

int atc_get_rule_id() {
    for (int i = 0; i < ATC_RULE_ID_MAX; i++) {
        if (atc_rule_alloc[i] == 0) {
            atc_rule_alloc[i] = 1;
            return i + 1;
        }
    }
    return -1;
}

int atc_free_rule_id(int id) {
    if (id < 1 || id > ATC_RULE_ID_MAX) {
        return -1;
    }
    atc_rule_alloc[id - 1] = 0;
    return 0;
}
