// SPDX-License-Identifier: Apache-2.0
#include "atc_timer/timer.h"

#include <time.h>

#include <cstdlib>

namespace {

timer_expire_t now_plus(uint32_t seconds);
void arm(atc_timer_list_t *list, atc_timer_t *timer, timer_expire_t expire);

}  // namespace

atc_timer_list_t *timer_list_create() {
    auto *list = static_cast<atc_timer_list_t *>(malloc(sizeof(atc_timer_list_t)));
    if (list != nullptr) {
        atc_list_init(&list->head);
    }
    return list;
}

int timer_node_init(atc_timer_t *timer) {
    if (timer == nullptr) {
        return -1;
    }
    *timer = {};
    atc_list_init(&timer->link);
    return 0;
}

int timer_start(atc_timer_list_t *list, atc_timer_t *timer, uint32_t seconds, timer_fn_t fn, uintptr_t arg1,
                uintptr_t arg2, uintptr_t arg3) {
    if (list == nullptr || timer == nullptr) {
        return -1;
    }
    timer->fn = fn;
    timer->arg1 = arg1;
    timer->arg2 = arg2;
    timer->arg3 = arg3;
    arm(list, timer, now_plus(seconds));
    return 0;
}

int timer_restart(atc_timer_list_t *list, atc_timer_t *timer, uint32_t seconds) {
    if (list == nullptr || timer == nullptr) {
        return -1;
    }
    arm(list, timer, now_plus(seconds));
    return 0;
}

int timer_stop(atc_timer_list_t *list, atc_timer_t *timer) {
    if (list == nullptr || timer == nullptr) {
        return -1;
    }
    atc_list_remove(&timer->link);
    return timer_node_init(timer);
}

int timer_list_check(atc_timer_list_t *list) {
    if (list == nullptr || atc_list_is_empty(&list->head)) {
        return 0;
    }
    const timer_expire_t now = now_plus(0);
    while (!atc_list_is_empty(&list->head)) {
        auto *timer = atc_list_record<atc_timer_t>(list->head.next);
        if (timer_compare(&timer->expire, &now) > 0) {
            break;
        }
        atc_list_remove(&timer->link);
        timer->expire = {};
        // The callback may free the timer: nothing of it is touched afterwards.
        timer->fn(timer->arg1, timer->arg2, timer->arg3);
    }
    return 0;
}

int timer_compare(const timer_expire_t *a, const timer_expire_t *b) {
    if (a->seconds != b->seconds) {
        return a->seconds < b->seconds ? -1 : 1;
    }
    if (a->nanoseconds != b->nanoseconds) {
        return a->nanoseconds < b->nanoseconds ? -1 : 1;
    }
    return 0;
}

namespace {

timer_expire_t now_plus(uint32_t seconds) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t sum = int64_t{now.tv_sec} + seconds;
    return {static_cast<int32_t>(sum < INT32_MAX ? sum : INT32_MAX), static_cast<int32_t>(now.tv_nsec)};
}

// Links the timer behind all that expire before it or with it.
void arm(atc_timer_list_t *list, atc_timer_t *timer, timer_expire_t expire) {
    atc_list_remove(&timer->link);
    timer->expire = expire;
    atc_list_t *link = list->head.next;
    while (link != &list->head && timer_compare(&atc_list_record<atc_timer_t>(link)->expire, &expire) <= 0) {
        link = link->next;
    }
    atc_list_insert_before(link, &timer->link);
}

}  // namespace
