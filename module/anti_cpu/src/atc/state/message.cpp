// SPDX-License-Identifier: Apache-2.0
#include "atc/state/message.h"

#include "atc/state/context.h"

namespace {

constexpr int NO_WAIT = 0;
constexpr uint32_t SEND_PRIORITY = 1;

uint32_t queue() ATC_NO_THREAD_SAFETY_ANALYSIS {
    return g_atc_global.msgq;
}

}  // namespace

bool atc_msg_queue_exists() {
    return queue() != 0;
}

bool atc_msg_post(const atc_msg_t *message) {
    return bep_msgQSendEx(queue(), message, sizeof(*message), NO_WAIT, SEND_PRIORITY, __FILE__, __LINE__) == 0;
}

bool atc_msg_receive(atc_msg_t *message) {
    const int one_second = static_cast<int>(bep_sysClkRateGetEx());
    return bep_msgQReceiveEx(queue(), message, sizeof(*message), one_second, __FILE__, __LINE__) ==
           static_cast<int>(sizeof(*message));
}
