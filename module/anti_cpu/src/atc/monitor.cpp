// SPDX-License-Identifier: Apache-2.0
#include "atc/monitor.h"

#include "atc/evaluation.h"
#include "atc/state/context.h"
#include "atc/state/message.h"
#include "atc/trunk.h"
#include "atc/upload.h"

namespace {

void handle(atc_msg_t *message) ATC_EXCLUDES(g_atc_lock);

}  // namespace

int atc_task() {
    atc_task_start();
    while (atc_msg_queue_exists()) {
        atc_task_turn();
    }
    return 0;
}

void atc_task_start() {
    const atc_guard_t guard;
    atc_fp_arm();
    atc_lp_arm();
    atc_24h_arm();
}

void atc_task_turn() {
    atc_msg_t message = {};
    if (atc_msg_receive(&message)) {
        handle(&message);
    }
    const atc_guard_t guard;
    timer_list_check(g_atc_global.timer_list);
}

namespace {

void handle(atc_msg_t *message) {
    switch (message->type) {
        case ATC_MSG_UPLOAD:
            atc_upload_process(message);
            break;
        case ATC_MSG_TRUNK_JOIN: {
            const atc_guard_t guard;
            atc_trunk_add_pro(message->trunk_id, message->member_port);
            break;
        }
        case ATC_MSG_TRUNK_LEAVE: {
            const atc_guard_t guard;
            atc_trunk_del_pro(message->trunk_id, message->member_port);
            break;
        }
        default:
            break;
    }
}

}  // namespace
